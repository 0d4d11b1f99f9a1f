#include "tools/tess-mqtt/recent_requests.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "framework/fd.h"

namespace {

constexpr std::uint64_t FNV_PRIME = 0x100000001B3;
constexpr std::uint64_t FIRST_SEED = 0xCBF29CE484222325;
constexpr std::uint64_t SECOND_SEED = 0x9AE16A3B2F90404F;

/// Every bit of it depends on every bit given (the last step of MurmurHash3).
std::uint64_t mixed(std::uint64_t value)
{
    value ^= value >> 33;
    value *= 0xFF51AFD7ED558CCD;
    value ^= value >> 33;
    value *= 0xC4CEB9FE1A85EC53;
    return value ^ (value >> 33);
}

std::uint64_t hash64(std::uint64_t seed, const RecentRequests::Key& key)
{
    std::uint64_t value = seed;
    for (const std::string_view text : {key.topic, key.correlation, key.line}) {
        for (const char c : text)
            value = mixed((value ^ static_cast<unsigned char>(c)) * FNV_PRIME);
        value = mixed(value ^ text.size()); // where the one ends and the next begins
    }
    return value;
}

} // namespace

RecentRequests::RecentRequests(long window, const std::string& file) : window_(window)
{
    if (!file.empty()) map(file);
    if (mapped_) {
        readSlots();
    } else {
        own_ = std::make_unique<Slot[]>(SLOTS);
        slots_ = own_.get();
    }
}

RecentRequests::~RecentRequests()
{
    if (mapped_) (void)::munmap(slots_, SLOTS * sizeof(Slot));
}

RecentRequests::Hash RecentRequests::hashOf(const Key& key)
{
    return {hash64(FIRST_SEED, key), hash64(SECOND_SEED, key)};
}

void RecentRequests::map(const std::string& file)
{
    const Fd fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    constexpr std::size_t bytes = SLOTS * sizeof(Slot);
    if (fd.get() < 0 || ::ftruncate(fd.get(), bytes) != 0) return;
    if (::posix_fallocate(fd.get(), 0, bytes) != 0) return; // a page without room would end the program when written to
    void* const at = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (at == MAP_FAILED) return;
    slots_ = static_cast<Slot*>(at);
    mapped_ = true;
}

/// What the process before this one has begun; how it was answered is not known any more.
void RecentRequests::readSlots()
{
    const Slot* const last =
        std::max_element(slots_, slots_ + SLOTS, [](const Slot& a, const Slot& b) { return a.number < b.number; });
    lastNumber_ = last->number;
    next_ = static_cast<std::size_t>(last - slots_ + 1) % SLOTS;
    for (std::size_t i = 0; i < SLOTS; ++i) {
        const std::size_t slot = (next_ + i) % SLOTS;
        if (slots_[slot].begun <= 0) continue;
        entries_[slots_[slot].hash] = {slot, Known::answerLost, {}};
        order_.push_back(slot);
    }
}

void RecentRequests::drop(std::size_t slot)
{
    const auto entry = slots_[slot].begun == 0 ? entries_.end() : entries_.find(slots_[slot].hash);
    if (entry != entries_.end() && entry->second.slot == slot) {
        textBytes_ -= entry->second.reply.text.size();
        entries_.erase(entry);
    }
    slots_[slot].begun = 0;
}

void RecentRequests::dropOld(std::int64_t now)
{
    while (!order_.empty()) {
        const std::int64_t begun = slots_[order_.front()].begun;
        if (begun != 0 && begun <= now && now - begun < window_) return;
        drop(order_.front()); // too old, or of before the device's last start
        order_.pop_front();
    }
}

RecentRequests::Known RecentRequests::find(const Key& key, std::int64_t now)
{
    dropOld(now);
    const auto found = entries_.find(hashOf(key));
    return found == entries_.end() ? Known::no : found->second.known;
}

const Reply& RecentRequests::reply(const Key& key)
{
    return entries_.at(hashOf(key)).reply;
}

void RecentRequests::begin(const Key& key, std::int64_t now)
{
    forget(key);
    drop(next_);
    if (!order_.empty() && order_.front() == next_) order_.pop_front();
    const Hash hash = hashOf(key);
    slots_[next_] = {hash, std::max<std::int64_t>(now, 1), ++lastNumber_};
    entries_[hash] = {next_, Known::underWay, {}};
    order_.push_back(next_);
    next_ = (next_ + 1) % SLOTS;
}

void RecentRequests::finish(const Key& key, const Reply& reply)
{
    const Hash hash = hashOf(key);
    const auto found = entries_.find(hash);
    if (found == entries_.end()) return;
    const bool fits = reply.text.size() <= MOST_TEXT_BYTES;
    found->second.known = fits ? Known::answered : Known::answerLost;
    if (!fits) return;
    textBytes_ += reply.text.size() - found->second.reply.text.size();
    found->second.reply = reply;
    answered_.push_back(hash);
    dropOldReplies();
}

void RecentRequests::dropOldReplies()
{
    while (textBytes_ > MOST_TEXT_BYTES || answered_.size() > SLOTS) {
        const auto found = entries_.find(answered_.front());
        answered_.pop_front();
        if (found == entries_.end()) continue;
        textBytes_ -= found->second.reply.text.size();
        found->second.reply = {};
        if (found->second.known == Known::answered) found->second.known = Known::answerLost;
    }
}

void RecentRequests::forget(const Key& key)
{
    const auto found = entries_.find(hashOf(key));
    if (found == entries_.end()) return;
    const std::size_t slot = found->second.slot;
    drop(slot);
    if (order_.empty() || order_.back() != slot) return;
    order_.pop_back(); // so that many that are not carried out push out none that were
    next_ = slot;
}
