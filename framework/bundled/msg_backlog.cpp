#include "framework/bundled/msg_backlog.h"

#include <cstdlib>
#include <cstring>

/// The record's bytes, only as many as were received, follow the node in memory.
struct alignas(std::max_align_t) MsgBacklog::Node {
    Node* next;
    std::size_t length;

    char* record() { return reinterpret_cast<char*>(this + 1); }
};

TOrbAttachmentMsg* MsgBacklog::reserve()
{
    constexpr std::size_t fullNode = sizeof(Node) + MSG_RECORD_BYTES;
    if (bytes_ + fullNode > LIMIT_BYTES) return nullptr;
    if (reserved_ == nullptr) reserved_ = static_cast<Node*>(std::malloc(fullNode));
    return reserved_ != nullptr ? reinterpret_cast<TOrbAttachmentMsg*>(reserved_->record()) : nullptr;
}

void MsgBacklog::keep(std::size_t length)
{
    void* const shrunk = std::realloc(reserved_, sizeof(Node) + length);
    Node* const node = shrunk != nullptr ? static_cast<Node*>(shrunk) : reserved_;
    reserved_ = nullptr;
    node->next = nullptr;
    node->length = length;
    (last_ != nullptr ? last_->next : first_) = node;
    last_ = node;
    bytes_ += sizeof(Node) + length;
}

std::size_t MsgBacklog::take(TOrbAttachmentMsg* to)
{
    Node* const node = first_;
    if (node == nullptr) return 0;
    const std::size_t length = node->length;
    std::memcpy(to, node->record(), length);
    first_ = node->next;
    if (first_ == nullptr) last_ = nullptr;
    bytes_ -= sizeof(Node) + length;
    std::free(node);
    return length;
}

void MsgBacklog::clear()
{
    while (Node* const node = first_) {
        first_ = node->next;
        std::free(node);
    }
    last_ = nullptr;
    std::free(reserved_);
    reserved_ = nullptr;
    bytes_ = 0;
}
