# SPDX-License-Identifier: MIT
"""Holds the README to what it shows: its first code stands early, its code is the example's, its
CMake lines build it, and the files and scripts that it names are there.

Usage: readme.py SOURCE_FOLDER
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()
README = (ROOT / "README.md").read_text(encoding="utf-8")


def block(language):
    return re.search(rf"^```{language}\n(.*?)^```$", README, re.MULTILINE | re.DOTALL)[1]


class Readme(unittest.TestCase):
    def test_first_code_stands_by_line_15(self):
        lines = README.splitlines()
        first = next(i for i, line in enumerate(lines, 1) if line.startswith("```"))
        self.assertLessEqual(first, 15)

    def test_code_is_the_examples(self):
        example = (ROOT / "examples/failover/main.cpp").read_text(encoding="utf-8")
        self.assertEqual(block("cpp"), example)

    def test_cmake_lines_build_the_code(self):
        """With the sources; with the installed library they are a consumer's."""
        lines = block("cmake").replace("find_package(Hoplane 1 REQUIRED)",
                                       "add_subdirectory(hoplane)")
        self.assertIn("add_subdirectory", lines)
        with tempfile.TemporaryDirectory() as folder:
            project = pathlib.Path(folder)
            (project / "hoplane").symlink_to(ROOT)
            (project / "main.cpp").write_text(block("cpp"), encoding="utf-8")
            (project / "CMakeLists.txt").write_text(lines, encoding="utf-8")
            for command in (["cmake", "-G", "Ninja", "-B", "build"], ["cmake", "--build", "build"]):
                done = subprocess.run(command, cwd=project, stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True, check=False)
                self.assertEqual(done.returncode, 0, done.stdout)
                self.assertNotIn("warning", done.stdout)
            self.assertTrue((project / "build/failover").exists())

    def test_named_files_are_there(self):
        names = set(re.findall(r"(?:script|tests|examples|bench|facade|worker|watcher|\.ci)"
                               r"/[\w./-]*",
                               README))
        self.assertGreater(len(names), 5)
        for name in sorted(names):
            self.assertTrue((ROOT / name).exists(), name)

    def test_every_configuration_key_is_explained(self):
        source = (ROOT / "worker/switchsettings.cpp").read_text(encoding="utf-8")
        keys = [key for key in re.findall(r'QLatin1String(?: \w+)?\("(\w+)"\)', source)
                if not key.startswith("Second")]
        self.assertEqual(len(keys), 10)
        for key in keys:
            self.assertIn(f"`{key}`", README)


if __name__ == "__main__":
    unittest.main()
