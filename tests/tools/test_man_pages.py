"""The manual pages: well formed, and as complete as the programs' options are."""

import ast
import glob
import os
import re
import subprocess
import textwrap

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
PAGES = sorted(glob.glob(f"{PROJECT}/docs/man/*.[1-9]"))
TESSCTL = os.path.join(os.environ.get("TESSD_BIN_DIR") or f"{PROJECT}/build/release/bin", "tessctl")

EVERYWHERE = ("-h", "--help", "-V", "--version", "-H", "--host")

# The section of a page that describes a sub-command begins with its name alone, three blanks in.
SECTION = r"^   {}\n(.*?)(?=^(?:   )?\S|\Z)"


def rendered(name: str) -> str:
    """The page as a reader sees it, without emphasis, in lines that are long enough not to be broken."""
    page = f"{PROJECT}/docs/man/{name}"
    done = subprocess.run(["mandoc", "-Tascii", "-Owidth=1000", page], check=True, stdout=subprocess.PIPE, text=True)
    return re.sub(".\b", "", done.stdout)


def names_option(page: str, option: str) -> bool:
    return re.search(rf"(?<![\w-]){re.escape(option)}(?![\w-])", page) is not None


def daemon_options() -> set[str]:
    with open(f"{PROJECT}/daemon/options.cpp", encoding="utf-8") as file:
        code = file.read()
    letters = re.search(r'shortOptions = "([^"]+)"', code)[1]
    names = re.findall(r'option\{"([\w-]+)",', code)
    assert len(names) >= 5, names
    return {f"--{name}" for name in names} | {f"-{letter}" for letter in letters if letter != ":"}


def help_of_tessctl() -> dict[str, set[str]]:
    """Each sub-command with its options, "" with those of tessctl itself."""
    text = subprocess.run([TESSCTL, "--help-all"], check=True, stdout=subprocess.PIPE, text=True).stdout
    found: dict[str, set[str]] = {"": set()}
    command = ""
    for line in text.partition("\nOptions:\n")[2].splitlines():
        if re.fullmatch(r"[a-z]\w*", line):
            command = line
            found[command] = set()
        option = re.match(r"\s+(-[^ ]+)", line)
        if option:
            found[command] |= set(option[1].split(","))
    for part in ("send", "status"):
        text = subprocess.run([TESSCTL, "fleet", part, "--help"], check=True, stdout=subprocess.PIPE, text=True).stdout
        options = re.findall(r"(?m)^ +(-[^ ]+)", text.partition("\nOptions:\n")[2].partition("\nExamples:\n")[0])
        found["fleet"] |= {name for option in options for name in option.split(",")} - {"--help-all"}
    return found


def test_mandoc_finds_nothing_to_complain_about():
    assert {os.path.basename(page) for page in PAGES} >= {"tessd.8", "tessctl.1", "tess-queue.7"}, PAGES
    done = subprocess.run(
        ["mandoc", "-Tlint", "-Wwarning", *PAGES], check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
    )
    assert (done.returncode, done.stdout) == (0, "")


def test_the_pages_refer_to_each_other_and_carry_their_own_names():
    for page in PAGES:
        name = os.path.basename(page)
        with open(page, encoding="utf-8") as file:
            text = file.read()
        title, section = name.rsplit(".", 1)
        assert f".Dt {title.upper()} {section}\n" in text, name
        others = {os.path.basename(other).replace(".", " ") for other in PAGES} - {name.replace(".", " ")}
        missing = sorted(other for other in others if f".Xr {other}" not in text)
        assert not missing, f"{name} does not refer to {missing}"


def test_every_option_of_the_daemon_is_described():
    page = rendered("tessd.8").partition("DESCRIPTION\n")[2]
    described = re.findall(r"^     (-.*)$", page, re.MULTILINE)
    missing = sorted(option for option in daemon_options() if not any(names_option(line, option) for line in described))
    assert not missing, f"tessd.8 lacks {missing}"


def test_the_page_of_the_daemon_describes_no_option_that_it_lacks():
    page = rendered("tessd.8").partition("DESCRIPTION\n")[2].partition("\nPORTS\n")[0]
    described = {option for line in re.findall(r"^     (-.*)$", page, re.MULTILINE) for option in re.findall(r"--?[\w-]+", line)}
    surplus = sorted(described - daemon_options())
    assert not surplus, surplus


def test_every_sub_command_and_option_of_tessctl_is_described():
    page = rendered("tessctl.1").partition("DESCRIPTION\n")[2]
    commands = help_of_tessctl()
    assert len(commands) > 8, commands
    missing = []
    for command, options in commands.items():
        section = re.search(SECTION.format(command), page, re.MULTILINE | re.DOTALL) if command else None
        if command and section is None:
            missing.append(command)
        text = section[1] if section else page
        missing += [
            f"{command} {option}".strip()
            for option in sorted(options)
            if option not in EVERYWHERE and not names_option(text, option)
        ]
    assert not missing, f"tessctl.1 lacks {missing}"
    assert all(names_option(page, option) for option in EVERYWHERE[1:])


def test_the_page_of_tessctl_describes_no_option_that_it_lacks():
    page = rendered("tessctl.1")
    known = {option for options in help_of_tessctl().values() for option in options} | {"-t"}  # logger's, in an example
    surplus = sorted(set(re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", page)) - known)
    assert not surplus, surplus


def test_the_example_of_the_queue_page_is_a_program():
    page = rendered("tess-queue.7").partition("\nEXAMPLES\n")[2]
    example = re.search(r"^ +import os.*?(?=^ {1,5}\S)", page, re.MULTILINE | re.DOTALL)
    assert example, page
    names = {node.id for node in ast.walk(ast.parse(textwrap.dedent(example[0]))) if isinstance(node, ast.Name)}
    assert {"queue", "record", "answer"} <= names, names
