"""The platform's build program accepts Android.bp and reads from it what CMake reads from its own
lists; the commands that it writes compile and link the library.

    android_build_test.py BUILD_DIRECTORY SOURCE_DIRECTORY

The program is the one used in a platform's source tree, in Debian's version. Its commands run
Debian's clang and lld instead of the platform's, with GNU/Linux headers instead of the platform's C
and C++ libraries. The test does not show that the sources compile against a device's headers, or
that a later version of the program accepts the file.
"""

import json
import os
import re
import shlex
import subprocess
import sys
import unittest
from pathlib import Path

from support.script import main, run

BUILD, SOURCE = (os.path.abspath(path) for path in sys.argv[1:3])
TREE = Path(BUILD, "android/tree")  # a platform's source tree
PLACE = "hardware/ril/velmarin/"  # of the project in it
PRODUCTS = f"out/soong/.intermediates/{PLACE}"
LIBRARY = PRODUCTS + "libvelmarin/android_arm64_armv8-a_shared/unstripped/libvelmarin.so"


def ninja(*arguments):
    return run("ninja", "-f", "out/soong/build.ninja", *arguments, cwd=TREE)


def objects_of(module):
    """Its object files and their sources, which are its own."""
    return [(entry["output"], entry["file"].removeprefix(PLACE))
            for entry in json.loads(ninja("-t", "compdb", "g.cc.cc"))
            if entry["output"].startswith(f"{PRODUCTS}{module}/")]


class AndroidBuild(unittest.TestCase):
    # Set by the build type or by one build system, or for headers that the other treats as system
    # headers.
    OTHERS = re.compile(r"-(I|O|g|M|o$|c$|DNDEBUG|DGTEST|DDO_NOT_CHECK|fPI[CE]|f.*-prefix-map|"
                        r"Wno-undef)")

    @classmethod
    def setUpClass(cls):
        """Has the program write what ninja is to do."""
        out = "out/soong/"
        Path(TREE, out, "build.ninja").unlink(missing_ok=True)
        run(out + "soong_build", "-b", out, "-l", out + "build_files", "-o", out + "build.ninja",
            "-globFile", out + "build.ninja.globs", "Android.bp", cwd=TREE,
            env={"PATH": os.environ["PATH"], "LLVM_PREBUILTS_BASE": "prebuilts",
                 "LLVM_PREBUILTS_VERSION": "clang"})

    def own_flags(self, words):
        return {word for word in words if word.startswith("-") and not self.OTHERS.match(word)}

    def test_sources_and_flags_are_those_of_cmake(self):
        database = json.loads(Path(BUILD, "compile_commands.json").read_text(encoding="utf-8"))
        text = Path(TREE, "out/soong/build.ninja").read_text(encoding="utf-8")
        for module, target in (("libvelmarin", "velmarin_objects"),
                               ("velmarin_device_test", "device_tests")):
            commands = {os.path.relpath(entry["file"], SOURCE): shlex.split(entry["command"])
                        for entry in database if f"/{target}.dir/" in entry["command"]}
            self.assertEqual(sorted(source for _, source in objects_of(module)), sorted(commands))
            own = rf"^m\.{module}_android_\S*\.c(?:pp)?flags = (.*)$"
            flags = " ".join(re.findall(own, text, re.M)).split()
            flags.remove("-fno-rtti")  # every module gets it anyway
            for source, words in commands.items():
                self.assertEqual(self.own_flags(flags), self.own_flags(words), source)

    def test_the_platforms_commands_compile_and_link(self):
        ninja("-k", "0", LIBRARY, *(product for product, _ in objects_of("velmarin_device_test")))
        run(SOURCE + "/tests/segments_test.sh", TREE / LIBRARY)
        run(SOURCE + "/tests/exports_test.sh", TREE / LIBRARY, SOURCE + "/include",
            SOURCE + "/src/libvelmarin.map")


lay_out = subprocess.run([SOURCE + "/scripts/android.d/lay-out", BUILD + "/android"])
if lay_out.returncode != 0:
    sys.exit(lay_out.returncode)
main(sys.argv[3:])
