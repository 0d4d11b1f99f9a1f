#include "tools/tessctl/history_file.h"

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

fs::path directoryIn(const char* variable)
{
    const char* const value = std::getenv(variable);
    const fs::path path = value == nullptr ? "" : value;
    return path.is_absolute() ? path : fs::path(); // a relative one does not count
}

void takeOver(const fs::path& old, const fs::path& file)
{
    std::error_code error;
    if (!fs::exists(old, error) || fs::exists(file, error)) return;
    fs::rename(old, file, error);
    if (!error) return;
    // On another file system.
    if (fs::copy_file(old, file, error)) fs::remove(old, error);
}

} // namespace

std::string historyFile()
{
    const fs::path home = directoryIn("HOME");
    fs::path state = directoryIn("XDG_STATE_HOME");
    if (state.empty() && !home.empty()) state = home / ".local/state";
    if (state.empty()) return {};
    const fs::path file = state / "tessctl/history";
    const mode_t before = ::umask(077);
    std::error_code error;
    fs::create_directories(file.parent_path(), error);
    ::umask(before);
    if (error) return {};
    if (!home.empty()) takeOver(home / ".tessctl_history", file);
    return file;
}
