#pragma once

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/// A fresh directory that goes away with everything in it. Its name is used again after that: the
/// framework keeps the name of each queue directory for good, and a fuzz target makes millions.
class TempDir {
public:
    TempDir()
    {
        const std::string front = "/tmp/tess-test-" + std::to_string(::getpid()) + "-";
        for (int number = 0;; ++number) {
            path_ = front + std::to_string(number);
            if (::mkdir(path_.c_str(), 0700) == 0) return;
            if (errno != EEXIST) throw std::runtime_error("mkdir failed");
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
