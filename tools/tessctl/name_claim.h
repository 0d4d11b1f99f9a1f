#pragma once

#include <cstdint>
#include <string_view>

#include "framework/fd.h"

/// What the runs of tessctl that have registered know of each other: each holds a lock for its name on the queue directory,
/// for as long as it lives. tessd does not tell who has a name. Processes of other makes take no part in this, and nothing is
/// known of them here. A file system without such locks tells nothing either.
/// Threads: one.
class TNameClaim {
public:
    explicit TNameClaim(std::string_view name);

    /// Whether another run of tessctl has the name.
    bool taken() const { return locked(0); }

    /// Whether another run of tessctl has taken the name from whoever had it.
    bool takenOver() const { return locked(1); }

    /// @param takeOver  from whoever has the name; that one steps aside until this one ends
    void hold(bool takeOver) const;

    /// For good.
    void release() { directory_.reset(); }

private:
    bool locked(int part) const;
    void lock(int part) const;

    Fd directory_;
    std::int64_t place_; ///< of the name among the locks: two bytes that need not exist
};
