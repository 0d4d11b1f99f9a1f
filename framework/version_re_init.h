#pragma once

/// Re-initialises the installed software version and waits until that is done, however long it takes.
/// @return 0 done; nonzero it could not be started or failed
/// Threads: any.
[[nodiscard]] int versionReInit();
