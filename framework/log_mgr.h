#pragma once

/// Numeric identifier of a log message, fixed per message.
using TTraceMsg = int;

/// The process's log: one line a call, in one write(2):
///
///     2026-11-21T05:15:00.123Z    [TESS] 51000 Command listener daemon running
///
/// UTC with milliseconds, the tag, the identifier, the text. Lines go to standard error; with
/// TESS_LOG=syslog in the environment to the datagram socket /dev/log in its place (RFC 3164:
/// facility daemon, severity information), and to standard error only what that does not take at
/// once; with TESS_LOG=both to both.
///
/// Where standard error is the journal's stream (JOURNAL_STREAM, systemd.exec(5)), the line's
/// severity stands in front of it as the journal wants it, "<6>" for information:
/// framework/service_manager.h.
///
/// The log does not wait. A line that no destination takes at once, because a pipe or a journal is
/// full that nobody reads, or a terminal is halted, is dropped and counted. In front of the next
/// line that goes through stands one that tells how many were: "250008 3 log lines were lost". A
/// forked child counts anew. With the bundled framework there is one exception: a pipe or terminal
/// that this process may not open again, on a kernel that has no write for it that does not wait
/// (for pipes: before Linux 6.4), may make a line wait when somebody else writes at the same
/// moment.
class TLogMgr {
public:
    /// Sets how lines look, and looks at TESS_LOG; until then there is no tag, and lines go to
    /// standard error. Call once, before other threads run.
    /// @param maxEntries  for a framework that has a use for it; the bundled one has none
    /// @param level       as maxEntries
    /// @param tag         printed in front of the identifier as it stands, leading blanks included;
    ///                    must outlive the log
    /// @param facility    as maxEntries
    void setLogParameters(int maxEntries, int level, const char* tag, int facility);

    /// Tells whoever started the process that it is up: READY=1 to the datagram socket that
    /// NOTIFY_SOCKET names (sd_notify(3)), with what setServiceStatus() has set; does nothing
    /// without one. Waits up to 2 seconds for room in a full one, then logs that it could not. Call
    /// once, from the main thread.
    void initAfterDaemonize();

    /// Writes one line. Line ends inside the text become blanks; a line of more than 4095
    /// characters is cut. Takes no lock, allocates nothing, keeps errno, does not wait (with the
    /// exception above) and never raises SIGPIPE: a line that cannot be written at once is dropped.
    /// Standard error may be a file, a pipe, a socket or a terminal, may be another one from line
    /// to line, and keeps its flags. For a moment a descriptor is open beside it (pipes and
    /// terminals).
    /// @param id    identifier of the message
    /// @param text  NUL-terminated, not null; stays the caller's
    /// Threads: any; also from a signal handler (signal-safety(7)).
    void log(TTraceMsg id, const char* text);
};

/// The process's one log manager. Usable from start to exit, and while static objects are
/// destroyed.
extern TLogMgr logMgr;
