"""What the test scripts share that has nothing to do with the tool."""

import subprocess
import sys
import unittest


def run(*command, **options):
    """Returns standard output; a failing command fails the test with all that it printed."""
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def main(names):
    """Runs the named tests of the calling script, or all. Ends with 77 when all were skipped."""
    result = unittest.main(argv=[sys.argv[0], *names], exit=False).result
    all_skipped = result.skipped and len(result.skipped) >= result.testsRun
    if all_skipped:
        print("skipped:", *{reason for _, reason in result.skipped})
    sys.exit(1 if not result.wasSuccessful() else 77 if all_skipped else 0)
