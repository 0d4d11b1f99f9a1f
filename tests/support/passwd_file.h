#pragma once

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

/// Accounts with real hashes, in place of the system's while it lives. Needs private mounts.
class PasswdFile {
public:
    explicit PasswdFile(const std::string& lines)
    {
        std::ofstream(MADE) << lines;
        if (::mount(MADE, PLACE, nullptr, MS_BIND, nullptr) != 0) std::abort();
    }
    PasswdFile(const PasswdFile&) = delete;
    PasswdFile& operator=(const PasswdFile&) = delete;
    ~PasswdFile()
    {
        ::umount2(PLACE, MNT_DETACH);
        ::unlink(MADE);
    }

private:
    static constexpr const char* MADE = "/tmp/passwd";
    static constexpr const char* PLACE = "/etc/passwd";
};

/// alice, password "secret", SHA-512.
inline constexpr const char* ALICE =
    "alice:$6$n/0.4beNS66/5T4d$c2Q3cpRyCw18H7Ros4SSXaeNcaaIOhvGT9EnCGxP8czC8n1.FRiTNtog9fbHO3fgJw."
    "ymreS7v/tguNwCsDPY.:1001:1002:Alice:/home/alice:/bin/sh\n";
/// bob, password "geheim", yescrypt.
inline constexpr const char* BOB =
    "bob:$y$j9T$erGUaVL3G4pUVDGHj6rSd.$VHv2jUWw3iZNBVgQx6oTaBHnsYf9FJkTrTV0gFj3yS.:1003:1003::/home/bob:/bin/sh\n";
/// root, password "toor", SHA-512.
inline constexpr const char* ROOT =
    "root:$6$W.Ru1B21nZxt1Vmf$tsXXsCTS9I3hMGxjen6a89rWBvjkCZtUduvwcfec5unTOzBvBWSZaqTPHjntSoPlWLd2SDhJbN6tROOF1EFav1"
    ":0:0:root:/root:/bin/sh\n";
