#pragma once

#include <string>

/// Gives this process mounts of its own: an empty /tmp, so that a test may listen on the device's
/// paths there, and a /dev with little more than /dev/null and pseudo-terminals, one of which may
/// stand for the serial line. Call first in main(), before there are other threads.
void enterPrivateMounts();

/// @return why the mounts are not private, for the message of a test that is skipped; empty when
///         they are
const std::string& privateMountsProblem();
