"""The trees that the scan is measured on."""

import os
import random
import subprocess

MANY_ENTRIES = 300_000


def count_entries(directory):
    return sum(len(directories) + len(files) for _, directories, files in os.walk(directory))


def copy(source, target):
    subprocess.run(["cp", "-a", "--one-file-system", source, target], check=True)


def make_many(root):
    """Real files: /usr, then more copies of its parts with many small files, until there are
    enough."""
    copy("/usr", f"{root}/usr")
    parts = ["share", "include"]
    copies = 0
    while count_entries(root) < MANY_ENTRIES:
        part = parts[copies % len(parts)]
        if os.path.isdir(f"/usr/{part}"):
            copy(f"/usr/{part}", f"{root}/{part}-{copies}")
        copies += 1


def make_of_sizes(root, sizes, duplicates):
    """A file for each size; `duplicates` of them, at random, repeat an earlier one's content."""
    chosen = random.Random(1)
    block = bytearray(os.urandom(max(sizes)))
    originals = []
    for number, size in enumerate(sizes):
        directory = f"{root}/{number // 500:03}"
        os.makedirs(directory, exist_ok=True)
        name = f"{directory}/{number:06}"
        if originals and chosen.random() < duplicates:
            copy(chosen.choice(originals), name)
            continue
        mark = b"%016d" % number
        for offset in range(0, size - len(mark), 4096):  # no two blocks are alike
            block[offset:offset + len(mark)] = mark
        with open(name, "wb") as file:
            file.write(memoryview(block)[:size])
        originals.append(name)


def make_large(root):
    make_of_sizes(root, [16 << 20] * 250, 1 / 3)


def make_medium(root):
    sizes = random.Random(2)
    make_of_sizes(root, [sizes.randrange(64 << 10, (256 << 10) + 1) for _ in range(50_000)], 0.3)


def make_groups(root, files, sizes, members):
    """Makes `files` files in groups of identical ones; `sizes` and `members` are ranges to draw
    from."""
    chosen = random.Random(3)
    number = 0
    while number < files:
        content = os.urandom(chosen.choice(sizes))
        for _ in range(min(chosen.choice(members), files - number)):
            directory = f"{root}/{number // 500:03}"
            os.makedirs(directory, exist_ok=True)
            with open(f"{directory}/{number:06}", "wb") as file:
                file.write(content)
            number += 1


def make_small_groups(root):
    make_groups(root, 3000, range(64 << 10, (256 << 10) + 1), range(2, 18))


def make_large_groups(root):
    make_groups(root, 30, [16 << 20], [3])


def make_tree(name, root):
    makers = {"many": make_many, "large": make_large, "medium": make_medium}
    os.makedirs(root, exist_ok=True)
    if name in makers:
        makers[name](root)
    else:
        copy(name, f"{root}/copy")
