"""What `cmake -B build` does on a machine that has little, and which presets are strict."""

from __future__ import annotations

import json
import pathlib
import re

import pytest
from conftest import PROJECT, run

WITHOUT = {
    "CLI11": "tessctl is not built, as this is missing: CLI11",
    "nlohmann_json": "tessctl is not built, as this is missing: nlohmann-json",
    "PkgConfig": (
        "tessctl is not built, as this is missing: libedit (found through pkg-config), ncurses (found through pkg-config)"
    ),
    "GTest": "The tests are not built: GoogleTest is missing",
}


def configure(folder: pathlib.Path, *missing: str, options: tuple[str, ...] = ()) -> str:
    without = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in missing]
    return run("cmake", "-S", PROJECT, "-B", folder, "-G", "Ninja", *without, *options)


@pytest.mark.parametrize("name", WITHOUT)
def test_what_is_left_out_is_said(tmp_path, name):
    said = configure(tmp_path, name)
    for other, text in WITHOUT.items():
        assert (text in said) == (other == name), said


def test_without_libmosquitto_only_the_bridge_and_the_way_to_it_are_left_out(tmp_path):
    pkg_config = tmp_path / "pkg-config"
    pkg_config.write_text('#!/bin/sh\ncase "$*" in *libmosquitto*) exit 1 ;; esac\nexec pkg-config "$@"\n')
    pkg_config.chmod(0o755)
    said = configure(tmp_path, options=(f"-DPKG_CONFIG_EXECUTABLE={pkg_config}",))
    assert "tess-mqtt is not built, and tessctl has no 'fleet', as this is missing: libmosquitto" in said
    targets = run("ninja", "-C", tmp_path, "-t", "targets", "all")
    programs = set(re.findall(r"(?m)^bin/([\w-]+): ", targets))
    assert {"tessd", "tessctl", "tessctl_tests"} <= programs
    assert not {name for name in programs if "mqtt" in name or "fleet" in name}


@pytest.mark.slow
def test_it_is_built_with_neither_googletest_nor_the_libraries_of_tessctl(tmp_path):
    configure(tmp_path, *WITHOUT)
    assert "TESS_WERROR:BOOL=OFF" in (tmp_path / "CMakeCache.txt").read_text()
    run("cmake", "--build", tmp_path, "-j2", seconds=3600)  # on a machine that others use, too
    assert sorted(path.name for path in (tmp_path / "bin").iterdir()) == ["encoder", "tessd"]
    run("cmake", "--install", tmp_path, "--prefix", tmp_path / "prefix")
    assert (tmp_path / "prefix/sbin/tessd").exists()


def settings(preset: str, presets: dict[str, dict]) -> dict[str, str]:
    """As CMake finds them: a preset's own come first, then those of what it inherits from, in that order."""
    found = dict(presets[preset].get("cacheVariables", {}))
    inherited = presets[preset].get("inherits", [])
    for parent in [inherited] if isinstance(inherited, str) else inherited:
        found = settings(parent, presets) | found
    return found


def test_warnings_are_errors_in_the_presets_of_the_build_service_only():
    presets = {preset["name"]: preset for preset in json.loads((PROJECT / "CMakePresets.json").read_text())["configurePresets"]}
    named = [name for name, preset in presets.items() if not preset.get("hidden")]
    strict = {name for name in named if settings(name, presets).get("TESS_WERROR") == "ON"}
    assert strict == {f"ci-{name}" for name in named if not name.startswith("ci-")}
    for name in strict:  # and in all else they are what they are named for
        plain = settings(name.removeprefix("ci-"), presets)
        assert settings(name, presets) == plain | {"TESS_WERROR": "ON"}
