"""Completion of tessctl's command line in bash."""

from __future__ import annotations

import os
import re
import shlex
import subprocess

import pytest
from conftest import BUILD, PROJECT

COMPLETION = PROJECT / "packaging/tessctl.bash-completion"
TESSCTL = BUILD / "bin/tessctl"
COMMANDS = ["send", "console", "serve", "listen", "check", "ping", "close", "com2", "reset", "stop"]


def completions(line: str) -> list[str]:
    """What is offered for the last word of the line; one that ends with a blank has an empty last word."""
    words = line.split() + ([""] if line.endswith(" ") else [])
    script = (f"compopt() {{ :; }}; . {shlex.quote(str(COMPLETION))}; COMP_WORDS=({shlex.join(words)}); COMP_CWORD={len(words) - 1};"
              "_tessctl; printf '%s\\n' \"${COMPREPLY[@]}\"")
    done = subprocess.run(["bash", "--norc", "-c", script], text=True, capture_output=True, check=True)
    assert done.stderr == ""
    return sorted(set(done.stdout.split()))


@pytest.mark.parametrize(
    ("line", "offered"),
    [
        ("tessctl ", sorted(["--help", "--version", *COMMANDS])),
        ("tessctl s", ["send", "serve", "stop"]),
        ("tessctl send --p", ["--port"]),
        ("tessctl send -p ", ["ipc", "xcp"]),
        ("tessctl send --wait ", []),
        ("tessctl send ", []),
        ("tessctl serve NAME --ports com2,te", ["com2,telnet"]),
        ("tessctl serve NAME -- tru", ["true", "truncate"]),
        ("tessctl serve NAME -- cat --p", []),
        ("tessctl ping ", ["com2", "ipc", "queue", "telnet", "xcp"]),
        ("tessctl reset --reinit ", [os.uname().nodename]),
        ("tessctl nonsense -", []),
    ],
)
def test_a_word_is_completed(line, offered):
    assert completions(line) == offered


@pytest.mark.skipif(not TESSCTL.exists(), reason=f"there is no {TESSCTL}")
@pytest.mark.parametrize("command", COMMANDS)
def test_the_options_offered_are_those_of_the_command(command):
    text = subprocess.run([TESSCTL, command, "--help"], text=True, capture_output=True, check=True).stdout
    known = {word.rstrip(",") for words in re.findall(r"(?m)^ +(-[a-z],)?(--[a-z0-9-]+)", text) for word in words if word}
    assert "--help" in known, text
    # Short forms of help and the help of everything are for those who know them.
    assert set(completions(f"tessctl {command} -")) - {"--"} == known - {"-h", "--help-all"}
