#pragma once

/// Re-initialises the installed software version and waits until that is done, however long it
/// takes: runs the program that the environment variable TESS_REINIT names, or
/// /usr/lib/tess/version-reinit when that is unset or empty, without arguments, with no signal
/// blocked or ignored. A signal that this process handles does not end the wait.
/// @return 0 the program has exited with status 0; nonzero it could not be started, failed or was
///         killed, or its status is not to be had, because this process ignores SIGCHLD or has
///         reaped it elsewhere (waitpid(2))
/// Threads: any, also one that has its signals blocked, while no other thread changes the
/// environment. The process may end meanwhile, by exit(3) or otherwise: the program then runs on by
/// itself, or was not started yet. It uses nothing that exit(3) destroys.
[[nodiscard]] int versionReInit();
