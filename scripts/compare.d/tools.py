"""The programs that are compared: how each is called, and the groups that each found."""

import collections
import json
import os
import shutil


class Tool:
    """`remembers` tells whether a repeated run can use what an earlier one saved."""

    remembers = False

    def __init__(self, name, minimum, directory):
        self.name = name
        self.minimum = minimum
        self.output = f"{directory}/{name}.out"

    def forget(self, _files):
        """Removes whatever earlier runs left that a first run would not find."""

    def lines(self):
        with open(self.output, "rb") as file:
            return file.read().split(b"\n")


class Velmarin(Tool):
    remembers = True

    def __init__(self, program, minimum, directory):
        super().__init__("velmarin", minimum, directory)
        self.program = program
        self.state = f"{directory}/state"

    def command(self, root, _repeated):
        return [self.program, "scan", "--json", "--quiet", "--min-size", str(self.minimum),
                "--state", self.state, root]

    def forget(self, files):
        shutil.rmtree(self.state, ignore_errors=True)
        remove_attributes(files, "user.velmarin.")

    def groups(self):
        with open(self.output, encoding="utf-8") as file:
            for group in json.load(file)["groups"]:
                yield [bytes.fromhex(entry["path_bytes"]) if "path_bytes" in entry
                       else entry["path"].encode() for entry in group["files"]]


class Rmlint(Tool):
    """Its repeated run uses the digests that an earlier one left in the files' attributes."""

    remembers = True

    def __init__(self, minimum, directory):
        super().__init__("rmlint", minimum, directory)

    def command(self, root, repeated):
        return ["rmlint", "--types=duplicates", "--hidden", f"--size={self.minimum}",
                "--no-with-color", "-o", f"json:{self.output}.json",
                *(["--xattr"] if repeated else []), root]

    def forget(self, files):
        remove_attributes(files, "user.rmlint.")

    def groups(self):
        with open(f"{self.output}.json", encoding="utf-8", errors="surrogateescape") as file:
            entries = [entry for entry in json.load(file) if entry.get("type") == "duplicate_file"]
        by_content = collections.defaultdict(list)
        group = None
        for entry in entries:  # an original comes before its duplicates
            group = entry["path"] if entry["is_original"] else group
            by_content[group].append(os.fsencode(entry["path"]))
        return by_content.values()


class Rdfind(Tool):
    def __init__(self, minimum, directory):
        super().__init__("rdfind", minimum, directory)

    def command(self, root, _repeated):
        return ["rdfind", "-checksum", "sha256", "-minsize", str(self.minimum), "-outputname",
                f"{self.output}.txt", root]

    def groups(self):
        by_id = collections.defaultdict(list)
        with open(f"{self.output}.txt", "rb") as file:
            for line in file:
                if not line.startswith(b"#"):
                    fields = line.rstrip(b"\n").split(b" ", 7)
                    by_id[abs(int(fields[1]))].append(fields[7])
        return by_id.values()


class ListingTool(Tool):
    """Prints one path a line, with an empty line after each group."""

    def __init__(self, name, options, minimum, directory):
        super().__init__(name, minimum, directory)
        self.options = options

    def command(self, root, _repeated):
        return [self.name, "--recurse", "--quiet", *self.options, root]

    def groups(self):
        group = []
        for line in self.lines():
            if line:
                group.append(line)
            else:
                yield group
                group = []


def remove_attributes(files, prefix):
    for name in files:
        for attribute in os.listxattr(name, follow_symlinks=False):
            if attribute.startswith(prefix):
                os.removexattr(name, attribute, follow_symlinks=False)


def all_tools(program, minimum, directory):
    return [Velmarin(program, minimum, directory), Rmlint(minimum, directory),
            Rdfind(minimum, directory),
            ListingTool("fdupes", [f"--minsize={minimum}"], minimum, directory),
            ListingTool("jdupes", [f"--ext-filter=size+=:{minimum}"], minimum, directory)]
