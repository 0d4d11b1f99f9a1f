#pragma once

/// Before the first input a fuzz target gets mounts and a network of its own, and loses the right
/// to restart the machine; see LLVMFuzzerInitialize() in fuzz_setup.cpp.

/// Where a failure is reported: standard error as it was at the start, although what the code logs
/// goes nowhere.
int fuzzReportFd();

/// Turns standard error, where the code under test logs, into /dev/null; fuzzReportFd() and the
/// sanitizers stay visible. libFuzzer does the same by -close_fd_mask=2.
void silenceLog();

/// Ends the program with status 77, and says why, when it has no mounts and network of its own: an
/// input must not reach this machine's serial line, users and sockets.
void needNamespaces();
