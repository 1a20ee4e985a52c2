#include "ipc/caller_uids.h"

#include <algorithm>

#include "ipc/limits.h"
#include "ipc/outgoing_call.h"

namespace KITE::Linux {

void CallerUids::Find(const std::string& sender, Receiver receive) {
    const auto found = entries_.find(sender);
    if (found == entries_.end()) {
        MakeRoom();
        Entry& entry = entries_[sender];
        entry.waiting.push_back(std::move(receive));
        Ask(sender, entry);
    } else if (found->second.uid) {
        receive(found->second.uid);
    } else {
        found->second.waiting.push_back(std::move(receive));
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
    found->second.uid = uid;
    if (!uid) {
        entries_.erase(found);
    }
    for (const Receiver& receive : waiting) {
        receive(uid);
    }
}

// While the question is open the entry stays for those who wait. If the sender leaves before the daemon
// answers, the answer has no uid and drops the entry.
void CallerUids::Forget(const std::string& sender) {
    const auto found = entries_.find(sender);
    if (found != entries_.end() && found->second.uid) {
        entries_.erase(found);
    }
}

// Whose uid is dropped is asked for again. While the question is open, an entry stays for those who wait.
void CallerUids::MakeRoom() {
    if (entries_.size() >= kMaxKeptUids) {
        const auto idle =
            std::ranges::find_if(entries_, [](const auto& entry) { return entry.second.uid.has_value(); });
        if (idle != entries_.end()) {
            entries_.erase(idle);
        }
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
