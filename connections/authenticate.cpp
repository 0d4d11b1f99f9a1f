#include "connections/authenticate.h"

#include <cerrno>
#include <crypt.h>
#include <cstring>
#include <memory>

namespace {

constexpr std::size_t FEWEST_ENTRY_BYTES = 1024;
constexpr std::size_t MOST_ENTRY_BYTES = 1024 * 1024; // chosen: no entry is that long

/// @return the user's entry, in result.entry; null: there is none, or it cannot be had
const passwd* findUser(UserLookUp& result, const char* userName)
{
    for (std::size_t bytes = FEWEST_ENTRY_BYTES; bytes <= MOST_ENTRY_BYTES; bytes *= 4) {
        result.storage.resize(bytes);
        passwd* found = nullptr;
        const int error = ::getpwnam_r(userName, &result.entry, result.storage.data(), bytes, &found);
        if (error != ERANGE) return found;
    }
    return nullptr;
}

bool matches(const char* password, const char* hash)
{
    const auto data = std::make_unique<crypt_data>(); // 32 KiB
    const char* const hashed = ::crypt_r(password, hash, data.get());
    const bool same = hashed != nullptr && std::strcmp(hashed, hash) == 0;
    ::explicit_bzero(data.get(), sizeof *data);
    return same;
}

} // namespace

bool isSuperUser(const char* userName)
{
    return std::strcmp(userName, "root") == 0;
}

int authenticate(const char* userName, char* password)
{
    if (isSuperUser(userName)) return AUTH_REFUSED;
    UserLookUp result{};
    result.status = AUTH_REFUSED;
    lookUpUser(result, userName, password);
    ::explicit_bzero(password, std::strlen(password));
    return result.status;
}

void lookUpUser(UserLookUp& result, const char* userName, const char* password)
{
    result.status = AUTH_UNKNOWN;
    const passwd* const entry = findUser(result, userName);
    if (entry == nullptr) return;
    result.status = AUTH_REFUSED;
    // The copy is neither used nor freed (deliberate).
    const char* const home = ::strdup(entry->pw_dir);
    if (home == nullptr || entry->pw_passwd == nullptr) return; // NOLINT(clang-analyzer-unix.Malloc): as above
    if (!matches(password, entry->pw_passwd)) return;
    result.status = AUTH_ACCEPTED;
    result.uid = entry->pw_uid;
    result.gid = entry->pw_gid;
    result.homeDirectory = entry->pw_dir;
}
