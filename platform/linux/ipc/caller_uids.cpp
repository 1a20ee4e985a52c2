#include "ipc/caller_uids.h"

#include <utility>

#include "ipc/bus.h"
#include "ipc/name_watch.h"
#include "remote_object.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

CallerIdentities::CallerIdentities(Bus& bus, Gone gone) : bus_(bus), gone_(std::move(gone)) {}

CallerIdentities::~CallerIdentities() = default;

void CallerIdentities::Resolve(const std::string& sender, Known known) {
    auto found = entries_.find(sender);
    if (found != entries_.end() && found->second.waiting.empty()) {
        found->second.lastUse = ++useCounter_;
        known(found->second.uid);
        return;
    }
    if (found != entries_.end()) {
        found->second.waiting.push_back(std::move(known));
        return;
    }
    if (entries_.size() >= kMaxEntries) {
        EvictOne();
    }
    Entry& entry = entries_[sender];
    entry.waiting.push_back(std::move(known));
    Ask(sender, entry);
}

// The watch comes first: a sender that leaves before it is in place is unknown to the question that follows.
void CallerIdentities::Ask(const std::string& sender, Entry& entry) {
    entry.watch = std::make_unique<NameWatch>(
        bus_.Connection(), sender,
        [this, sender](const std::string&) {
            Forget(sender);
            gone_(sender);
        },
        [this, sender] {
            PLATFORM_LOGE("cannot watch the caller %{public}s", sender.c_str());
            Forget(sender);
        });
    bus_.Call(bus_.NewDaemonCall("GetConnectionUnixUser", sender),
              [this, sender](int32_t status, sd_bus_message* reply) { OnAnswer(sender, status, reply); });
}

void CallerIdentities::OnAnswer(const std::string& sender, int32_t status, sd_bus_message* reply) {
    const auto found = entries_.find(sender);
    if (found == entries_.end()) {
        return;
    }
    uint32_t number = 0;
    std::optional<uid_t> uid;
    if (status == ERR_NONE && sd_bus_message_read(reply, "u", &number) > 0) {
        uid = number;
    }
    std::vector<Known> waiting = std::move(found->second.waiting);
    found->second.waiting.clear();
    if (uid && found->second.watched) {
        found->second.uid = uid;
        found->second.lastUse = ++useCounter_;
    } else {
        entries_.erase(found);
    }
    for (const Known& known : waiting) {
        known(uid);
    }
}

// While the question is open the entry stays for those who wait, but is not kept afterwards.
void CallerIdentities::Forget(const std::string& sender) {
    const auto found = entries_.find(sender);
    if (found == entries_.end()) {
        return;
    }
    if (found->second.waiting.empty()) {
        entries_.erase(found);
    } else {
        found->second.watched = false;
    }
}

void CallerIdentities::EvictOne() {
    auto oldest = entries_.end();
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        const bool isOlder = oldest == entries_.end() || entry->second.lastUse < oldest->second.lastUse;
        if (entry->second.waiting.empty() && isOlder) {
            oldest = entry;
        }
    }
    if (oldest != entries_.end()) {
        entries_.erase(oldest);
    }
}

void CallerIdentities::Clear() {
    const std::map<std::string, Entry> dropped = std::exchange(entries_, {});
    for (const auto& [sender, entry] : dropped) {
        for (const Known& known : entry.waiting) {
            known(std::nullopt);
        }
    }
}

}  // namespace KITE::Linux
