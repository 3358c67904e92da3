# SPDX-License-Identifier: MIT
"""Other projects take the library: the example is built against the installed tree in each way that
there is, and gets a search through.

Usage, in script/sandbox:

  consumer.py BUILD_FOLDER LIBRARY_FOLDER        what is installed, and where
  consumer.py BUILD_FOLDER LIBRARY_FOLDER WAY    the example, built in this way
  consumer.py system WAY                         the same with the library that is installed here
  consumer.py run COMMAND [ARGUMENT...]          the example, as it is

with the name of the folder below the prefix where libraries go, such as "lib".
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.append(str(ROOT / "tests" / "lab"))
from laboratory import (CONNECTION, NET1, NET2, PORT, Laboratory,  # noqa: E402
                        write_configuration)

SYSTEM, RUN = sys.argv[1] == "system", sys.argv[2:] if sys.argv[1] == "run" else None
BUILD, LIBRARIES = pathlib.Path(sys.argv[1]), sys.argv[2]
WAY = None if RUN else (sys.argv[2:] if SYSTEM else sys.argv[3:] or [None])[0]
EXAMPLE = ROOT / "examples" / "failover"
FOLDER = pathlib.Path(tempfile.mkdtemp())
# Installed at one place, and used at another.
PREFIX, HERE = FOLDER / "installed", FOLDER / "moved"


def run(*command, folder=None, environment=None):
    """Runs a step of a build; its output, without which a failure could not be understood."""
    done = subprocess.run(command, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          encoding="utf-8", env=os.environ | (environment or {}), check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command}: exit status {done.returncode}\n{done.stdout}")
    return done.stdout


def install(*components):
    """Installs these components only; returns the names of the files, below the prefix."""
    shutil.rmtree(HERE, ignore_errors=True)
    for component in components:
        run("cmake", "--install", BUILD, "--prefix", PREFIX, "--component", component)
    PREFIX.rename(HERE)
    return {str(path.relative_to(HERE)) for path in HERE.rglob("*") if not path.is_dir()}


def copy_example():
    """The example as a project of its own."""
    folder = pathlib.Path(tempfile.mkdtemp(dir=FOLDER))
    for path in EXAMPLE.iterdir():
        shutil.copy(path, folder)
    return folder


def by_cmake(folder):
    prefix = [] if SYSTEM else [f"-DCMAKE_PREFIX_PATH={HERE}"]
    run("cmake", "-B", "build", *prefix, folder=folder)
    run("cmake", "--build", "build", folder=folder)
    return folder / "build" / "failover"


def by_readme(folder):
    """With nothing but what the README shows."""
    text = (ROOT / "README.md").read_text(encoding="utf-8")

    def block(language):
        return re.search(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)[1]
    (folder / "main.cpp").write_text(block("cpp"), encoding="utf-8")
    (folder / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\nproject(readme LANGUAGES CXX)\n" + block("cmake"),
        encoding="utf-8")
    return by_cmake(folder)


def by_make(folder):
    run("make", folder=folder, environment=pkg_config())
    return folder / "failover"


def by_qmake(folder):
    (folder / "Makefile").unlink()
    run("qmake", "-qt=5", "failover.pro", folder=folder, environment=pkg_config())
    run("make", folder=folder, environment=pkg_config())
    return folder / "failover"


def by_fetch_content(folder):
    """Without anything that is installed, and without what a project needs not."""
    (folder / "CMakeLists.txt").write_text(f"""\
cmake_minimum_required(VERSION 3.25)
project(failover LANGUAGES CXX)
include(FetchContent)
FetchContent_Declare(hoplane SOURCE_DIR "{ROOT}")
FetchContent_MakeAvailable(hoplane)
add_executable(failover main.cpp)
target_link_libraries(failover PRIVATE Hoplane::hoplane)
install(TARGETS failover)
""", encoding="utf-8")
    run("cmake", "-G", "Ninja", "-B", "build", folder=folder)
    run("cmake", "--build", "build", folder=folder)
    installed = folder / "installed"
    run("cmake", "--install", "build", "--prefix", installed, folder=folder)
    files = [path for path in installed.rglob("*") if not path.is_dir()]
    if files != [installed / "bin" / "failover"]:
        raise AssertionError(f"the project installs more than its own: {files}")
    if (folder / "build/_deps/hoplane-build/tools").exists():
        raise AssertionError("the tool is built too")
    return folder / "build" / "failover"


def pkg_config():
    return {} if SYSTEM else {"PKG_CONFIG_PATH": str(HERE / LIBRARIES / "pkgconfig")}


WAYS = {"readme": by_readme, "cmake": by_cmake, "make": by_make, "qmake": by_qmake,
        "fetchcontent": by_fetch_content}


def search(command):
    """Runs the example where the first server accepts; it has to find that."""
    write_configuration("failover", {
        "SwitchEnable": "true", "connectionName": CONNECTION,
        "FirstServerIp": NET1.server, "FirstServerPort": PORT, "FirstIsAutomatically": "true",
        "FirstLocalIp": NET1.device, "FirstLocalMask": "255.255.255.0",
        "FirstLocalGateWay": NET1.server, "SecondServerIp": NET2.server,
        "SecondServerPort": PORT, "SecondIsAutomatically": "false"})
    with Laboratory() as lab:
        lab.start_server(NET1.server)
        lines = []
        application = lab.start_application(command, lines.append)
        success = f"use server {NET1.server} port {PORT}"
        if not application.wait_for(lambda line: line == success, 60):
            raise AssertionError("\n".join(["no success:", *lines]))
        if lab.addresses() != [f"{NET1.device}/24"]:
            raise AssertionError(f"the device has {lab.addresses()}")


class Consumer(unittest.TestCase):
    """Built with the development files, run with the library alone."""

    def test_search(self):
        install("Runtime", "Development")
        program = WAYS[WAY](copy_example())
        library = subprocess.run(["ldd", program], stdout=subprocess.PIPE, check=True, env={
            "LD_LIBRARY_PATH": str(HERE / LIBRARIES)}, text=True).stdout
        self.assertIn("libhoplane.so.1 => /", library)
        if WAY != "fetchcontent":
            install("Runtime")
        search(["env", f"LD_LIBRARY_PATH={HERE / LIBRARIES}", program])


class Elsewhere(unittest.TestCase):
    """With a library that was not installed by this test."""

    def test_system(self):
        program = WAYS[WAY](copy_example())
        libraries = run("ldd", program)
        self.assertRegex(libraries, r"libhoplane\.so\.1 => /(usr/)?lib/")
        search([program])

    def test_program(self):
        search(RUN)


class Installed(unittest.TestCase):
    """What is installed, and where."""

    def test_components(self):
        lib = LIBRARIES
        version = re.search(r"^project\(Hoplane VERSION (\S+)",
                            (ROOT / "CMakeLists.txt").read_text(encoding="utf-8"),
                            re.MULTILINE)[1]
        cmake = install("Development")
        exported = {name for name in cmake if re.search(r"/HoplaneTargets-\w+\.cmake$", name)}
        self.assertEqual(len(exported), 1)
        self.assertEqual(cmake - exported, {
            f"{lib}/libhoplane.so", f"{lib}/pkgconfig/hoplane.pc",
            f"{lib}/cmake/Hoplane/HoplaneConfig.cmake",
            f"{lib}/cmake/Hoplane/HoplaneConfigVersion.cmake",
            f"{lib}/cmake/Hoplane/HoplaneTargets.cmake",
            "include/hoplane/hoplane.h", "include/hoplane/networkswitchworker.h",
            "include/hoplane/caddresswatcher.h", "share/man/man3/hoplane.3"})
        self.assertEqual(install("Runtime"),
                         {f"{lib}/libhoplane.so.1", f"{lib}/libhoplane.so.{version}"})
        self.assertEqual(install("Tools"), {
            "bin/hoplanectl", "share/man/man1/hoplanectl.1", "share/man/man5/switch.ini.5",
            "share/bash-completion/completions/hoplanectl",
            "share/zsh/vendor-completions/_hoplanectl"})
        documents = {str(path.relative_to(ROOT)) for folder in ("docs", "examples")
                     for path in (ROOT / folder).rglob("*")
                     if path.is_file() and path.name != "CMakeLists.txt"
                     and (folder == "examples" or path.suffix in (".md", ".svg"))}
        documents |= {"CHANGELOG.md", "CONTRIBUTING.md", "LICENSE", "README.md", "SECURITY.md",
                      "examples/failover/CMakeLists.txt"}
        self.assertEqual(install("Documentation"),
                         {f"share/doc/Hoplane/{name}" for name in documents})

    def test_nothing_names_a_folder_of_the_build(self):
        names = install("Runtime", "Development", "Tools", "Documentation")
        for name in sorted(names):
            path = HERE / name
            for folder in (ROOT, BUILD, PREFIX):
                self.assertFalse(str(folder).encode() in path.read_bytes(),
                                 f"{name} has {folder}")

    def test_tool_finds_the_library(self):
        """Where both have been moved to, without being told where that is."""
        install("Runtime", "Tools")
        self.assertIn("hoplanectl 1.", run(HERE / "bin" / "hoplanectl", "--version"))

    def test_version(self):
        """A project that asks for another major version, or a later minor one, is refused."""
        install("Runtime", "Development")
        for wanted, found in (("1", True), ("1.0", True), ("0.9", False), ("2", False),
                              ("1.99", False)):
            folder = pathlib.Path(tempfile.mkdtemp(dir=FOLDER))
            (folder / "CMakeLists.txt").write_text(
                "cmake_minimum_required(VERSION 3.25)\nproject(x LANGUAGES CXX)\n"
                f"find_package(Hoplane {wanted})\n"
                "message(STATUS \"found: ${Hoplane_FOUND}\")\n", encoding="utf-8")
            output = run("cmake", "-G", "Ninja", "-B", "build", f"-DCMAKE_PREFIX_PATH={HERE}",
                         folder=folder)
            self.assertIn(f"found: {1 if found else 0}", output, wanted)

    def test_later_minor_version(self):
        """What is installed later with another minor version serves those who asked for less."""
        source, = (HERE / name for name in install("Development")
                   if name.endswith("HoplaneConfigVersion.cmake"))
        later = FOLDER / "later.cmake"
        later.write_text(source.read_text(encoding="utf-8").replace("1.0.0", "1.3.0"),
                         encoding="utf-8")
        for wanted, fits in (("1.0", True), ("1.2.9", True), ("1.3", True), ("1.4", False),
                             ("2.0", False)):
            script = FOLDER / "ask.cmake"
            major, minor = wanted.split(".")[:2]
            script.write_text(
                f"set(CMAKE_SIZEOF_VOID_P 8)\nset(PACKAGE_FIND_VERSION {wanted})\n"
                f"set(PACKAGE_FIND_VERSION_MAJOR {major})\n"
                f"set(PACKAGE_FIND_VERSION_MINOR {minor})\n"
                f"include({later})\nmessage(STATUS \"fits: ${{PACKAGE_VERSION_COMPATIBLE}}\")\n",
                encoding="utf-8")
            self.assertIn(f"fits: {'TRUE' if fits else 'FALSE'}", run("cmake", "-P", script),
                          wanted)

    def test_component(self):
        """There are none; who asks for one is told so."""
        install("Runtime", "Development")
        folder = pathlib.Path(tempfile.mkdtemp(dir=FOLDER))
        (folder / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(x LANGUAGES CXX)\n"
            "find_package(Hoplane 1 COMPONENTS Nonsense)\n"
            "message(STATUS \"found: ${Hoplane_FOUND}\")\n", encoding="utf-8")
        output = run("cmake", "-G", "Ninja", "-B", "build", f"-DCMAKE_PREFIX_PATH={HERE}",
                     folder=folder)
        self.assertIn("found: 0", output)

    def test_qt_is_found_for_the_project(self):
        """A project that names no Qt gets it, and one without Qt's Network is told so."""
        install("Runtime", "Development")
        folder = copy_example()
        run("cmake", "-G", "Ninja", "-B", "build", f"-DCMAKE_PREFIX_PATH={HERE}", folder=folder)
        (folder / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(x LANGUAGES CXX)\n"
            "set(CMAKE_DISABLE_FIND_PACKAGE_Qt5 ON)\nfind_package(Hoplane 1)\n"
            "message(STATUS \"found: ${Hoplane_FOUND}\")\n", encoding="utf-8")
        output = run("cmake", "-G", "Ninja", "-B", "again", f"-DCMAKE_PREFIX_PATH={HERE}",
                     folder=folder)
        self.assertIn("found: 0", output)
        self.assertIn("dependency Qt5 could not be found", output)

    def test_pkg_config(self):
        install("Runtime", "Development")

        def asked(*options):
            return run("pkg-config", *options, "hoplane", environment=pkg_config()).split()
        include = HERE / "include" / "hoplane"
        self.assertIn(str(include), [os.path.normpath(word[2:]) for word in asked("--cflags")
                                     if word.startswith("-I")])
        self.assertIn("-lhoplane", asked("--libs"))
        self.assertIn("-lQt5Network", asked("--libs"))
        self.assertEqual(asked("--modversion"), [re.search(
            r"VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(encoding="utf-8").partition(
                "project(Hoplane")[2])[1]])

    def test_headers_stand_alone(self):
        """Each header compiles as the first and only one."""
        install("Development")
        for header in ("hoplane.h", "networkswitchworker.h", "caddresswatcher.h"):
            source = FOLDER / "header.cpp"
            source.write_text(f"#include <{header}>\n", encoding="utf-8")
            flags = run("pkg-config", "--cflags", "hoplane", environment=pkg_config()).split()
            run("g++", "-std=c++17", "-fPIC", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                "-fsyntax-only", *flags, source)


if __name__ == "__main__":
    del sys.argv[1:]
    try:
        unittest.main(defaultTest="Elsewhere.test_program" if RUN else
                      "Elsewhere.test_system" if SYSTEM else "Consumer" if WAY else "Installed")
    finally:
        shutil.rmtree(FOLDER)
