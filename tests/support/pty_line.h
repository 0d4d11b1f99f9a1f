#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <termios.h>
#include <unistd.h>

#include "tests/support/waiting.h"

/// A pseudo-terminal that stands for a serial line: this is the far end, and the line has a path.
/// See pty(7).
class PtyLine {
public:
    PtyLine() : far_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        if (far_ < 0 || ::grantpt(far_) != 0 || ::unlockpt(far_) != 0) std::abort();
        path_ = ::ptsname(far_);
    }
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;
    ~PtyLine()
    {
        hangUp();
        if (!plugged_.empty()) ::unlink(plugged_.c_str());
    }

    const std::string& path() const { return path_; }

    /// Makes the line reachable under another path, while this lives.
    void plugInto(const std::string& device)
    {
        ::unlink(device.c_str());
        if (::symlink(path_.c_str(), device.c_str()) != 0) std::abort();
        plugged_ = device;
    }

    /// @return the line, opened
    int open() const { return ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC); }

    /// Lines and nothing else, as the daemon's port sets it in what matters here.
    static bool makePlain(int line, tcflag_t outputFlags = 0)
    {
        termios tio{};
        if (::tcgetattr(line, &tio) != 0) return false;
        tio.c_iflag = ICRNL;
        tio.c_oflag = outputFlags;
        tio.c_lflag = ICANON;
        return ::tcsetattr(line, TCSANOW, &tio) == 0;
    }

    bool type(std::string_view bytes) const
    {
        return ::write(far_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }

    /// Everything that has arrived at the far end.
    std::string received() const
    {
        std::string all;
        char part[4096];
        for (ssize_t n; (n = ::read(far_, part, sizeof part)) > 0;)
            all.append(part, static_cast<std::size_t>(n));
        return all;
    }

    /// Waits until that much has arrived at the far end.
    std::string receive(std::size_t bytes) const
    {
        std::string all;
        waitUntil([&] {
            all += received();
            return all.size() >= bytes;
        });
        return all;
    }

    void hangUp()
    {
        if (far_ >= 0) ::close(far_);
        far_ = -1;
    }

private:
    int far_;
    std::string path_;
    std::string plugged_;
};

/// Waits until the line has something to read: the kernel hands bytes over in its own time.
inline bool isReadable(int line)
{
    pollfd input{line, POLLIN, 0};
    return ::poll(&input, 1, static_cast<int>(std::chrono::milliseconds(DEADLINE).count())) == 1;
}
