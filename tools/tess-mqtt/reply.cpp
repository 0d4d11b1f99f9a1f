#include "tools/tess-mqtt/reply.h"

const char* wordOf(ReplyStatus status)
{
    switch (status) {
    case ReplyStatus::answered:
        return "answered";
    case ReplyStatus::refused:
        return "refused";
    case ReplyStatus::timeout:
        return "timeout";
    case ReplyStatus::busy:
        break;
    }
    return "busy";
}
