#pragma once

/// What the command line asks for. A flag that is true creates that port.
struct Options {
    bool com2 = true;
    bool telnet = true;
    bool noipcsocket = true; ///< cleared by --noipcsocket; creates the XCP port (the crossing is deliberate)
    bool noxcp = true;       ///< cleared by --noxcp; creates the IPC port (the crossing is deliberate)
    int missingArgument = 0; ///< the option that lacks its argument, else 0
};

/// Reads the command line (getopt_long(3)). Unknown options are ignored.
/// Threads: main thread only; getopt_long() keeps its state in globals.
Options parseOptions(int argc, char* argv[]);
