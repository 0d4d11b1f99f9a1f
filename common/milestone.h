#pragma once

#include <atomic>
#include <cstdint>

/// How far the program has got, by fixed numbers. Nearly every operation of ports, commands and
/// daemon stores one when it begins and another when it is done; an operation that ends early, or
/// by an exception, stores only the first. docs/log.md has the same list, which a test compares.
enum class Milestone : std::int32_t {
    programBegun = 0,              ///< the program has begun
    creatingDaemon = 1,            ///< the options are read, the daemon is being made
    daemonCreated = 2,             ///< the daemon is there, and the service manager has been told
    serviceStarted = 3,            ///< the service thread has been made, the message loop comes next
    messageLoopLeft = 5,           ///< the message loop is over, the daemon ends
    serviceThreadBegun = 6,        ///< the service thread has begun
    daemonConstructorBegun = 7,    ///< the daemon's queue is open, its ports come next
    daemonConstructorDone = 8,     ///< ports and signal handlers are there
    daemonDestructorBegun = 9,     ///< the daemon is being taken down
    daemonDestructorDone = 10,     ///< the daemon has been taken down, but for its queue
    receivingMessage = 12,         ///< the message loop waits for a message
    messageReceived = 13,          ///< a message has come
    sendingReply = 14,             ///< a message is being answered
    messageLoopDone = 16,          ///< no further message is taken
    serviceLoopBegun = 17,         ///< the service loop has begun
    servicePassBegun = 18,         ///< the service loop begins a round
    collectingConnections = 19,    ///< it gathers the connections that it is going to wait for
    runningDelays = 20,            ///< it runs delayed commands; also while it waits for something to do
    serviceLoopDone = 21,          ///< the service loop is over
    clearRegistryBegun = 22,       ///< the registry of processes is being emptied
    clearRegistryDone = 23,        ///< the registry is empty
    registerBegun = 24,            ///< a process is being registered; also afterwards, unless it was a new name
    registerDone = 25,             ///< a process with a new name has been registered
    unregisterBegun = 26,          ///< a process is being taken off the registry
    unregisterDone = 27,           ///< the registry has been searched for that process
    acceptBegun = 28,              ///< the ports are asked for new connections
    acceptDone = 29,               ///< all ports have been asked
    serveBegun = 30,               ///< the connections are being served
    serveDone = 31,                ///< all connections have been served
    forwardBegun = 32,             ///< a command goes to the processes it is for
    forwardDone = 33,              ///< it has been sent, or waits for room in a queue
    addressBegun = 34,             ///< the address of a command is being read
    addressDone = 35,              ///< the address has been read
    removeConnectionBegun = 36,    ///< a connection is being removed
    removeConnectionDone = 37,     ///< that connection is gone
    closeConnectionsBegun = 38,    ///< all connections, or all telnet connections, are being closed
    closeConnectionsDone = 39,     ///< they have been closed
    daemonDeleted = 40,            ///< the daemon is gone, its queue too
    exitLogged = 41,               ///< the normal end has been logged
    stopRequested = 42,            ///< a signal has asked for the end
    serviceEndSet = 300,           ///< the service thread has been told when to end, and is waited for
    serviceThreadJoined = 301,     ///< the service thread has ended
    connectionsClosed = 302,       ///< every connection is closed
    portsDeleted = 303,            ///< every port is closed
    com2ConstructorBegun = 1000,   ///< COM2: the port is being made
    com2ConstructorDone = 1001,    ///< COM2: the port is there
    com2OpenBegun = 1002,          ///< COM2: the device is being opened
    com2OpenDone = 1003,           ///< COM2: the device is open and set up
    com2CloseBegun = 1004,         ///< COM2: the device is being given back
    com2CloseDone = 1005,          ///< COM2: the device has been given back, or was not open
    com2CheckBegun = 1006,         ///< COM2: is a session to begin?
    com2CheckDone = 1007,          ///< COM2: a session has begun, or one was there
    com2CloseConnBegun = 1008,     ///< COM2: a session ends
    com2CloseConnDone = 1009,      ///< COM2: that session has ended
    telnetConstructorBegun = 1010, ///< telnet: the port is being made
    telnetConstructorDone = 1011,  ///< telnet: the port is there
    telnetOpenBegun = 1012,        ///< telnet: the listening socket is being made
    telnetOpenDone = 1013,         ///< telnet: the port listens
    telnetCloseBegun = 1014,       ///< telnet: the listening socket is being closed
    telnetCloseDone = 1015,        ///< telnet: it has been closed, or was not open
    telnetCheckBegun = 1016,       ///< telnet: is there a new client?
    telnetCheckDone = 1017,        ///< telnet: a client was handed out, or none was ready
    telnetCloseConnBegun = 1018,   ///< telnet: a client's connection is being closed
    telnetCloseConnDone = 1019,    ///< telnet: that connection is closed
    localConstructorBegun = 1020,  ///< IPC or XCP: the port is being made
    ipcConstructorDone = 1021,     ///< IPC: the port is there
    ipcDestructorBegun = 1022,     ///< IPC: the port is being taken down
    ipcDestructorDone = 1023,      ///< IPC: the port is gone, its socket file too
    localOpenBegun = 1024,         ///< IPC or XCP: the listening socket is being made
    localOpenDone = 1025,          ///< IPC or XCP: the port listens
    localCloseBegun = 1026,        ///< IPC or XCP: the listening socket is being closed
    localCloseDone = 1027,         ///< IPC or XCP: it has been closed, or was not open
    localCheckBegun = 1028,        ///< IPC or XCP: is there a new client?
    localCheckDone = 1029,         ///< IPC or XCP: a client was handed out, or there was none
    localCloseConnBegun = 1030,    ///< IPC or XCP: a client's connection is being closed
    localCloseConnDone = 1031,     ///< IPC or XCP: that connection is closed
    xcpConstructorDone = 1111,     ///< XCP: the port is there
    xcpDestructorBegun = 1112,     ///< XCP: the port is being taken down
    xcpDestructorDone = 1113,      ///< XCP: the port is gone, its socket file too
};

/// The milestone that any thread has passed last. Reported when the program crashes.
inline std::atomic<std::int32_t> g_milestone{0};

/// Threads: any; also from a signal handler.
inline void setMilestone(Milestone reached)
{
    g_milestone.store(static_cast<std::int32_t>(reached), std::memory_order_relaxed);
}
