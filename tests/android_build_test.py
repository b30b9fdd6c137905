"""The platform build file says what the CMake build says, and its lists are enough to compile.

    android_build_test.py BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER [CLASS]

No platform tree is at hand. What is shown: lists and flags agree; the sources compile with the
include directories of the platform build file and, beyond the C library, C++ library and libcrypto,
with nothing but <android/log.h> and <bounds_checked.h>; clang accepts them for its Android target,
with Android's macros defined. What is not: that the platform's build system accepts the file, and
that the sources compile against the device's own C and C++ libraries, since those of GNU/Linux take
their place here. The test framework needs headers of a device's C library for Android's target, so
the device test is compiled for this machine only.

Ends with 77 when everything was skipped.
"""

import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD, SOURCE, COMPILER = (os.path.abspath(path) for path in sys.argv[1:4])
PLATFORM_HEADERS = os.path.join(SOURCE, "platform/linux/include")
ARM64_HEADERS = "/usr/aarch64-linux-gnu/include"  # of Debian's cross compiler
LIBLOG_HEADERS = "/usr/include/android"  # of Debian's android-liblog-dev


def parse_modules(text):
    """The modules of a platform build file by name, with their defaults merged in."""
    tokens = re.findall(r'//[^\n]*|"[^"]*"|[\w.+-]+|[{}\[\]:,]', text)
    tokens = [token for token in tokens if not token.startswith("//")]

    def value():
        token = tokens.pop(0)
        if token not in "[{":
            return json.loads(token)
        items, closing = ([], "]") if token == "[" else ({}, "}")
        while tokens[0] != closing:
            if token == "[":
                items.append(value())
            else:
                key = tokens.pop(0)
                assert tokens.pop(0) == ":", key
                items[key] = value()
            if tokens[0] == ",":
                tokens.pop(0)
        tokens.pop(0)
        return items

    modules = {}
    while tokens:
        kind = tokens.pop(0)
        module = dict(value(), kind=kind)
        for name in module.pop("defaults", []):
            for key, inherited in modules[name].items():
                if isinstance(inherited, list):
                    module[key] = inherited + module.get(key, [])
                else:
                    module.setdefault(key, inherited)
        modules[module["name"]] = module
    return modules


with open(os.path.join(SOURCE, "Android.bp"), encoding="utf-8") as build_file:
    MODULES = parse_modules(build_file.read())
LIBRARY = MODULES["libvelmarin"]
TEST = MODULES["velmarin_device_test"]


class Lists(unittest.TestCase):
    # Chosen by the build type, by a sanitizer or by the build system itself.
    OTHERS = re.compile(r"-(I|O|g|M|o$|c$|DNDEBUG|DGTEST|fPI[CE]|f.*-prefix-map|fsanitize|fno-sanitize|"
                        r"fno-omit-frame-pointer|Wl,-soname|Wl,-rpath|Wl,--version-script)")

    def setUp(self):
        for name in ("build.ninja", "compile_commands.json"):
            if not os.path.exists(os.path.join(BUILD, name)):
                self.skipTest(f"the build has no {name}, as those of the presets have")

    def own_flags(self, words):
        return sorted(word for word in words if word.startswith("-") and not self.OTHERS.match(word))

    def compile_commands(self, target):
        """The words of each compile command of a CMake target, by source file."""
        with open(os.path.join(BUILD, "compile_commands.json"), encoding="utf-8") as database:
            return {os.path.relpath(entry["file"], SOURCE): shlex.split(entry["command"])
                    for entry in json.load(database) if f"/{target}.dir/" in entry["command"]}

    def check_compilation(self, module, target):
        commands = self.compile_commands(target)
        self.assertEqual(sorted(module["srcs"]), sorted(commands))
        flags = self.own_flags(module["cflags"] + module.get("cppflags", []) +
                               ["-std=" + module["cpp_std"]])
        for source, words in commands.items():
            self.assertEqual(flags, self.own_flags(words), source)
        return commands

    def test_the_library_has_the_sources_flags_and_directories_of_cmake(self):
        self.assertEqual(LIBRARY["kind"], "cc_library_shared")
        commands = self.check_compilation(LIBRARY, "velmarin_objects")
        directories = LIBRARY["local_include_dirs"] + LIBRARY["export_include_dirs"]
        for words in commands.values():
            own = {os.path.relpath(word[2:], SOURCE) for word in words if word.startswith("-I")}
            self.assertEqual(set(directories), own - {os.path.relpath(PLATFORM_HEADERS, SOURCE)})

    def test_the_library_is_linked_as_by_cmake(self):
        commands = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", "libvelmarin.so"],
                                  capture_output=True, text=True, check=True).stdout.splitlines()
        words = shlex.split(next(line for line in commands if "-Wl,-soname,libvelmarin.so" in line))
        self.assertEqual(sorted(LIBRARY["ldflags"]),
                         [word for word in self.own_flags(words) if word.startswith("-Wl,")])
        self.assertIn("-Wl,--version-script=" + os.path.join(SOURCE, LIBRARY["version_script"]), words)
        linked = {os.path.basename(word)[:-3] for word in words if word.endswith(".so")}
        self.assertEqual(set(LIBRARY["shared_libs"]), linked | {"libbounds_checked", "liblog"})

    def test_the_device_test_is_that_of_cmake(self):
        self.assertEqual((TEST["kind"], TEST["shared_libs"]), ("cc_test", ["libvelmarin"]))
        self.check_compilation(TEST, "device_tests")


class Syntax(unittest.TestCase):
    maxDiff = None  # a failure shows all that the compiler said

    def setUp(self):
        self.headers = tempfile.mkdtemp(prefix="velmarin-android-")
        self.addCleanup(shutil.rmtree, self.headers)
        shutil.copy(os.path.join(PLATFORM_HEADERS, "bounds_checked.h"), self.headers)

    def use_log_header_of_the_project(self):
        shutil.copytree(os.path.join(PLATFORM_HEADERS, "android"), self.headers + "/android")

    def compile(self, module, sources, directories, compiler):
        """Compiles without output and returns what the compiler says."""
        exported = LIBRARY["export_include_dirs"] + module["local_include_dirs"]
        flags = module["cflags"] + module.get("cppflags", []) + ["-std=" + module["cpp_std"]]
        command = [*compiler, "-fsyntax-only", *flags,
                   *("-I" + directory for directory in [*exported, *directories]), *sources]
        done = subprocess.run(command, cwd=SOURCE, capture_output=True, text=True)
        return "" if done.returncode == 0 else done.stderr or str(done.returncode)

    def check(self, modules, directories, compiler):
        for module in modules:
            self.assertEqual(self.compile(module, module["srcs"], directories, compiler), "")
        # No other header of the Linux platform layer is within reach.
        unreachable = os.path.join(self.headers, "unreachable.cpp")
        with open(unreachable, "w", encoding="utf-8") as file:
            file.write("#include <velmarin_platform/log_sink.h>\n")
        self.assertIn("velmarin_platform/log_sink.h",
                      self.compile(LIBRARY, [unreachable], directories, compiler))

    def android_clang(self):
        if shutil.which("clang++") is None:
            self.skipTest("there is no clang++")
        libraries = os.path.join(ARM64_HEADERS, "c++")
        if not os.path.isdir(libraries):
            self.skipTest("the headers of the 64-bit Arm cross compiler are not installed")
        newest = os.path.join(libraries, max(os.listdir(libraries), key=int))
        system = [newest, newest + "/aarch64-linux-gnu", ARM64_HEADERS]
        # The last two hold what is the same on every architecture, and OpenSSL's configuration.
        return ["clang++", "--target=aarch64-linux-android30", "-nostdinc++", "-nostdlibinc",
                *(word for directory in system for word in ("-isystem", directory)),
                "-idirafter", "/usr/include/aarch64-linux-gnu", "-idirafter", "/usr/include"]

    def test_the_sources_need_no_other_header_of_the_platform(self):
        self.use_log_header_of_the_project()
        self.check([LIBRARY, TEST], [self.headers], [COMPILER])

    def test_clang_accepts_the_sources_for_android(self):
        self.use_log_header_of_the_project()
        self.check([LIBRARY], [self.headers], self.android_clang())

    def test_clang_accepts_the_sources_with_the_log_header_of_android(self):
        clang = self.android_clang()
        if not os.path.exists(LIBLOG_HEADERS + "/android/log.h"):
            self.skipTest("android-liblog-dev is not installed")
        self.check([LIBRARY], [self.headers, LIBLOG_HEADERS], clang)


if __name__ == "__main__":
    program = unittest.main(argv=sys.argv[:1] + sys.argv[4:], exit=False)
    result = program.result
    if result.wasSuccessful() and len(result.skipped) == result.testsRun:
        print("skipped:", *(reason for _, reason in result.skipped))
        sys.exit(77)
    sys.exit(not result.wasSuccessful())
