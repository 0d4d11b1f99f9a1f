#pragma once

#include "connections/local_conn.h"

/// A local client of the IPC socket: plain text lines in, plain text out.
class TSocketIPCConn : public LocalConn {
public:
    using LocalConn::LocalConn;

    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
};
