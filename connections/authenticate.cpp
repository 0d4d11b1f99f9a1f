#include "connections/authenticate.h"

#include <crypt.h>
#include <cstring>
#include <pwd.h>

int authenticate(const char* userName, char* password)
{
    if (std::strcmp(userName, "root") == 0) return AUTH_REFUSED;
    TUserLookUp result{};
    result.status = AUTH_REFUSED;
    lookUpUser(result, userName, password);
    ::explicit_bzero(password, std::strlen(password));
    return result.status;
}

void lookUpUser(TUserLookUp& result, const char* userName, const char* password)
{
    result.status = AUTH_UNKNOWN;
    const passwd* const entry = ::getpwnam(userName);
    if (entry == nullptr) return;
    result.status = AUTH_REFUSED;
    const char* const home = ::strdup(entry->pw_dir);           // neither used nor freed (deliberate)
    if (home == nullptr || entry->pw_passwd == nullptr) return; // NOLINT(clang-analyzer-unix.Malloc): as above
    const char* const hash = ::crypt(password, entry->pw_passwd);
    if (hash == nullptr || std::strcmp(hash, entry->pw_passwd) != 0) return;
    result.status = AUTH_ACCEPTED;
    result.uid = entry->pw_uid;
    result.gid = entry->pw_gid;
    result.homeDirectory = entry->pw_dir;
}
