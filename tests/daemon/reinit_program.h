#pragma once

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

inline std::string hostName()
{
    char name[HOST_NAME_MAX + 1]{};
    if (::gethostname(name, sizeof name - 1) != 0) std::abort();
    return name;
}

/// The line that asks for a program.
inline std::string reinitLine()
{
    return "RESET REINIT " + hostName();
}

/// A re-initialisation program that notes that it ran.
class ReinitProgram {
public:
    enum Length { SHORT, UNTIL_TOLD };

    explicit ReinitProgram(int status, Length length = SHORT)
    {
        if (::mkdtemp(folder_.data()) == nullptr) std::abort();
        const std::string program = folder_ + "/program";
        std::ofstream file(program);
        file << "#!/bin/sh\ncd " << folder_ << "\n: > ran\n";
        if (length == UNTIL_TOLD) file << "while [ -e program ] && [ ! -e end ]; do sleep 0.02; done\n";
        file << "exit " << status << "\n";
        file.close();
        ::chmod(program.c_str(), 0700);
        ::setenv("TESS_REINIT", program.c_str(), 1);
    }
    ReinitProgram(const ReinitProgram&) = delete;
    ReinitProgram& operator=(const ReinitProgram&) = delete;
    ~ReinitProgram() // which ends the program too
    {
        ::unsetenv("TESS_REINIT");
        std::filesystem::remove_all(folder_);
    }

    bool hasRun() const { return std::filesystem::exists(folder_ + "/ran"); }
    void letEnd() const { std::ofstream(folder_ + "/end").flush(); }

private:
    std::string folder_ = "/tmp/reinit-XXXXXX";
};
