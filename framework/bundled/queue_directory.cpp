#include "framework/bundled/queue_directory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>

#include "framework/tess_messages.h"

namespace {

constexpr mode_t DIRECTORY_MODE = 0770;

struct KnownDirectory {
    QueueDirectory directory;
    const KnownDirectory* next;
};

// Only ever added to, at the front, and never destroyed: directories stay usable until the last
// thread is gone. Without a lock, which a forked child could find locked for good.
constinit std::atomic<const KnownDirectory*> knownDirectories{nullptr};

/// The path behind the working directory of this moment; as it stands when there is none any more.
std::string madeAbsolute(const std::string& relative)
{
    std::error_code error;
    const std::filesystem::path here = std::filesystem::current_path(error);
    return error ? relative : (here / relative).lexically_normal().string();
}

/// An absolute path is used as it is written, but for slashes at its end, so that every process
/// with the same value of TESS_QUEUE_DIR uses the same socket paths. A relative one is made
/// absolute and normalised.
std::string directoryName()
{
    const char* const value = std::getenv("TESS_QUEUE_DIR");
    std::string name(value != nullptr && *value != '\0' ? value : DEFAULT_QUEUE_DIRECTORY);
    if (name.front() != '/') name = madeAbsolute(name);
    while (name.size() > 1 && name.back() == '/')
        name.pop_back();
    return name;
}

/// @return the queue address written in `name`, decimal and without leading zeros; 0: it is none
long addressNamed(std::string_view name)
{
    const bool digitsOnly = std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
    if (name.empty() || name.front() == '0' || !digitsOnly) return 0;
    long address = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), address);
    return error == std::errc() && address <= HIGHEST_QUEUE_ADDRESS ? address : 0;
}

[[noreturn]] void fail(const std::string& path, int error)
{
    throw std::runtime_error("queue directory " + path + ": " + std::strerror(error));
}

/// Makes one directory unless something of that name exists.
void makeDirectory(const std::string& path)
{
    struct stat found {};
    if (::stat(path.c_str(), &found) == 0) return;
    if (::mkdir(path.c_str(), DIRECTORY_MODE) != 0) {
        if (errno == EEXIST) return; // somebody else was faster
        fail(path, errno);
    }
    if (::lstat(path.c_str(), &found) != 0) fail(path, errno);
    const mode_t inherited = found.st_mode & S_ISGID;
    // Whoever may write to the parent can put a link in its place meanwhile; what that leads to
    // keeps its mode.
    if (::fchmodat(AT_FDCWD, path.c_str(), DIRECTORY_MODE | inherited, AT_SYMLINK_NOFOLLOW) != 0) fail(path, errno);
}

} // namespace

QueueDirectory::QueueDirectory(std::string_view path) : path_(path), prefix_(path_)
{
    if (prefix_.back() != '/') prefix_ += '/';
}

const QueueDirectory& QueueDirectory::fromEnvironment()
{
    const std::string name = directoryName();
    const KnownDirectory* front = knownDirectories.load();
    for (;;) {
        for (const KnownDirectory* known = front; known != nullptr; known = known->next)
            if (known->directory.path() == name) return known->directory;
        std::unique_ptr<const KnownDirectory> fresh(new KnownDirectory{QueueDirectory(name), front});
        if (knownDirectories.compare_exchange_strong(front, fresh.get())) return fresh.release()->directory;
    }
}

bool QueueDirectory::socketAddress(long address, sockaddr_un& to) const
{
    std::array<char, 12> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), address).ptr;
    const std::string_view name(digits.data(), static_cast<std::size_t>(end - digits.data()));
    if (prefix_.size() + name.size() >= sizeof to.sun_path) return false;
    to = {};
    to.sun_family = AF_UNIX;
    std::memcpy(to.sun_path, prefix_.data(), prefix_.size());
    std::memcpy(to.sun_path + prefix_.size(), name.data(), name.size());
    return true;
}

long QueueDirectory::queueOf(const sockaddr_un& from, socklen_t length) const
{
    constexpr std::size_t pathAt = offsetof(sockaddr_un, sun_path);
    if (from.sun_family != AF_UNIX || length <= pathAt || from.sun_path[0] == '\0') return 0;
    // A name that uses all of sun_path has no NUL, and the kernel counts one more byte than the
    // structure has.
    const std::size_t room = std::min<std::size_t>(length - pathAt, sizeof from.sun_path);
    const std::string_view path(from.sun_path, ::strnlen(from.sun_path, room));
    return path.starts_with(prefix_) ? addressNamed(path.substr(prefix_.size())) : 0;
}

void QueueDirectory::create() const
{
    if (path_.front() != '/') fail(path_, ENOENT); // the working directory has been removed
    for (std::size_t slash = path_.find('/', 1); slash != std::string::npos; slash = path_.find('/', slash + 1))
        makeDirectory(path_.substr(0, slash));
    makeDirectory(path_);
}
