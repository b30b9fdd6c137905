"""One timed run of a program."""

import subprocess


def timed(command, output, times):
    """Wall and processor time in seconds, the highest resident memory in KiB."""
    with open(output, "wb") as out:
        subprocess.run(["/usr/bin/time", "--output", times, "--format", "%e %U %S %M", *command],
                       check=True, stdout=out, stderr=subprocess.DEVNULL)
    with open(times, encoding="ascii") as file:
        wall, user, system, memory = file.read().split()[-4:]
    return {"wall": float(wall), "processor": float(user) + float(system), "memory": int(memory)}
