#pragma once

#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

/// The directory that holds one socket for each open queue, named by the queue's address in
/// decimal.
/// Threads: any; an object never changes and is never freed, because another thread may always be
/// sending.
class QueueDirectory {
public:
    explicit QueueDirectory(std::string_view path);

    /// The directory named by TESS_QUEUE_DIR as it is now; a relative name starts at the working
    /// directory of now, and is made absolute. Allocates.
    static const QueueDirectory& fromEnvironment();

    /// Without trailing slashes. Absolute, unless the working directory has been removed: then
    /// create() fails.
    const std::string& path() const { return path_; }

    std::string socketPath(long address) const { return prefix_ + std::to_string(address); }

    /// The socket address of a queue. Allocates nothing.
    /// @param address  1 to HIGHEST_QUEUE_ADDRESS
    /// @return false: the path is too long for a socket address
    bool socketAddress(long address, sockaddr_un& to) const;

    /// The queue address of the socket that a record came from, read off the path that the kernel
    /// reports for it. Only compares text: the path is not looked up in the file system, because
    /// the socket's owner may have chosen any. Allocates nothing.
    /// @param length  as recvmsg(2) reports it
    /// @return queue address; 0 for an unbound socket, an abstract name, or any path but path(), a
    ///         slash and an address
    long queueOf(const sockaddr_un& from, socklen_t length) const;

    /// Makes the directory and its missing parents, with mode 0770 whatever the umask.
    /// @throws std::runtime_error  with the path and the reason
    void create() const;

private:
    std::string path_;
    std::string prefix_; ///< path_ and a slash
};
