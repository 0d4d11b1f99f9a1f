#pragma once

#include <cstdint>
#include <string_view>

#include "framework/fd.h"

/// Tells the runs of tessctl that have registered a name of each other, which tessd does not. Each
/// of them holds a lock on the queue directory for as long as it lives, and the place of the lock
/// stands for the name. Only tessctl does this: nothing is known here of other processes, nor where
/// the file system has no such locks.
/// Threads: one.
class NameClaim {
public:
    explicit NameClaim(std::string_view name);

    /// Whether another run of tessctl has the name.
    bool taken() const { return locked(0); }

    /// Whether another run of tessctl has taken the name from whoever had it.
    bool takenOver() const { return locked(1); }

    /// @param takeOver  from whoever has the name; that one steps aside until this one ends
    void hold(bool takeOver) const;

    /// Gives the name up, for good.
    void release() { directory_.reset(); }

private:
    bool locked(int part) const;
    void lock(int part) const;

    Fd directory_;
    std::int64_t place_; ///< offset of the two bytes that are locked for this name; they need not exist
};
