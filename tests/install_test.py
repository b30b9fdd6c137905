"""What `cmake --install` and `cpack` hand to a user: files, a host built against them, packages.

    install_test.py BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER [CLASS]

Ends with 77 when everything was skipped.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD, SOURCE, COMPILER = (os.path.abspath(path) for path in sys.argv[1:4])
EXAMPLE = os.path.join(SOURCE, "examples/merge_duplicates.cpp")

# LIB stands for the directory of libraries, VERSION for the project's, MAJOR for its first number
# and CONFIG for the name of the build type.
RUNTIME = """LIB/libvelmarin.so.MAJOR LIB/libvelmarin.so.VERSION
    LIB/libvelmarin_platform.so.MAJOR LIB/libvelmarin_platform.so.VERSION"""
DEVELOPMENT = """LIB/libvelmarin.so LIB/libvelmarin_platform.so LIB/pkgconfig/velmarin.pc
    LIB/cmake/velmarin/velmarin-config.cmake LIB/cmake/velmarin/velmarin-config-version.cmake
    LIB/cmake/velmarin/velmarin-targets.cmake LIB/cmake/velmarin/velmarin-targets-CONFIG.cmake
    include/velmarin/control_codes.h include/velmarin/export.h include/velmarin/files.h
    include/velmarin/primitives.h include/velmarin/scan.h include/velmarin_platform/log_sink.h"""
TOOL = "bin/velmarin share/man/man1/velmarin.1 share/bash-completion/completions/velmarin "
ZSH_OF_USERS = "share/zsh/site-functions/_velmarin"
ZSH_OF_PACKAGES = "share/zsh/vendor-completions/_velmarin"


def run(*command, **options):
    """Returns standard output; a failing command fails the test with all that it printed."""
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def cached(name):
    with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as cache:
        return re.search(rf"^{name}:\w+=(.*)$", cache.read(), re.MULTILINE)[1]


def files_below(root):
    return [os.path.relpath(os.path.join(directory, name), root)
            for directory, _, names in os.walk(root) for name in names]


class InTemporaryDirectory(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.mkdtemp(prefix="velmarin-install-")
        cls.addClassCleanup(shutil.rmtree, cls.directory)

    def check_files(self, found, *lists):
        version = cached("CMAKE_PROJECT_VERSION")
        words = {"LIB/": cached("CMAKE_INSTALL_LIBDIR") + "/", "VERSION": version,
                 "MAJOR": version.partition(".")[0]}
        names = re.sub("|".join(words), lambda word: words[word[0]], " ".join(lists)).split()
        self.assertEqual(sorted(re.sub(r"targets-\w+\.", "targets-CONFIG.", name) for name in found),
                         sorted(names))

    def check_host(self, host, environment):
        """Runs the example host on a tree of its own."""
        needed = re.findall(r"\(NEEDED\).*\[(lib\w+)", run("readelf", "-dW", host))
        self.assertIn("libvelmarin", needed)
        self.assertLess(needed.index("libvelmarin_platform"), needed.index("libc"))
        done = subprocess.run([os.path.join(SOURCE, "tests/example_test.sh"), host, "here"],
                              env=environment, capture_output=True, text=True)
        if done.returncode == 77:
            self.skipTest(done.stdout)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def build_by_pkg_config(self, root):
        """Builds the example host against an installation, runs it and its tool."""
        libraries = os.path.join(root, cached("CMAKE_INSTALL_LIBDIR"))
        environment = dict(os.environ, PKG_CONFIG_PATH=libraries + "/pkgconfig",
                           LD_LIBRARY_PATH=libraries)
        flags = run("pkg-config", "--cflags", "--libs", "velmarin", env=environment).split()
        host = os.path.join(self.directory, "host")
        run(COMPILER, "-std=c++20", EXAMPLE, "-o", host, *flags)
        self.check_host(host, environment)
        self.assertEqual(run(os.path.join(root, "bin/velmarin"), "--version"),
                         f"velmarin {cached('CMAKE_PROJECT_VERSION')}\n")


class Installation(InTemporaryDirectory):
    """Everything is installed under one prefix and then moved to another place."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.root = os.path.join(cls.directory, "moved")
        run("cmake", "--install", BUILD, "--prefix", cls.directory + "/first")
        os.rename(cls.directory + "/first", cls.root)

    def test_files_lie_in_the_usual_places(self):
        self.check_files(files_below(self.root), RUNTIME, DEVELOPMENT, TOOL, ZSH_OF_USERS)

    def test_every_header_stands_alone(self):
        for name in files_below(os.path.join(self.root, "include")):
            header = os.path.join(self.root, "include", name)
            languages = ("c++", "c") if name.startswith("velmarin_platform") else ("c++",)
            for language in languages:
                run(COMPILER, "-std=c++20" if language == "c++" else "-std=c11", "-Wall", "-Wextra",
                    "-Werror", "-fsyntax-only", "-I", os.path.join(self.root, "include"), "-x",
                    language, "-", input=f'#include "{header}"\n')

    def test_a_host_is_built_with_pkg_config(self):
        self.build_by_pkg_config(self.root)

    def test_a_host_is_built_with_find_package(self):
        source = os.path.join(self.directory, "project")
        os.mkdir(source)
        with open(os.path.join(source, "CMakeLists.txt"), "w", encoding="utf-8") as file:
            file.write(f"""
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(velmarin 1.0 REQUIRED)
add_executable(host {EXAMPLE})
target_link_libraries(host PRIVATE velmarin::platform velmarin::velmarin)
""")
        run("cmake", "-G", "Ninja", "-S", source, "-B", source + "/build",
            "-DCMAKE_CXX_COMPILER=" + COMPILER, "-DCMAKE_PREFIX_PATH=" + self.root)
        run("cmake", "--build", source + "/build")
        self.check_host(source + "/build/host", os.environ)


class Packages(InTemporaryDirectory):
    PACKAGES = {
        "libvelmarin1": (RUNTIME, {"libc6", "libssl3"}),
        "libvelmarin-dev": (DEVELOPMENT, {"libvelmarin1"}),
        "velmarin": (TOOL + ZSH_OF_PACKAGES, {"libvelmarin1", "libstdc++6", "libc6"}),
    }

    def test_debian_packages_hold_each_their_part_and_work_together(self):
        for program in ("cpack", "dpkg-deb", "dpkg-shlibdeps"):
            if shutil.which(program) is None:
                self.skipTest(f"there is no {program}")
        run("cpack", "--config", os.path.join(BUILD, "CPackConfig.cmake"), "-B", self.directory)
        packages = {}
        for name in os.listdir(self.directory):
            if name.endswith(".deb"):
                packages[name.partition("_")[0]] = os.path.join(self.directory, name)
        self.assertEqual(set(packages), set(self.PACKAGES))

        root = os.path.join(self.directory, "root")
        for name, (files, dependencies) in self.PACKAGES.items():
            run("dpkg-deb", "--extract", packages[name], root)
            with self.subTest(package=name):
                listed = re.findall(r" \./usr/(\S*[^/\s])(?: -> \S+)?$",
                                    run("dpkg-deb", "--contents", packages[name]), re.MULTILINE)
                self.check_files(listed, files)
                depends = run("dpkg-deb", "--field", packages[name], "Depends")
                self.assertLessEqual(dependencies, set(re.findall(r"(?:^|, )([^ ,]+)", depends)))
                if name != "libvelmarin1":
                    self.assertIn(f"libvelmarin1 (= {cached('CMAKE_PROJECT_VERSION')})", depends)
        self.build_by_pkg_config(os.path.join(root, "usr"))


if __name__ == "__main__":
    program = unittest.main(argv=sys.argv[:1] + sys.argv[4:], exit=False)
    result = program.result
    if result.wasSuccessful() and len(result.skipped) == result.testsRun:
        print("skipped:", *(reason for _, reason in result.skipped))
        sys.exit(77)
    sys.exit(not result.wasSuccessful())
