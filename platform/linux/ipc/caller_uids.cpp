#include "ipc/caller_uids.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "ipc/limits.h"
#include "ipc/name_watch.h"
#include "ipc/outgoing_call.h"

namespace KITE::Linux {

CallerUids::CallerUids(ServingThread& thread, Gone gone) : thread_(thread), gone_(std::move(gone)) {}

CallerUids::~CallerUids() = default;

void CallerUids::Find(const std::string& sender, Receiver receive) {
    if (const auto found = entries_.find(sender); found == entries_.end()) {
        if (entries_.size() >= kMaxKeptUids) {
            DropOldest();
        }
        Entry& entry = entries_[sender];
        entry.waiting.push_back(std::move(receive));
        Ask(sender, entry);
    } else if (Entry& entry = found->second; !entry.waiting.empty()) {
        entry.waiting.push_back(std::move(receive));
    } else {
        entry.lastUse = ++useCounter_;
        receive(entry.uid);
    }
}

// The watch comes first: a sender that leaves before it is in place is unknown to the question that follows.
void CallerUids::Ask(const std::string& sender, Entry& entry) {
    entry.watch =
        std::make_unique<NameWatch>(thread_.Connection(), sender, [this, sender](const std::string&) {
            Forget(sender);
            gone_(sender);
        });
    AskDaemon(thread_.Connection(), "GetConnectionUnixUser", sender,
              [this, sender](int32_t status, sd_bus_message* reply) {
                  TakeAnswer(sender, ReadNumber(status, reply));
              });
}

void CallerUids::TakeAnswer(const std::string& sender, std::optional<uid_t> uid) {
    const auto found = entries_.find(sender);
    if (found == entries_.end()) {
        return;
    }
    const std::vector<Receiver> waiting = std::exchange(found->second.waiting, {});
    if (uid) {
        found->second.uid = uid;
        found->second.lastUse = ++useCounter_;
    } else {
        entries_.erase(found);
    }
    for (const Receiver& receive : waiting) {
        receive(uid);
    }
}

// While the question is open the entry stays for those who wait. The daemon does what it is asked in order:
// it tells of the departure before it answers only if it does not find the sender any more, and that answer
// drops the entry.
void CallerUids::Forget(const std::string& sender) {
    const auto found = entries_.find(sender);
    if (found != entries_.end() && found->second.waiting.empty()) {
        entries_.erase(found);
    }
}

void CallerUids::DropOldest() {
    const auto age = [](const auto& item) {
        return item.second.waiting.empty() ? item.second.lastUse : std::numeric_limits<uint64_t>::max();
    };
    const auto oldest = std::ranges::min_element(entries_, {}, age);
    if (oldest->second.waiting.empty()) {
        entries_.erase(oldest);
    }
}

void CallerUids::Clear() {
    for (const auto& [sender, entry] : std::exchange(entries_, {})) {
        for (const Receiver& receive : entry.waiting) {
            receive(std::nullopt);
        }
    }
}

}  // namespace KITE::Linux
