"""The installed library: the example is built outside of the tree against it, in each of the ways that a process author has."""

from __future__ import annotations

import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import time

import pytest
from conftest import BUILD, PROJECT, run

from device_ns import run_in_device

SECONDS = 20.0
SONAME = "libtess-framework.so.1"
POWERPC_EXTRA = PROJECT / "build/powerpc-extra"


@pytest.fixture(scope="session")
def examples(prefix: pathlib.Path, tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    """A copy of the installed examples, far from the tree."""
    return pathlib.Path(shutil.copytree(prefix / "share/doc/libtess-dev/examples", tmp_path_factory.mktemp("mine") / "examples"))


def pkg_config(prefix: pathlib.Path, *words: str) -> list[str]:
    folder = next(prefix.rglob("tess-framework.pc")).parent
    return run("pkg-config", *words, "tess-framework", env=os.environ | {"PKG_CONFIG_PATH": str(folder)}).split()


def build_with_cmake(prefix: pathlib.Path, source: pathlib.Path, to: pathlib.Path, *options: str) -> pathlib.Path:
    run("cmake", "-S", source, "-B", to, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}", *options)
    run("cmake", "--build", to, "-j1")
    return to / "encoder"


def build_with_pkg_config(prefix: pathlib.Path, examples: pathlib.Path, to: pathlib.Path, static: bool) -> pathlib.Path:
    words = ["--static"] if static else []
    sources = [str(examples / "encoder" / name) for name in ("main.cpp", "encoder.cpp")]
    run(
        "g++",
        "-std=c++20",
        *(["-static"] if static else []),
        *pkg_config(prefix, "--cflags", *words),
        *sources,
        *pkg_config(prefix, "--libs", *words),
        "-o",
        to / "encoder",
    )
    return to / "encoder"


def needed(program: pathlib.Path) -> list[str]:
    return re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", program))


def start(command: list[str], ready: str, log: str, **environment: str) -> subprocess.Popen:
    with open(log, "wb") as file:
        process = subprocess.Popen(command, stdout=file, stderr=file, env=os.environ | environment)
    end = time.monotonic() + SECONDS
    while ready not in pathlib.Path(log).read_text():
        assert process.poll() is None and time.monotonic() < end, f"{command}: {pathlib.Path(log).read_text()}"
        time.sleep(0.02)
    return process


def answer_of(program: pathlib.Path, library_path: pathlib.Path, daemon: pathlib.Path = BUILD / "bin/tessd") -> bytes:
    """What a client of the daemon hears from the process for SETX and then GETX."""
    with open(BUILD.parent / f".answer.{os.getpid()}", "w+b") as file:
        os.unlink(file.name)

        def inside() -> int:
            tessd = start([str(daemon), "--nocom2", "--notelnet"], "daemon running", "/tmp/tessd.log")
            encoder = start([str(program)], "registered at tessd", "/tmp/encoder.log", LD_LIBRARY_PATH=str(library_path))
            with socket.socket(socket.AF_UNIX) as client:
                client.settimeout(SECONDS)
                client.connect("/tmp/socket")
                for line, end in ((b"s3.ENC SETX 5\n", b"0\r\n\r\n"), (b"s3.ENC GETX\n", b"\r\n\r\n")):
                    client.sendall(line)
                    answer = b""
                    while not answer.endswith(end):
                        answer += client.recv(100)
                    file.write(answer)
            file.flush()
            for process in (encoder, tessd):
                process.send_signal(signal.SIGTERM)
                assert process.wait(SECONDS) == 0, f"ended with {process.returncode}"
            return 0

        assert run_in_device(inside, keep=[program.parent, BUILD, library_path]) == 0
        file.seek(0)
        return file.read()


@pytest.mark.parametrize(("options", "shared"), [((), False), (("-DBUILD_SHARED_LIBS=ON",), True)], ids=["static", "shared"])
def test_the_example_is_built_with_find_package(prefix, examples, tmp_path, options, shared):
    program = build_with_cmake(prefix, examples / "encoder", tmp_path, *options)
    assert (SONAME in needed(program)) == shared
    if shared:
        library = next(prefix.rglob(SONAME)).parent
        assert answer_of(program, library) == b"0\r\n\r\n5\r\n\r\n"


@pytest.mark.parametrize("static", [False, True], ids=["shared", "static"])
def test_the_example_is_built_with_pkg_config(prefix, examples, tmp_path, static):
    program = build_with_pkg_config(prefix, examples, tmp_path, static)
    assert (SONAME in needed(program)) != static
    if static:
        assert needed(program) == []
        assert answer_of(program, tmp_path) == b"0\r\n\r\n5\r\n\r\n"


def test_the_example_is_built_in_a_folder_of_any_name(prefix, examples, tmp_path):
    mine = pathlib.Path(shutil.copytree(examples / "encoder", tmp_path / "my own process"))
    program = build_with_cmake(prefix, mine, mine / "build")
    assert answer_of(program, tmp_path) == b"0\r\n\r\n5\r\n\r\n"


@pytest.mark.parametrize("component", ["static", "shared"])
def test_a_component_chooses_whatever_else_is_set(prefix, tmp_path, component):
    (tmp_path / "main.cpp").write_text('#include "framework/sleep.h"\nint main() { Sleep(0); }\n')
    other = "ON" if component == "static" else "OFF"
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\nproject(p CXX)\n"
        f"set(BUILD_SHARED_LIBS {other})\nfind_package(tess-framework 1.0 REQUIRED COMPONENTS {component})\n"
        "add_executable(p main.cpp)\ntarget_link_libraries(p PRIVATE tess::framework)\n"
    )
    run("cmake", "-S", tmp_path, "-B", tmp_path / "b", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", tmp_path / "b", "-j1")
    assert (SONAME in needed(tmp_path / "b/p")) == (component == "shared")


@pytest.mark.parametrize(
    ("wanted", "said"), [("2.0 REQUIRED", "compatible with requested version"), ("REQUIRED COMPONENTS tea", "no component tea")]
)
def test_what_is_not_there_is_not_found(prefix, tmp_path, wanted, said):
    (tmp_path / "CMakeLists.txt").write_text(
        f"cmake_minimum_required(VERSION 3.25)\nproject(p CXX)\nfind_package(tess-framework {wanted})\n"
    )
    done = subprocess.run(
        ["cmake", "-S", tmp_path, "-B", tmp_path / "b", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}"],
        text=True,
        capture_output=True,
        check=False,
    )
    assert done.returncode != 0
    assert said in " ".join(done.stderr.split())


def test_an_author_who_has_only_the_library_has_what_authors_must_know(tmp_path):
    run("cmake", "--install", BUILD, "--prefix", tmp_path, "--component", "devel")
    assert (tmp_path / "share/man/man7/tess-queue.7").exists()
    document = tmp_path / "share/doc/libtess-dev/processes.md"
    prose = re.sub(r"(?ms)^```.*?^```$", "", document.read_text())
    links = re.findall(r"\]\(([^)#]+)\)", prose)
    assert not [link for link in links if not (document.parent / link).exists()]


def test_every_header_serves_alone_and_all_it_declares_is_exported(prefix, tmp_path):
    headers = sorted(path.name for path in (prefix / "include/tess/framework").iterdir())
    assert headers == sorted(path.name for path in (PROJECT / "framework").glob("*.h"))
    cflags = pkg_config(prefix, "--cflags")
    for header in headers:
        source = tmp_path / f"{header}.cpp"
        source.write_text(f'#include "framework/{header}"\n')
        run("g++", "-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only", *cflags, source)
    source = tmp_path / "all.cpp"
    source.write_text(
        "".join(f'#include "framework/{header}"\n' for header in headers)
        + "#include <stdexcept>\n"
        + """
        struct Process : TMsgDmn { Process() : TMsgDmn(5, false) {} int run() override { return 0; } };
        struct Plain : TMsgProc { Plain() : TMsgProc(5, false) {} int run() override { return 0; } };
        int main(int argc, char**)
        {
            Process process;
            Plain plain;
            TProc& base = process;
            if (dynamic_cast<TMsgProc*>(&base) == nullptr || plain.queueId() != 5 || base.run() != 0) return 1;
            logMgr.setLogParameters(1, 1, " [T]", 1);
            logMgr.initAfterDaemonize();
            logMgr.log(1, "text");
            TOrbHRTimeOut timeOut(timeval{600, 0});
            if (timeOut.hasTimedOut()) return 2;
            timeOut.setTimeOut(timeval{0, 0});
            if (!timeOut.hasTimedOut()) return 3;
            std::vector<std::string_view> words;
            stringTokenizer("a|b", words, "|");
            std::vector<int> numbers;
            if (words.size() != 2 || intTokenizer("1 2", numbers, " ") != 0 || numbers[1] != 2) return 4;
            Sleep(0);
            TOrbAttachmentMsg msg{};
            if (g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false) >= 0 || g_qMgr.sendMsg(7, &msg, 16, false) != SEND_FAILED) return 5;
            QueueRoom room;
            if (room.watch(7) != -1 || room.fd() != -1) return 7;
            room.stop();
            if (replyText("5", "") != "5\\r\\n\\r\\n" || replyMessages("5").size() != 1) return 8;
            try {
                CommandProcess nowhere(0, "N", PORTS_ALL, [](std::string_view) { return std::string(); });
                return 9;
            } catch (const std::runtime_error&) {
            }
            return argc == 1 && versionReInit() == 0 ? 6 : 0;
        }
    """
    )
    library = next(prefix.rglob(SONAME)).parent
    run("g++", "-std=c++20", *cflags, source, *pkg_config(prefix, "--libs"), "-o", tmp_path / "all")
    assert SONAME in needed(tmp_path / "all")
    environment = os.environ | {"LD_LIBRARY_PATH": str(library), "TESS_QUEUE_DIR": str(tmp_path), "TESS_REINIT": "/bin/false"}
    run(tmp_path / "all", env=environment)


# As another library that may stand in for this one has them, to the last const: their names in the object files are made of it.
INTERFACE = (
    "TQueueMgr::getMsg(TOrbAttachmentMsg*, TMsgQueueTypes, bool)",
    "TQueueMgr::sendMsg(long, TOrbAttachmentMsg*, long, bool)",
    "QueueRoom::watch(long)",
    "QueueRoom::stop()",
    "Sleep(int)",
    "versionReInit()",
)


def test_the_shared_library_exports_nothing_of_its_inside(prefix):
    names = run("nm", "-DC", "--defined-only", next(prefix.rglob(SONAME)))
    for operation in INTERFACE:
        assert operation in names, operation
    inside = re.findall(r"(?:OwnQueue|MsgBacklog|QueueDirectory|QueueSender|SyslogSocket|LogLineText)::\w+", names)
    assert not inside, inside


def test_with_another_framework_library_nobody_knows_when_a_queue_has_room(tmp_path):
    source = tmp_path / "room.cpp"
    source.write_text(
        """#include "framework/queue_room.h"
        int main()
        {
            QueueRoom room;
            const int first = room.watch(1001);
            room.stop();
            return first == -1 && room.fd() == -1 ? 0 : 1;
        }
    """
    )
    unknown = PROJECT / "framework/queue_room_unknown.cpp"
    run("g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", f"-I{PROJECT}", source, unknown, "-o", tmp_path / "room")
    run(tmp_path / "room")


def test_a_processor_of_64_bits_needs_no_size_of_time(prefix):
    assert [word for word in pkg_config(prefix, "--cflags") if word.startswith("-D")] == []


@pytest.mark.slow
def test_the_daemon_links_another_framework_library_in_place_of_its_own(prefix, tmp_path):
    """Here it is ours once more, but as a file from elsewhere: nothing of the tree's own may be needed beside it."""
    maker = tmp_path / "libmaker.a"
    shutil.copy(next(prefix.rglob("libtess-framework.a")), maker)
    build = tmp_path / "build"
    run("cmake", "-S", PROJECT, "-B", build, "-G", "Ninja", "-DBUILD_TESTING=OFF", f"-DTESS_FRAMEWORK_LIBRARY={maker}")
    run("cmake", "--build", build, "--target", "tessd", "encoder")
    rules = (build / "build.ninja").read_text()
    assert "framework/bundled" not in rules
    assert "framework/queue_room_unknown.cpp" in rules and "framework/service_manager.cpp" in rules
    assert answer_of(build / "bin/encoder", tmp_path, build / "bin/tessd") == b"0\r\n\r\n5\r\n\r\n"


@pytest.mark.slow
@pytest.mark.skipif(
    not shutil.which("powerpc-linux-gnu-g++") or not shutil.which("qemu-ppc") or not POWERPC_EXTRA.exists(),
    reason="needs the cross compiler, the emulator and the headers of scripts/powerpc",
)
def test_where_the_size_of_time_is_a_choice_users_make_that_of_the_library(tmp_path):
    """hr_time_out.h has a timeval in it: 8 or 16 bytes on a 32-bit processor."""
    build, to = tmp_path / "build", tmp_path / "prefix"
    run(
        "cmake",
        "-S",
        PROJECT,
        "-B",
        build,
        "-G",
        "Ninja",
        "-DCMAKE_BUILD_TYPE=Release",
        "-DBUILD_TESTING=OFF",
        f"-DCMAKE_TOOLCHAIN_FILE={PROJECT}/cmake/toolchain-powerpc.cmake",
        f"-DTESS_PPC_EXTRA={POWERPC_EXTRA}",
    )
    run("cmake", "--build", build, "-j1", "--target", "tess_framework_static", "tess_framework_shared")
    # The rest of this build is not made: only what belongs to the library is installed.
    for name in ("tess-framework.pc",):
        assert (build / "packaging" / name).exists()
    library = to / "lib"
    (library / "pkgconfig").mkdir(parents=True)
    shutil.copytree(PROJECT / "framework", to / "include/tess/framework", ignore=shutil.ignore_patterns("bundled", "*.txt"))
    shutil.copy(build / "packaging/tess-framework.pc", library / "pkgconfig")
    shutil.copy(next(build.rglob("libtess-framework.a")), library)
    source = tmp_path / "time.cpp"
    source.write_text(
        """#include "framework/hr_time_out.h"
        static_assert(sizeof(timeval::tv_sec) == 8);
        int main()
        {
            struct { TOrbHRTimeOut timeOut; int behind = 0x5A5A; } frame;
            frame.timeOut.setTimeOut(timeval{600, 0});
            const bool early = frame.timeOut.hasTimedOut();
            frame.timeOut.setTimeOut(timeval{-1, 0});
            return early || !frame.timeOut.hasTimedOut() || frame.behind != 0x5A5A;
        }
    """
    )
    cflags = pkg_config(to, "--cflags")
    assert {"-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64"} <= set(cflags)
    run(
        "powerpc-linux-gnu-g++",
        "-std=c++20",
        "-static",
        *cflags,
        source,
        *pkg_config(to, "--static", "--libs"),
        "-o",
        tmp_path / "time",
    )
    run("qemu-ppc", tmp_path / "time")
