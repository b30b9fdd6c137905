"""One timed run of a program."""

import resource
import subprocess


def processor_seconds():
    """The processor time of all programs run so far; far more precise than time(1)."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def timed(command, output, times):
    """Wall and processor time in seconds, the highest resident memory in KiB."""
    before = processor_seconds()
    with open(output, "wb") as out:
        subprocess.run(["/usr/bin/time", "--output", times, "--format", "%e %M", *command],
                       check=True, stdout=out, stderr=subprocess.DEVNULL)
    processor = processor_seconds() - before
    with open(times, encoding="ascii") as file:
        wall, memory = file.read().split()[-2:]
    return {"wall": float(wall), "processor": processor, "memory": int(memory)}
