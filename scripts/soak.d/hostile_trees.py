"""hostile_trees.py TOOL TREE STATE FILES: scans trees that are larger than anybody keeps."""

import json
import os
import resource
import socket
import subprocess
import sys
import time

NAMES, DEPTH, FIFOS = 20000, 3000, 1000
DEADLINE = 3600


def require(holds, what):
    if not holds:
        raise SystemExit(f"hostile trees: {what}")


def write(path, data=b""):
    with open(path, "wb", buffering=0) as file:
        file.write(data)


def make_wide(tree, count):
    os.mkdir(tree)
    place = os.open(tree, os.O_RDONLY)
    for number in range(count):
        os.close(os.open(str(number), os.O_CREAT | os.O_WRONLY, dir_fd=place))
    os.close(place)


def make_names(tree):
    """Files of one content whose names have 255 bytes, most of them no text."""
    os.mkdir(tree)
    for number in range(NAMES):
        name = (b"%d\n\xff\x1b" % number).ljust(255, b"\xc2")
        write(os.path.join(os.fsencode(tree), name), b"same" * 300)


def make_deep(tree):
    """Many times as deep as paths reach, with two files on each level."""
    os.mkdir(tree)
    home = os.open(".", os.O_RDONLY)
    os.chdir(tree)
    for _ in range(DEPTH):
        for name in ("p", "q"):
            write(name, b"deep" * 300)
        os.mkdir("d")
        os.chdir("d")
    os.fchdir(home)
    os.close(home)


def make_others(tree):
    os.mkdir(tree)
    for number in range(FIFOS):
        os.mkfifo(os.path.join(tree, f"fifo{number}"))
        os.symlink(f"link{number}", os.path.join(tree, f"link{number}"))
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(os.path.join(tree, "socket"))
    listener.close()


def scan(tool, state, tree):
    start = time.monotonic()
    done = subprocess.run([tool, "scan", "--json", "--apply", "--min-size", "1", "--state", state, tree],
                          capture_output=True, timeout=DEADLINE)
    require(done.returncode == 0, f"{tree}: status {done.returncode}: {done.stderr[:1000]}")
    print(f"{os.path.basename(tree)}: {time.monotonic() - start:.1f} s")
    return json.loads(done.stdout)


def main():
    tool, tree, state, count = sys.argv[1:]
    paths = {name: os.path.join(tree, name) for name in ("wide", "names", "deep", "others")}
    make_wide(paths["wide"], int(count))
    make_names(paths["names"])
    make_deep(paths["deep"])
    make_others(paths["others"])

    report = scan(tool, state, paths["wide"])
    require(report["counters"]["nr_file_opened"] == int(count), "not all files were looked at")
    report = scan(tool, state, paths["names"])
    require(report["merged"]["files"] == NAMES - 1, f"merged: {report['merged']}")
    report = scan(tool, state, paths["deep"])
    found = [file["path"] for group in report["groups"] for file in group["files"]]
    reach = max(map(len, found))
    require(reach in (4094, 4095), f"the longest path has {reach} bytes")
    print(f"deep: {len(found)} files, the longest path has {reach} bytes")
    report = scan(tool, state, paths["others"])
    require(report["groups"] == [], "what is no file was reported")
    report = scan(tool, state, tree)
    require(sorted(len(group["files"]) for group in report["groups"])[-1] == NAMES, "all at once")
    peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    print(f"peak memory of a scan: {peak >> 10} MiB")


main()
