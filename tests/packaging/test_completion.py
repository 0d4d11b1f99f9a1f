"""Completion of tessctl's command line in bash, zsh and fish."""

from __future__ import annotations

import os
import pathlib
import re
import shlex
import shutil
import subprocess
from collections.abc import Callable, Iterator

import pytest
from conftest import BUILD, PROJECT

from terminal import Terminal  # of tools/

PACKAGING = PROJECT / "packaging"
TESSCTL = BUILD / "bin/tessctl"
COMMANDS = ["send", "console", "serve", "listen", "check", "ping", "status", "list", "who", "metrics", "watch", "top"]
COMMANDS += ["close", "com2", "reset", "stop", "fleet", "help"]
PATIENCE = 60  # seconds: a shell on a busy machine

Shell = Callable[[str], list[str]]


def in_bash(line: str, breaks_at_equals: bool = True) -> list[str]:
    """What is offered for the last word of the line; one that ends with a blank has an empty last word."""
    parts = re.split(r"(?<=\S)(=)(?=\S|$)", line) if breaks_at_equals else [line]
    words = " ".join(parts).split() + ([""] if line.endswith(" ") else [])
    script = (
        f"compopt() {{ :; }}; . {shlex.quote(str(PACKAGING / 'tessctl.bash-completion'))}; COMP_WORDS=({shlex.join(words)});"
        f" COMP_CWORD={len(words) - 1}; _tessctl; printf '%s\\n' \"${{COMPREPLY[@]}}\""
    )
    done = subprocess.run(["bash", "--norc", "-c", script], text=True, capture_output=True, check=True)
    assert done.stderr == ""
    return sorted(set(done.stdout.split()))


def in_fish(line: str) -> list[str]:
    script = f"source {PACKAGING / 'tessctl.fish'}; complete -C {shlex.quote(line)}"
    done = subprocess.run(["fish", "--no-config", "-c", script], text=True, capture_output=True, check=True)
    assert done.stderr == ""
    return sorted({offer.split("\t")[0] for offer in done.stdout.splitlines()})


class Zsh:
    """At a terminal: its completion works nowhere else. What is offered is written to a file."""

    INIT = """
fpath=({folder} $fpath)
autoload -Uz compinit
compinit -u -d {folder}/dump
compadd() {{
    local -a hits
    builtin compadd -A hits "$@"
    print -rl -- $hits >>{folder}/offered
    builtin compadd "$@"
}}
offer() {{ zle list-choices; zle kill-whole-line; print -n "offered to the end" }}
zle -N offer
bindkey '^I' offer
PS1='zsh''> '
"""

    def __init__(self, folder: str) -> None:
        self._offered = f"{folder}/offered"
        shutil.copy(PACKAGING / "tessctl.zsh-completion", f"{folder}/_tessctl")
        with open(f"{folder}/init", "w", encoding="ascii") as file:
            file.write(self.INIT.format(folder=folder))
        self._terminal = Terminal("zsh", "-f", "-i")
        self._terminal.type(f"source {folder}/init\r".encode())
        self._terminal.wait_for(b"zsh> ", PATIENCE)

    def close(self) -> None:
        self._terminal.close()

    def __call__(self, line: str) -> list[str]:
        open(self._offered, "w", encoding="utf-8").close()
        self._terminal.type(line.encode() + b"\t")
        self._terminal.wait_for(b"offered to the end", PATIENCE)
        with open(self._offered, encoding="utf-8") as file:
            return sorted(set(file.read().split()))


@pytest.fixture(autouse=True)
def registered(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """A tessctl that knows two processes."""
    program = tmp_path / "bin/tessctl"
    program.parent.mkdir()
    program.write_text('#!/bin/sh\n[ "$*" = "list --names" ] && printf "ENC\\nTHERM\\n"\n')
    program.chmod(0o755)
    monkeypatch.setenv("PATH", f"{program.parent}{os.pathsep}{os.environ['PATH']}")


@pytest.fixture(params=["bash", "zsh", "fish"])
def shell(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Shell]:
    if shutil.which(request.param) is None:
        pytest.skip(f"{request.param} is not installed")
    if request.param != "zsh":
        yield {"bash": in_bash, "fish": in_fish}[request.param]
        return
    zsh = Zsh(str(tmp_path_factory.mktemp("zsh")))
    yield zsh
    zsh.close()


LINES = {
    "tessctl s": ["send", "serve", "status", "stop"],
    "tessctl -H host sen": ["send"],
    "tessctl send --p": ["--port"],
    "tessctl send -p ": ["ipc", "xcp"],
    "tessctl send --port ": ["ipc", "xcp"],
    "tessctl send --port=": ["ipc", "xcp"],
    "tessctl send --port=x": ["xcp"],
    "tessctl send --wait ": [],
    "tessctl serve NAME --ports com2,te": ["com2,telnet"],
    "tessctl serve NAME --ports=com2,te": ["com2,telnet"],
    "tessctl serve NAME -- gzi": ["gzip"],
    "tessctl listen --t": ["--take-over"],
    "tessctl ping ": ["com2", "ipc", "queue", "telnet", "xcp"],
    "tessctl check ipc ": ["com2", "daemon", "ipc", "queue", "telnet", "xcp"],
    "tessctl check --": ["--help", "--host", "--json", "--version"],
    "tessctl help c": ["check", "close", "com2", "console"],
    "tessctl watch --port ": ["com2", "delay", "ipc", "telnet", "xcp"],
    "tessctl top --i": ["--interval"],
    "tessctl watch --name ": ["ENC", "THERM"],
    "tessctl watch --name=T": ["THERM"],
    "tessctl listen E": ["ENC"],
    "tessctl send s3.T": ["s3.THERM"],
    "tessctl fleet ": ["send", "status"],
    "tessctl fleet send --a": ["--all"],
    "tessctl fleet status --g": ["--group"],
    "tessctl fleet send --wait ": [],
    "tessctl reset --reinit ": [os.uname().nodename],
}


def bare(offers: list[str]) -> set[str]:
    """Without what stands in front of a value, which some shells repeat."""
    return {re.sub(r"^--\w+=|.*,", "", offer) for offer in offers}


def test_a_word_is_completed(shell):
    wrong = {}
    for line, offered in LINES.items():
        actual = shell(line)
        if bare(actual) != bare(offered):
            wrong[line] = f"expected {offered}, got {actual}"
    assert not wrong


def test_every_command_is_offered(shell):
    assert {offer for offer in shell("tessctl ") if not offer.startswith("-")} == set(COMMANDS)


@pytest.mark.parametrize(
    ("line", "offered"),
    [
        ("tessctl ", sorted(["--help", "--version", "--host", *COMMANDS])),
        ("tessctl send ", ["s3.ENC", "s3.THERM"]),
        ("tessctl serve NAME --ports com2,te", ["com2,telnet"]),
        ("tessctl serve NAME -- tru", ["true", "truncate"]),
        ("tessctl serve NAME -- cat --p", []),
        ("tessctl nonsense -", []),
    ],
)
def test_bash_offers_exactly_this(line, offered):
    assert in_bash(line) == offered


def test_bash_completes_a_value_where_the_sign_parts_no_words():
    assert in_bash("tessctl send --port=", breaks_at_equals=False) == ["--port=ipc", "--port=xcp"]
    assert in_bash("tessctl listen --ports=com2,x", breaks_at_equals=False) == ["--ports=com2,xcp"]


@pytest.mark.skipif(not TESSCTL.exists(), reason=f"there is no {TESSCTL}")
def test_the_options_offered_are_those_of_the_command(shell):
    wrong = {}
    for command in [*COMMANDS, "fleet send", "fleet status"]:
        text = subprocess.run([TESSCTL, *command.split(), "--help"], text=True, capture_output=True, check=True).stdout
        text = text.partition("\nOptions:\n")[2].partition("\nExamples:\n")[0]
        known = {word.rstrip(",") for words in re.findall(r"(?m)^ +(-[A-Za-z],)?(--[a-z0-9-]+)", text) for word in words if word}
        assert {"--help", "--host"} <= known, text
        # Short forms of help and the help of everything are for those who know them.
        offered = {offer.rstrip("=") for offer in shell(f"tessctl {command} -")}
        if offered - {"--", "-h"} != known - {"-h", "--help-all"}:
            wrong[command] = f"expected {sorted(known)}, got {sorted(offered)}"
    assert not wrong
