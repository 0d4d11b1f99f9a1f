#pragma once

#include <cstddef>

/// What is to fail: one rule for the whole program, in the variable TESS_FAULTS:
///
///     CALL[/KIND]=EFFECT@WHICH        recv/ipc=4@2    send=short@1+
///
/// KIND is what the call is about (call_kind.h), EFFECT an errno(3) in decimal, or `short` for a
/// transfer of one byte. WHICH counts the calls of that name and kind while faults are armed: `2`
/// is the second one, `1+` every one.
///
/// TESS_FAULTS_CONTROL names a file of at least sizeof(FaultControl) bytes, by which a test arms
/// the faults and reads what has been called.

/// What the test and the program share.
struct FaultControl {
    static constexpr std::size_t MOST_CALLS = 120;
    static constexpr std::size_t NAME_BYTES = 28;

    struct Count {
        char call[NAME_BYTES]; ///< with its kind; empty in a row that is free
        unsigned calls;
    };

    unsigned armed; ///< 0: nothing fails and nothing is counted
    unsigned fired; ///< how many calls have failed
    unsigned rows;  ///< of the table below that are used
    Count counts[MOST_CALLS];
};

/// What is to become of a call.
struct Fault {
    int error = 0;        ///< errno(3); 0: it does not fail
    bool isShort = false; ///< it is to transfer one byte
};

/// Counts a call.
/// @param call  its name
/// @param kind  what it is about; the empty text where there is nothing to tell apart
/// Threads: any, and signal handlers. errno is kept.
Fault faultFor(const char* call, const char* kind);

/// @return true when the call counts: its kind is worth finding out
bool faultsAreArmed();
