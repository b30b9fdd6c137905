"""File systems in loop images: one filled image is kept, and every run gets a copy of it."""

import hashlib
import os
import subprocess
import time

MKFS = {"btrfs": ["mkfs.btrfs", "-q"], "xfs": ["mkfs.xfs", "-q", "-m", "reflink=1"]}


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def digests_of(root):
    digests = {}
    for directory, _, files in os.walk(root):
        for name in files:
            path = os.path.join(directory, name)
            with open(path, "rb") as file:
                digests[path] = hashlib.file_digest(file, "sha256").digest()
    return digests


class Image:
    """`root` is where the copy is mounted; `original` keeps the tree as `fill` made it."""

    def __init__(self, file_system, original, workspace, fill):
        self.root = f"{workspace}/tree"  # the calling script unmounts it on every exit
        self.original = original
        self.copy = f"{workspace}/image"
        with open(original, "wb") as file:
            file.truncate(1 << 30)
        run(*MKFS[file_system], original)
        self.mount(original)
        fill(self.root)
        self.digests = digests_of(self.root)
        self.unmount()

    def mount(self, image):
        run("mount", "-o", "loop", image, self.root)

    def unmount(self):
        run("umount", self.root)

    def restore(self):
        """Mounts a fresh copy. It has the same identity as the last one, which must be gone
        first."""
        while self.is_attached():
            time.sleep(0.05)
        run("rm", "--force", self.copy)
        run("cp", "--sparse=always", self.original, self.copy)
        run("sync", self.copy)
        self.mount(self.copy)

    def is_attached(self):
        return subprocess.run(["losetup", "--associated", self.copy], check=True,
                              capture_output=True).stdout != b""

    def used_bytes(self):
        """Mounts again first, so that all released space is free. The sync is for a Btrfs that
        other mount namespaces keep mounted: it frees nothing before its next commit."""
        run("sync", "--file-system", self.root)
        self.unmount()
        self.mount(self.copy)
        status = os.statvfs(self.root)
        return (status.f_blocks - status.f_bfree) * status.f_frsize

    def set_cache(self, state):
        """Fills the page cache of the file system and its image with the files, or empties it."""
        run("sync")
        if state == "warm":
            run("find", self.root, "-type", "f", "-exec", "cat", "{}", "+")
            return
        with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as file:
            file.write("3")

    def is_intact(self):
        return digests_of(self.root) == self.digests
