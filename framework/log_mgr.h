#pragma once

/// Numeric identifier of a log message, fixed per message.
using TTraceMsg = int;

/// The process's log: one line a call.
class TLogMgr {
public:
    /// Sets how lines look; call once, before the first line and before other threads run.
    /// @param maxEntries  the framework's own, passed as given
    /// @param level       the framework's own, passed as given
    /// @param tag         printed in front of the identifier as it stands, leading blanks included; must outlive the log
    /// @param facility    the framework's own, passed as given
    void setLogParameters(int maxEntries, int level, const char* tag, int facility);

    /// Tells whoever started the process that it is up (sd_notify(3), READY=1). Call once, from the main thread.
    void initAfterDaemonize();

    /// Writes one line. Line ends inside the text become blanks; a text that is too long for a line is cut.
    /// Takes no lock, allocates nothing, keeps errno. A line that cannot be written is dropped.
    /// @param id    identifier of the message
    /// @param text  NUL-terminated; stays the caller's
    /// Threads: any; also from a signal handler (signal-safety(7)).
    void log(TTraceMsg id, const char* text);
};

/// The process's one log manager. Usable from start to exit, and while static objects are destroyed.
extern TLogMgr logMgr;
