#pragma once

/// In place of the threads that startOwnThread() makes: what it is given is held, and runs in the
/// thread of the test when the input says so. A target that links this has no other threads.
class HeldThreads {
public:
    /// Lets everything that is held run to its end.
    static void run();

    /// Forgets what is held, as the end of the program would.
    static void forget();
};
