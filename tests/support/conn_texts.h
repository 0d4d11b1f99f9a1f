#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connections/local_conn.h"
#include "framework/fixed_text.h"

using Texts = std::vector<std::string>;

/// The command lines of the last read of a connection.
/// @param count  what that read returned
inline Texts linesOf(const TPortConn& conn, int count)
{
    Texts lines;
    for (int i = 0; i < count; ++i)
        lines.emplace_back(conn.cmds[static_cast<std::size_t>(i)].text);
    return lines;
}

/// A record for a connection to write.
inline TOrbAttachmentMsg recordWith(std::string_view text, std::uint32_t tag = 0)
{
    TOrbAttachmentMsg record{};
    record.kind = 102;
    record.sender = 2001;
    record.tag = tag;
    record.len = -1;
    putText(record.text, text);
    return record;
}

/// Writes records as the message loop does with answers that have come together.
inline void writeTogether(LocalConn& conn, std::vector<TOrbAttachmentMsg>& records)
{
    std::vector<TOrbAttachmentMsg*> msgs;
    for (TOrbAttachmentMsg& record : records)
        msgs.push_back(&record);
    const std::scoped_lock lock(LocalConn::outputLock);
    conn.writeTogether(msgs);
}
