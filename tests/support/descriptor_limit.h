#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>
#include <vector>

/// While one lives, this process opens no descriptor of that number or above. What is open already
/// stays so.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t limit)
    {
        if (::getrlimit(RLIMIT_NOFILE, &before_) != 0) return;
        rlimit changed = before_;
        changed.rlim_cur = limit;
        isSet_ = ::setrlimit(RLIMIT_NOFILE, &changed) == 0;
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit()
    {
        if (isSet_) ::setrlimit(RLIMIT_NOFILE, &before_);
    }

    /// @return false where the limit cannot be raised so far
    bool isSet() const { return isSet_; }

private:
    rlimit before_{};
    bool isSet_ = false;
};

/// While one lives, the next descriptor is one that no fd_set holds.
class NoRoomInSets {
public:
    NoRoomInSets()
    {
        for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            fillers_.push_back(fd);
            if (fd >= FD_SETSIZE) break;
        }
    }
    NoRoomInSets(const NoRoomInSets&) = delete;
    NoRoomInSets& operator=(const NoRoomInSets&) = delete;
    ~NoRoomInSets()
    {
        for (const int fd : fillers_)
            ::close(fd);
    }

    /// @return false where the limit of open files is too low
    bool isSet() const { return limit_.isSet(); }

private:
    const DescriptorLimit limit_{FD_SETSIZE + 100}; // first: lets the fillers be opened
    std::vector<int> fillers_;
};
