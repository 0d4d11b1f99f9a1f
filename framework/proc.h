#pragma once

/// Base of every process of the device.
class TProc {
public:
    TProc() = default;
    TProc(const TProc&) = delete;
    TProc& operator=(const TProc&) = delete;
    virtual ~TProc() = default;

    /// The process's main loop, called once, on the main thread.
    /// @return 0 after a normal end
    virtual int run() = 0;
};
