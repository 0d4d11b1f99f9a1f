#include "tools/tessctl/socket_owner.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// What /proc/PID/fd/N shows for a socket, by path.
std::map<std::string, std::string> socketLinks(const std::set<std::string>& paths)
{
    std::map<std::string, std::string> links;
    std::ifstream table("/proc/net/unix");
    std::string line;
    std::getline(table, line); // the headings
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string number, references, protocol, flags, type, state, inode, path;
        words >> number >> references >> protocol >> flags >> type >> state >> inode >> std::ws;
        std::getline(words, path); // there may be blanks in it
        if (paths.contains(path)) links["socket:[" + inode + "]"] = path;
    }
    return links;
}

std::vector<long> processes()
{
    std::vector<long> pids;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename();
        long pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr == name.data() + name.size())
            pids.push_back(pid);
    }
    std::ranges::sort(pids);
    return pids;
}

std::string programOf(const fs::path& process)
{
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    return name;
}

} // namespace

std::map<std::string, SocketOwner> socketOwners(const std::set<std::string>& paths)
{
    std::map<std::string, SocketOwner> owners;
    const std::map<std::string, std::string> links = socketLinks(paths);
    for (const long pid : processes()) {
        if (owners.size() == links.size()) break;
        const fs::path process = "/proc/" + std::to_string(pid);
        std::error_code ignored; // a process may end while it is looked at, or be somebody else's
        fs::directory_iterator each(process / "fd", ignored);
        for (const fs::directory_iterator end; each != end; each.increment(ignored)) {
            const auto found = links.find(fs::read_symlink(each->path(), ignored).string());
            if (found != links.end()) owners.try_emplace(found->second, SocketOwner{pid, programOf(process)});
        }
    }
    return owners;
}
