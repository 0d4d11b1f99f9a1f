#pragma once

/// How often `operator new` has been called in this process, by any thread.
unsigned allocationCount();

/// While one lives, there is no memory for `operator new` on this thread. One at a time.
class NoMemory {
public:
    enum Whom { WHO_ASKS_NOT_TO_THROW, EVERYBODY };

    explicit NoMemory(Whom whom);
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
    ~NoMemory();
};
