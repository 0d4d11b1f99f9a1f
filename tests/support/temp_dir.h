#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

/// A fresh directory that goes away with everything in it.
class TempDir {
public:
    TempDir()
    {
        char name[] = "/tmp/tess-test-XXXXXX";
        if (::mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = name;
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
