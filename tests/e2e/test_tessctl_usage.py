"""How tessctl is called, and what it says when it is called wrongly: the mistake, and the way out."""

from __future__ import annotations

import pytest

from harness import tessctl
from harness.tessctl import DONE, WRONG_USAGE

pytestmark = tessctl.needs_tessctl

COMMANDS = ["send", "console", "serve", "listen", "check", "ping", "status", "list", "who", "metrics", "watch", "top"]
COMMANDS += ["close", "com2", "reset", "stop", "fleet", "help"]


@pytest.mark.parametrize(
    "arguments, said, help_for",
    [
        ([], "the commands are " + ", ".join(COMMANDS), ""),
        (["sned", "*"], "no command 'sned': do you mean 'send'?", ""),
        (["cons"], "no command 'cons': do you mean 'console'?", ""),
        (["nonsense", "-x"], "no command 'nonsense': the commands are " + ", ".join(COMMANDS), ""),
        (["send", "--wiat", "3", "X"], "send has no option '--wiat': do you mean '--wait'?", "send"),
        (["send", "--prot=xcp", "X"], "send has no option '--prot': do you mean '--port'?", "send"),
        (
            ["send", "--nonsense"],
            "send has no option '--nonsense': a line that begins with '-' stands behind --: tessctl send -- LINE",
            "send",
        ),
        (["com2", "--x"], "com2 has no option '--x': a text that begins with '-' stands behind --: tessctl com2 -- TEXT", "com2"),
        (["check", "--telnet"], "check has no option '--telnet'", "check"),
        (["--json", "check"], "tessctl has no option '--json': those of a command stand behind it", "check"),
        (
            ["serve", "CAT", "tail", "-l"],
            "serve has no option '-l': the program stands behind --: tessctl serve NAME -- PROGRAM ARGUMENT...",
            "serve",
        ),
        (["serve", "CAT", "--time", "5", "--", "cat"], "serve has no option '--time': do you mean '--timeout'?", "serve"),
        (
            ["serve", "CAT"],
            "serve wants a PROGRAM: the program stands behind --: tessctl serve NAME -- PROGRAM ARGUMENT...",
            "serve",
        ),
        (["serve"], "serve wants NAME", "serve"),
        (["send", "--wait"], "--wait wants a value", "send"),
        (["send", "--wait", "soon", "X"], "--wait: a time is a number of seconds, 0.001 to 86400", "send"),
        (["send", "--tag", "65536", "X"], "--tag: a tag is a whole number from 0 to 65535", "send"),
        (
            ["serve", "CAT", "--address", "0", "--", "cat"],
            "--address: an address is a whole number from 1 to 2147483647",
            "serve",
        ),
        (["listen", "--count", "0"], "--count: a count is a whole number, 1 or more", "listen"),
        (["listen", "--ports", "serial"], "--ports: ports are com2, telnet, xcp and ipc, joined by commas", "listen"),
        (["send", "--port", "telnet", "X"], "--port: a port is one of ipc or xcp", "send"),
        (["ping", "everything"], "PORT: a port is one of queue, ipc, xcp, telnet or com2", "ping"),
        (["check", "ipx"], "PORT: what is checked is one of queue, daemon, ipc, xcp, telnet or com2", "check"),
        (["listen", "ONE", "second", "third"], "listen takes no 'second' 'third'", "listen"),
        (
            ["reset", "--reinit", "", "--yes"],
            "--reinit: the name of this host has at least one character and no white space",
            "reset",
        ),
        (
            ["reset", "--reinit", "s3 ", "--yes"],
            "--reinit: the name of this host has at least one character and no white space",
            "reset",
        ),
        (["send", "--host", "-oProxyCommand=x", "X"], "--host: a host is HOST or USER@HOST, as ssh takes it", "send"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "",
)
def test_wrong_usage_names_the_mistake_and_the_way_out(arguments, said, help_for):
    tried = " ".join(word for word in ["tessctl", help_for, "--help"] if word)
    tessctl.run(*arguments).expect(WRONG_USAGE, "", f"tessctl: {said}\ntessctl: try '{tried}'\n")


def test_a_host_behind_another_letter_is_not_run_there_again_and_again():
    tessctl.run("com2", "-nHdevice", "X").expect(WRONG_USAGE, "", "tessctl: -H stands alone: tessctl COMMAND -H device\n")


def test_help_shows_examples_and_the_manual_page():
    for command in COMMANDS:
        text = tessctl.run(command, "--help").expect(DONE, errors="").output
        assert (
            f"Usage: tessctl {command}" in text
            and f"Examples:\n  tessctl {command if command != 'help' else 'help send'}" in text
        ), text
        assert text.endswith("man tessctl\n"), text
        tessctl.run("help", command).expect(DONE, text, "")
    text = tessctl.run("--help").expect(DONE, errors="").output
    assert "Examples:\n  tessctl send" in text and "'man tessctl'" in text, text
    tessctl.run("help").expect(DONE, text, "")
    tessctl.run("help", "sned").expect(WRONG_USAGE, "", "tessctl: no command 'sned': do you mean 'send'?\n")


def test_the_version_is_everywhere():
    version = tessctl.run("--version").expect(DONE, errors="").output
    assert version.startswith("tessctl ") and version.count("\n") == 1, version
    for arguments in ["-V"], *([command, option] for command in COMMANDS for option in ("-V", "--version")):
        tessctl.run(*arguments).expect(DONE, version, "")
