#pragma once

#include "connections/local_conn.h"

/// A local client of the IPC socket: plain text lines in, plain text out.
class TSocketIPCConn : public LocalConn {
public:
    using LocalConn::LocalConn;

    int readCmd() override;

protected:
    std::string_view toBeSent(TOrbAttachmentMsg& msg) const override;
    int send(TOrbAttachmentMsg& msg) override;
};
