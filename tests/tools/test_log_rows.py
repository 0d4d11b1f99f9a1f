"""A log row whose text does not fit its values, or its call, does not compile."""

import os
import subprocess

import pytest

WRONG_CALL = "too many arguments|no matching function|invalid initialization|invalid conversion|cannot convert|could not convert"
PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))


def compiler_says(body: str) -> str:
    """Empty when it compiles."""
    source = f'#include "framework/log_message.h"\n{body}\n'
    command = ["g++", "-std=c++20", "-fsyntax-only", f"-I{PROJECT}", "-x", "c++", "-"]
    done = subprocess.run(command, input=source, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    return done.stdout if done.returncode != 0 else ""


def row(values: str, text: str) -> str:
    return f'inline constexpr LogMessage<{values}> row{{7, "{text}"}};'


def call(values: str, text: str, given: str) -> str:
    return f"{row(values, text)} void f() {{ logMessage(row{given}); }}"


@pytest.mark.parametrize(
    "body",
    [
        row("", "nothing"),
        row("Number", "{} times"),
        call("Text, Hex", "{}: 0x{}", ', "here", Hex{10}'),
        call("Number", "{}", ", 3U"),
    ],
)
def test_what_fits_compiles(body):
    assert compiler_says(body) == ""


@pytest.mark.parametrize(
    "body, why",
    [
        (row("Number", "nothing"), "one {} for each value"),
        (row("", "{}"), "one {} for each value"),
        (row("Number", "{} {}"), "one {} for each value"),
        (row("Number", "{0}"), "a brace that is no part of {}"),
        (row("Number", "{} }"), "a brace that is no part of {}"),
        (row("int", "{}"), "static assertion failed"),
        (call("Number", "{}", ""), WRONG_CALL),
        (call("Number", "{}", ", 1, 2"), WRONG_CALL),
        (call("Number", "{}", ', "text"'), WRONG_CALL),
        (call("Number", "{}", ", true"), WRONG_CALL),
        (call("Hex", "{}", ", 3"), WRONG_CALL),
        (call("Text", "{}", ", 3"), WRONG_CALL),
    ],
)
def test_what_does_not_fit_is_refused(body, why):
    said = compiler_says(body)
    assert any(part in said for part in why.split("|")), said or "it compiles"
