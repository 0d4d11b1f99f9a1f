#pragma once

#include <sys/un.h>

#include "common/milestone.h"
#include "framework/log_message.h"
#include "ports/cmd_port.h"

/// What differs between the two local socket ports.
struct LocalSocketKind {
    std::uint32_t portType;
    std::uint32_t firstConnId;
    const char* path;
    const char* bindFailure;
    const char* listenFailure;
    const LogMessage<Hex>* opened;    ///< null: not logged
    const LogMessage<Number>* closed; ///< null: not logged
    const LogMessage<>& portClosed;
    // All other milestones are the same for both kinds (deliberate).
    Milestone constructorExit, destructorEntry, destructorExit;
    MakeConn makeConn;
};

/// A command port on a Unix stream socket (unix(7)), for programs on the device. The socket file
/// exists while the port listens; a file left over at its path is replaced.
class LocalSocketPort : public TCmdPort {
public:
    static constexpr std::int32_t MAX_CONNS = 10;

    ~LocalSocketPort() override;

    int openPort() final;
    int closePort() final;
    int chkNewConn(TPortConn** newConn) final;
    int closeConn(TPortConn** conn) final;

    sockaddr_un listenAddr{};

protected:
    /// Opens the port.
    /// @param kind  must outlive the port
    /// @throws std::runtime_error  with one of the kind's texts
    explicit LocalSocketPort(const LocalSocketKind& kind);

private:
    TPortConn* acceptClient();
    void removeFile() const;

    const LocalSocketKind& kind_;
};
