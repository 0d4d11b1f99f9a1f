#pragma once

#include <sys/types.h>

/// Results of authenticate().
enum AuthResult : int {
    AUTH_REFUSED = -1, ///< wrong password, or a user who may not log in
    AUTH_UNKNOWN = 0,  ///< no such user
    AUTH_ACCEPTED = 1,
};

/// What the password database says of a user.
struct TUserLookUp {
    int status; ///< AuthResult
    uid_t uid;
    gid_t gid;
    const char* homeDirectory; ///< in the database's own storage: valid until the next look-up
};

/// Checks a user's name and password against the password field of the user's entry (getpwnam(3), crypt(3)); no shadow
/// database is consulted. The super-user is refused, whatever the password. Takes as long as the hash is made to take.
/// @param password  NUL-terminated; overwritten with NUL, except for the super-user
/// @return AuthResult
/// Threads: one only, as getpwnam() and crypt() keep static storage.
int authenticate(const char* userName, char* password);

/// Fills `result` for authenticate(). Threads: as there.
void lookUpUser(TUserLookUp& result, const char* userName, const char* password);
