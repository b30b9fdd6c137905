"""The programs whose merging is compared, each as the commands of one whole run."""

import os
import shutil


class Merger:
    """`rounds` limits how often a slow program runs; `preload` is loaded into the commands."""

    def __init__(self, name, commands, rounds=None, state=None, preload=None):
        self.name = name
        self.commands = commands
        self.rounds = rounds
        self.state = state
        self.environment = os.environ | ({"LD_PRELOAD": preload} if preload else {})

    def forget(self):
        if self.state is None:
            return
        shutil.rmtree(self.state, ignore_errors=True)
        if os.path.exists(self.state):
            os.remove(self.state)


def velmarin(program, root, state, name, *options, preload=None):
    return Merger(name, [[program, "scan", "--json", "--quiet", "--state", state, *options, root]],
                  state=state, preload=preload)


def rmlint(root, script):
    """Starts a process for each file, which takes too long for more than one round."""
    return Merger("rmlint",
                  [["rmlint", "--types=duplicates", "--hidden", "--no-with-color",
                    "-o", f"sh:{script}", "-c", "sh:handler=clone", root],
                   ["sh", script, "-d", "-x"]], rounds=1, state=script)


def own_runs(program, root, workspace, short_polls):
    """The scan alone, and the scan that merges what it finds; then both with short polls."""
    state = f"{workspace}/state"
    return [velmarin(program, root, state, name + suffix, *options, preload=preload)
            for suffix, preload in (("", None), (", short polls", short_polls))
            for name, options in (("scan", []), ("scan --apply", ["--apply"]))]


def peers(root, workspace):
    return [Merger("jdupes", [["jdupes", "--recurse", "--quiet", "--dedupe", root]]),
            Merger("duperemove", [["duperemove", "-d", "-r", "-q", root]]),
            rmlint(root, f"{workspace}/rmlint.sh")]
