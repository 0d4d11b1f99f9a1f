#pragma once

#include <pwd.h>
#include <sys/types.h>
#include <vector>

/// Results of authenticate().
enum AuthResult : int {
    AUTH_REFUSED = -1, ///< wrong password, or a user who may not log in
    AUTH_UNKNOWN = 0,  ///< no such user, or the database cannot be read
    AUTH_ACCEPTED = 1,
};

/// What the password database says of a user.
struct UserLookUp {
    int status; ///< AuthResult
    uid_t uid;
    gid_t gid;
    const char* homeDirectory; ///< points into `storage`

    passwd entry;              ///< the user's, as the database has it
    std::vector<char> storage; ///< of the entry's texts
};

/// @return true for the super-user, who is refused without a look at the password
bool isSuperUser(const char* userName);

/// Checks a user's name and password against the password field of the user's entry (getpwnam_r(3),
/// crypt_r(3)); no shadow database is consulted. The super-user is refused, whatever the password.
/// Takes as long as the hash is made to take.
/// @param password  NUL-terminated; overwritten with NUL, except for the super-user
/// @return AuthResult
/// Threads: any.
int authenticate(const char* userName, char* password);

/// Fills `result` for authenticate(). Threads: any.
void lookUpUser(UserLookUp& result, const char* userName, const char* password);
