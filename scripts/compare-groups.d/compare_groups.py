#!/usr/bin/env python3
"""compare_groups.py SCAN_JSON RDFIND_RESULTS: compares the groups of identical files.

A file with several names is one file: each tool reports one of its names, perhaps not the same. So
paths are compared by inode, and differences are shown with the paths that the tools reported. Exits
with 77 when there is nothing to compare.
"""

import json
import os
import sys


def inode_of(path, names):
    status = os.lstat(path)
    inode = (status.st_dev, status.st_ino)
    names[inode] = path
    return inode


def groups_of_scan(file_name, names):
    with open(file_name, encoding="utf-8") as file:
        groups = json.load(file)["groups"]
    return {frozenset(inode_of(bytes.fromhex(entry["path_bytes"]) if "path_bytes" in entry
                               else entry["path"].encode(), names) for entry in group["files"])
            for group in groups}


def groups_of_rdfind(file_name, names):
    """Each line: kind, id (negative except for a group's first file), five numbers, path."""
    groups = {}
    with open(file_name, "rb") as file:
        for line in file:
            if not line.startswith(b"#"):
                fields = line.rstrip(b"\n").split(b" ", 7)
                groups.setdefault(abs(int(fields[1])), set()).add(inode_of(fields[7], names))
    return {frozenset(group) for group in groups.values()}


def describe(name, groups):
    print(f"{name}: {len(groups)} groups, {sum(map(len, groups))} files")


def show(title, groups, names):
    for group in sorted(groups, key=lambda group: names[min(group)]):
        print(title)
        for inode in sorted(group):
            print("   ", os.fsdecode(names[inode]))


def main():
    names = {}
    scan = groups_of_scan(sys.argv[1], names)
    other = groups_of_rdfind(sys.argv[2], names)
    describe("velmarin", scan)
    describe("rdfind", other)
    show("only velmarin:", scan - other, names)
    show("only rdfind:", other - scan, names)
    if not scan and not other:
        print("nothing compared: neither found identical files")
        return 77
    print("the groups differ" if scan != other else "the groups are the same")
    return 1 if scan != other else 0


sys.exit(main())
