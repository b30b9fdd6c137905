"""The example host, and what `cmake --install` and `cpack` give a user, with that host built
against it.

    install_test.py BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER [CLASS]
"""

import os
import re
import shutil
import sys
import unittest
from pathlib import Path

from support.script import TreeCase, content, main, run

BUILD, SOURCE, COMPILER = (os.path.abspath(path) for path in sys.argv[1:4])
CACHE = Path(BUILD, "CMakeCache.txt").read_text(encoding="utf-8")
LIBRARIES, VERSION = (re.search(rf"^{name}:\w+=(.*)$", CACHE, re.M)[1]
                      for name in ("CMAKE_INSTALL_LIBDIR", "CMAKE_PROJECT_VERSION"))
EXAMPLE = SOURCE + "/examples/merge_duplicates.cpp"
PROJECT = f"""cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(velmarin 1.0 REQUIRED)
add_executable(host {EXAMPLE})
target_link_libraries(host PRIVATE velmarin::platform velmarin::velmarin)
"""


class Host(TreeCase):
    def run_host(self, host, **options):
        """The example host merges two of three files, and reads none of them again."""
        data = {"copy": content("same", 300000), "different": content("other", 300000),
                "original": content("same", 300000)}
        paths = [self.write(name, data[name]) for name in data]
        state = self.directory / (os.path.basename(host) + "-state")
        state.mkdir()
        self.assertEqual(run(host, state, self.root, **options),
                         "3 candidates, 3 read\n1 merged, 0 refused\n")
        self.assertIn("3 candidates, 0 read\n", run(host, state, self.root, **options))
        self.assertEqual([path.read_bytes() for path in paths], list(data.values()))


class Example(Host):
    def test_it_runs_as_it_was_built(self):
        self.run_host(BUILD + "/merge_duplicates")


class Installed(Host):
    def build_by_pkg_config(self, root):
        """Builds the example host against an installation, runs it and the tool."""
        environment = dict(os.environ, PKG_CONFIG_PATH=f"{root}/{LIBRARIES}/pkgconfig",
                           LD_LIBRARY_PATH=f"{root}/{LIBRARIES}")
        flags = run("pkg-config", "--cflags", "--libs", "velmarin", env=environment).split()
        host = self.directory / "host-by-pkg-config"
        run(COMPILER, "-std=c++20", EXAMPLE, "-o", host, *flags)
        self.run_host(host, env=environment)
        self.assertEqual(run(root / "bin/velmarin", "--version"), f"velmarin {VERSION}\n")


class Installation(Installed):
    def test_a_host_is_built_against_an_installation_that_was_moved(self):
        root = self.directory / "moved"
        run("cmake", "--install", BUILD, "--prefix", self.directory / "first")
        os.rename(self.directory / "first", root)
        self.build_by_pkg_config(root)
        (self.directory / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")
        build = self.directory / "build"
        run("cmake", "-G", "Ninja", "-S", self.directory, "-B", build,
            "-DCMAKE_CXX_COMPILER=" + COMPILER, "-DCMAKE_PREFIX_PATH=" + str(root))
        run("cmake", "--build", build)
        self.run_host(build / "host")
        for header in (root / "include").glob("*/*.h"):  # each compiles by itself
            run(COMPILER, "-std=c++20", "-Wall", "-Werror", "-fsyntax-only", "-x", "c++",
                "-I", root / "include", "-include", header, os.devnull)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd-analyze")
    def test_the_units_are_sound_and_can_do_little(self):
        root = self.directory / "units"
        run("cmake", "--install", BUILD, "--prefix", root)
        units = [self.directory / f"velmarin@night.{kind}" for kind in ("timer", "service")]
        for unit in units:
            text = (root / "lib/systemd/system" / unit.name.replace("night", "")).read_text("utf-8")
            unit.write_text(text.replace("ExecStart=", f"ExecStart={root}/bin/"), encoding="utf-8")
        run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", *units)
        run("systemd-analyze", "security", "--offline=yes", "--threshold=22", units[1])
        line, = re.findall(r"^ExecStart=velmarin (.*)$", text, re.M)
        config = root / "share/doc/velmarin/examples/example.conf"
        command = line.replace("/etc/velmarin/%i.conf", str(config)).replace("%S", str(root))
        config.write_text(re.sub("/srv/library|/home", str(self.root), config.read_text("utf-8")))
        run(root / "bin/velmarin", *command.split())


class Packages(Installed):
    @unittest.skipUnless(shutil.which("lintian") and shutil.which("dpkg-gensymbols"),
                         "needs lintian and dpkg-dev")
    def test_debian_packages_work_together(self):
        run("cpack", "--config", BUILD + "/CPackConfig.cmake", "-B", self.directory)
        run("lintian", "--fail-on", "error,warning", "--allow-root", *self.directory.glob("*.deb"))
        (self.directory / "debian").mkdir()
        shutil.copy(BUILD + "/packaging/changelog", self.directory / "debian")
        (self.directory / "debian/control").write_text(
            "Source: velmarin\n\nPackage: libvelmarin1\nArchitecture: any\n", encoding="utf-8")
        run("dpkg-gensymbols", "-c4", "-O", "-plibvelmarin1", f"-I{SOURCE}/packaging/symbols",
            *(f"-e{BUILD}/{name}.so.1" for name in ("libvelmarin", "libvelmarin_platform")),
            cwd=self.directory)
        for package in self.directory.glob("*.deb"):
            run("dpkg-deb", "--extract", package, self.directory / "packages")
        self.build_by_pkg_config(self.directory / "packages/usr")


main(sys.argv[4:])
