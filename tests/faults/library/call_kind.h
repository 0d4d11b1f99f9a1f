#pragma once

#include <sys/select.h>
#include <sys/socket.h>

/// What a call is about, in one word: `com2`, `telnet`, `xcp`, `ipc`; `queue` and `room` (the
/// sockets that wait for another queue's room); `wake` (the event descriptor), `log`, `directory`,
/// `local` (a stream socket without a name yet), `other`. errno is kept.

const char* kindOfDescriptor(int fd);
const char* kindOfPath(const char* path);
const char* kindOfAddress(const sockaddr* address);

/// Of socket(2).
const char* kindOfFamily(int family, int type);

/// Of select(2): `look` does not wait, `wait` may.
const char* kindOfWait(const timeval* longest);
