#pragma once

/// What a fuzzer needs before its first input: mounts of its own, no signal from broken pipes.
void setUpFuzzing();

/// Where a failure is reported: standard error, which setUpFuzzing() has kept although what the
/// code logs goes nowhere.
int fuzzReportFd();

/// Turns standard error, where the code under test logs, into /dev/null; fuzzReportFd() and the
/// sanitizers stay visible.
void silenceLog();
