#pragma once

#include <sys/types.h>

#include "framework/bundled/queue_directory.h"

/// The socket file of an open queue: while it is there and a process has the socket, the queue's
/// address is taken. Whoever makes or removes one holds the queue directory locked meanwhile
/// (flock(2)), so that two processes cannot both find an address free. The destructor leaves the
/// file where it is: only remove() removes it.
/// Threads: no lock of its own.
class QueueFile {
public:
    constexpr QueueFile() = default;

    /// Binds a socket to the file of an address. Makes the directory where there is none, and
    /// removes the file that a dead process has left.
    /// @param socket   a datagram socket that is not bound; stays the caller's
    /// @param address  1 to HIGHEST_QUEUE_ADDRESS
    /// @throws std::runtime_error the address is in use, or the file cannot be had; its text says
    ///         which, and why
    static QueueFile bind(int socket, long address, const QueueDirectory& in);

    /// @return the address that it was bound to last; 0: never
    long address() const { return address_; }

    /// Removes the file, if the one in that directory is still this one.
    void remove(const QueueDirectory& in) const;

private:
    constexpr QueueFile(long address, dev_t device, ino_t inode) : address_(address), device_(device), inode_(inode) {}

    long address_ = 0;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};
