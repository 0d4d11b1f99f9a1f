#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/fd.h"
#include "framework/orb_attachment_msg.h"
#include "tools/tessctl/item.h"

/// A queue of this process's own, over which it asks tessd for its state, and watches what happens.
/// Over the plain wire, because the framework's has no descriptor to wait for.
/// Threads: one.
class StateQueue {
public:
    ~StateQueue() { close(); }
    StateQueue() = default;
    StateQueue(const StateQueue&) = delete;
    StateQueue& operator=(const StateQueue&) = delete;

    /// @return why it cannot be opened; empty when it is open
    std::string open();
    void close();

    int fd() const { return fd_.get(); }

    /// Asks for the state. @return false: tessd takes no message now
    bool ask();

    /// Wants to be told what happens, or no longer. @return as ask()
    bool watch(bool on);

    /// Takes what has arrived.
    /// @param state   receives a whole state
    /// @param events  receives what has happened
    void receive(const std::function<void(const std::vector<Item>&)>& state,
                 const std::function<void(const Item&)>& events);

private:
    bool send(std::uint32_t kind, const std::string& text);
    bool bindTo(long address);

    Fd fd_;
    std::string path_;
    std::uint32_t tag_ = 0;
    std::string text_; ///< of an answer that is not whole
};
