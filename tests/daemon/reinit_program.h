#pragma once

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

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
        const std::string program = folder_ / "program";
        std::ofstream file(program);
        file << "#!/bin/sh\ncd " << folder_.path() << "\n: > ran\n";
        if (length == UNTIL_TOLD) file << "while [ -e program ] && [ ! -e end ]; do sleep 0.02; done\n";
        file << "exit " << status << "\n";
        file.close();
        ::chmod(program.c_str(), 0700);
        ::setenv("TESS_REINIT", program.c_str(), 1);
    }
    ReinitProgram(const ReinitProgram&) = delete;
    ReinitProgram& operator=(const ReinitProgram&) = delete;
    ~ReinitProgram() { ::unsetenv("TESS_REINIT"); }

    bool hasRun() const { return std::filesystem::exists(folder_ / "ran"); }
    void letEnd() const { std::ofstream(folder_ / "end").flush(); }

private:
    TempDir folder_; ///< its end ends the program too
};
