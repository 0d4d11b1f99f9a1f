#pragma once

#include "framework/log_message.h"

/// What is logged besides where TESS_AUDIT=1 is set: who has done what. Each text is a line of
/// items (ItemLine), in which what comes from a peer is quoted.
namespace audit_log {

/// A command line was taken, for a delayed one when it is run.
inline constexpr LogMessage<Text> line{250041, "audit: line {}"};
/// A command was not carried out: the line in front of it, of that connection, or a part of it.
inline constexpr LogMessage<Text> refused{250042, "audit: refused {}"};
/// A user has logged in.
inline constexpr LogMessage<Text> login{250043, "audit: login {}"};
/// A user has not been let in. A name that no user has is left out: it may be a password.
inline constexpr LogMessage<Text> loginRefused{250044, "audit: login refused {}"};
/// A process has asked for a reset, with a message.
inline constexpr LogMessage<Text> reset{250045, "audit: reset {}"};

} // namespace audit_log
