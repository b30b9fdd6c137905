"""The platform build file says what the CMake build says, and its lists are enough to compile.

    android_build_test.py BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER [CLASS]

Beyond the C and C++ libraries and libcrypto, the sources need nothing but <android/log.h> and
<bounds_checked.h>. What needs a platform tree is not shown: that its build system accepts the file,
and that the sources compile against a device's own libraries; those of GNU/Linux take their place.
"""

import json
import os
import re
import shlex
import shutil
import sys
import tempfile
import unittest
from pathlib import Path

from support.script import main, run

BUILD, SOURCE, COMPILER = (os.path.abspath(path) for path in sys.argv[1:4])
PLATFORM_HEADERS = SOURCE + "/platform/linux/include/"
ARM64_HEADERS = Path("/usr/aarch64-linux-gnu/include")  # of Debian's cross compiler
LIBLOG_HEADERS = "/usr/include/android"  # of Debian's android-liblog-dev


def read_modules():
    """The modules by name, with their defaults merged in. Without comments and last commas, and
    with names in quotes, a module is a JSON object."""
    text = re.sub(r"//.*", "", Path(SOURCE, "Android.bp").read_text(encoding="utf-8"))
    text = re.sub(r",(\s*[\]}])", r"\1", re.sub(r"(\w+):", r'"\1":', text))
    modules = {}
    for kind, body in re.findall(r"^(\w+) (\{.*?^\})", text, re.M | re.S):
        module = {"kind": kind, **json.loads(body)}
        for name in module.pop("defaults", []):
            module["cpp_std"] = modules[name]["cpp_std"]
            module["cflags"] = modules[name]["cflags"] + module.get("cflags", [])
        modules[module["name"]] = module
    return modules


LIBRARY, TEST = map(read_modules().get, ("libvelmarin", "velmarin_device_test"))


def flags_of(module):
    return module["cflags"] + module.get("cppflags", []) + ["-std=" + module["cpp_std"]]


class Lists(unittest.TestCase):
    # Chosen by the build type, by a sanitizer or by the build system itself.
    OTHERS = re.compile(r"-(I|O|g|M|o$|c$|DNDEBUG|DGTEST|fPI[CE]|f.*-prefix-map|fsanitize|"
                        r"fno-sanitize|fno-omit-frame-pointer|Wno-maybe-uninitialized|"
                        r"Wl,-soname|Wl,-rpath|Wl,--version-s)")

    def own_flags(self, words):
        return {word for word in words if word.startswith("-") and not self.OTHERS.match(word)}

    def test_sources_flags_and_directories_are_those_of_cmake(self):
        database = json.loads(Path(BUILD, "compile_commands.json").read_text(encoding="utf-8"))
        for module, target in ((LIBRARY, "velmarin_objects"), (TEST, "device_tests")):
            commands = {os.path.relpath(entry["file"], SOURCE): shlex.split(entry["command"])
                        for entry in database if f"/{target}.dir/" in entry["command"]}
            self.assertEqual(sorted(module["srcs"]), sorted(commands))
            for source, words in commands.items():
                self.assertEqual(self.own_flags(flags_of(module)), self.own_flags(words), source)

    def test_the_library_is_linked_as_by_cmake(self):
        commands = run("ninja", "-C", BUILD, "-t", "commands", "libvelmarin.so").splitlines()
        words = shlex.split(next(line for line in commands if "-Wl,-soname,libvelmarin.so" in line))
        self.assertEqual(set(LIBRARY["ldflags"]),
                         {word for word in self.own_flags(words) if word.startswith("-Wl,")})
        self.assertIn(f"-Wl,--version-script={SOURCE}/{LIBRARY['version_script']}", words)
        linked = {os.path.basename(word)[:-3] for word in words if word.endswith(".so")}
        self.assertEqual(set(LIBRARY["shared_libs"]), linked | {"libbounds_checked", "liblog"})


class Syntax(unittest.TestCase):
    def compile(self, module, compiler, log_headers=PLATFORM_HEADERS):
        with tempfile.TemporaryDirectory(prefix="velmarin-android-") as headers:
            shutil.copy(PLATFORM_HEADERS + "bounds_checked.h", headers)
            shutil.copytree(log_headers + "/android", headers + "/android")
            directories = LIBRARY["export_include_dirs"] + module["local_include_dirs"] + [headers]
            run(*compiler, "-fsyntax-only", *flags_of(module),
                *("-I" + directory for directory in directories), *module["srcs"], cwd=SOURCE)

    def test_the_sources_need_no_other_header_of_the_platform(self):
        for module in (LIBRARY, TEST):
            self.compile(module, [COMPILER])

    @unittest.skipUnless(shutil.which("clang++") and ARM64_HEADERS.is_dir(),
                         "needs clang and the headers of the 64-bit Arm cross compiler")
    def test_clang_accepts_the_sources_for_android(self):
        libraries = max(ARM64_HEADERS.glob("c++/*"), key=lambda path: int(path.name))
        # The last two hold what is the same on every architecture, and OpenSSL's configuration.
        clang = ["clang++", "--target=aarch64-linux-android30", "-nostdinc++", "-nostdlibinc",
                 "-isystem", libraries, "-isystem", libraries / "aarch64-linux-gnu",
                 "-isystem", ARM64_HEADERS, "-idirafter", "/usr/include/aarch64-linux-gnu",
                 "-idirafter", "/usr/include"]
        for headers in filter(os.path.isdir, (PLATFORM_HEADERS, LIBLOG_HEADERS)):
            self.compile(LIBRARY, clang, headers)


main(sys.argv[4:])
