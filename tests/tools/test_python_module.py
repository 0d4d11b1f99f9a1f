"""The Python module is typed, stands on the standard library alone, and can be installed."""

import ast
import glob
import os
import subprocess
import sys
import tomllib

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
MODULE = f"{PROJECT}/python"
EXAMPLES = sorted(glob.glob(f"{PROJECT}/examples/*.py"))


def test_the_module_and_the_examples_are_typed():
    assert len(EXAMPLES) == 2, EXAMPLES
    done = subprocess.run(
        ["mypy", "--strict", "--cache-dir=/dev/null", "-p", "tess"],
        cwd=MODULE,
        check=False,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    assert done.returncode == 0, done.stdout
    for example in EXAMPLES:
        done = subprocess.run(
            ["mypy", "--strict", "--cache-dir=/dev/null", example],
            env=os.environ | {"MYPYPATH": MODULE},
            check=False,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        assert done.returncode == 0, done.stdout


def test_it_needs_nothing_but_the_standard_library():
    imported = set()
    for path in glob.glob(f"{MODULE}/tess/*.py"):
        with open(path, encoding="utf-8") as file:
            for node in ast.walk(ast.parse(file.read())):
                if isinstance(node, ast.Import):
                    imported |= {alias.name.partition(".")[0] for alias in node.names}
                elif isinstance(node, ast.ImportFrom):
                    imported.add((node.module or "").partition(".")[0])
    assert imported - sys.stdlib_module_names == {"tess"}, imported


def test_it_has_the_version_of_the_daemon_and_says_that_it_is_typed():
    with open(f"{MODULE}/pyproject.toml", "rb") as file:
        project = tomllib.load(file)
    with open(f"{PROJECT}/CMakeLists.txt", encoding="utf-8") as file:
        assert f"project(tessd VERSION {project['project']['version']} " in file.read()
    assert os.path.exists(f"{MODULE}/tess/py.typed")
    assert project["tool"]["setuptools"] == {"packages": ["tess"], "package-data": {"tess": ["py.typed"]}}
