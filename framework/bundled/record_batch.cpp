#include "framework/bundled/record_batch.h"

RecordBatch::RecordBatch(TOrbAttachmentMsg& first) : first_(first)
{
    for (std::size_t i = 0; i < MOST; ++i) {
        places_[i] = {&record(i), MSG_RECORD_BYTES};
        headers_[i].msg_hdr.msg_name = &origins_[i];
        headers_[i].msg_hdr.msg_iov = &places_[i];
        headers_[i].msg_hdr.msg_iovlen = 1; // no control buffer: descriptors sent along are closed by the kernel
    }
    reuse(MOST);
}

void RecordBatch::reuse(std::size_t count)
{
    for (mmsghdr& header : headers().first(count))
        header.msg_hdr.msg_namelen = sizeof(sockaddr_un);
}
