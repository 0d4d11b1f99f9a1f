#pragma once

#include <string>

#include "tools/tessctl/exit_status.h"

/// What tessd does for whoever may reach its queue. All throw CtlError.

/// Closes all connections, or the telnet ones.
ExitStatus runClose(bool telnetOnly);

/// Writes to the serial line.
/// @param newline  whether CR LF goes behind the text
ExitStatus runCom2(const std::string& text, bool newline);

/// Restarts the device.
/// @param reinitHost  re-initialises the version first, which the daemon does only on the host of
///                    this name; empty: does not
/// @param yes         does not ask
ExitStatus runReset(const std::string& reinitHost, bool yes);

/// Ends tessd and waits for its end.
ExitStatus runStop();
