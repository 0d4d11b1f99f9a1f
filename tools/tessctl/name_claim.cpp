#include "tools/tessctl/name_claim.h"

#include <fcntl.h>
#include <limits>

#include "tools/tessctl/daemon_client.h"

namespace {

/// FNV-1a, which is the same in every build. Two names with one value would be taken for one name;
/// with 64 bits that does not happen.
std::uint64_t hash(std::string_view text)
{
    std::uint64_t value = 0xCBF29CE484222325U;
    for (const char c : text)
        value = (value ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    return value;
}

/// A request for a lock that belongs to the open file (F_OFD_SETLK). One that belongs to the
/// process would be lost as soon as the process closes any other descriptor of the directory.
struct flock request(short type, std::int64_t start)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(start);
    lock.l_len = 1;
    return lock;
}

} // namespace

NameClaim::NameClaim(std::string_view name)
    : directory_(::open(queueDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      place_(static_cast<std::int64_t>(hash(name) % (std::numeric_limits<off_t>::max() / 2)) * 2)
{
}

bool NameClaim::locked(int part) const
{
    struct flock lock = request(F_WRLCK, place_ + part); // a write lock collides with the read locks of others
    return ::fcntl(directory_.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

void NameClaim::lock(int part) const
{
    struct flock lock = request(F_RDLCK, place_ + part); // a directory cannot be opened for more
    (void)::fcntl(directory_.get(), F_OFD_SETLK, &lock); // without it the others are not told
}

void NameClaim::hold(bool takeOver) const
{
    lock(0);
    if (takeOver) lock(1);
}
