#pragma once

#include <string>

#include "tools/tessctl/exit_status.h"

/// What tessd does for whoever may reach its queue. All return STATUS_DONE when it is done, and
/// throw CtlError when tessd cannot be reached, does not take the request for 5 seconds, or does
/// not answer in time.

/// Closes all connections, or the telnet ones. There is no answer to wait for.
ExitStatus runClose(bool telnetOnly);

/// Writes to the serial line; waits up to 5 seconds for the answer.
/// @param text     8176 bytes at most, line end included
/// @param newline  whether CR LF goes behind the text
/// @throws CtlError  also when the text is too long, or tessd has not written it
ExitStatus runCom2(const std::string& text, bool newline);

/// Restarts the device. Waits 5 seconds for the answer, 600 when it re-initialises.
/// @param reinitHost  re-initialises the version first, which the daemon does only on the host of
///                    this name; empty: does not
/// @param yes         does not ask
/// @return STATUS_REFUSED: the user has said no, or tessd has
ExitStatus runReset(const std::string& reinitHost, bool yes);

/// Ends tessd, and waits up to 30 seconds for its end.
ExitStatus runStop();
