#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ipc/handles.h"

namespace KITE::Linux {

class Bus;
class NameWatch;

// The uid behind each unique bus name, as the daemon vouches for it. Asked once for each sender and kept
// until that leaves the bus: a unique name is never given again. Belongs to the serving thread.
class CallerIdentities {
  public:
    using Known = std::function<void(std::optional<uid_t>)>;

    using Gone = std::function<void(const std::string& sender)>;

    // `gone` is called when a sender whose uid is kept leaves the bus.
    CallerIdentities(Bus& bus, Gone gone);
    ~CallerIdentities();

    // Calls `known` exactly once: at once when the uid is known, else when the daemon has answered. Calls for
    // one sender come in the order of the questions. No uid when the sender has gone or the daemon does not
    // tell.
    void Resolve(const std::string& sender, Known known);
    // Answers every open question with no uid, and forgets everything.
    void Clear();

    size_t Size() const { return entries_.size(); }
    static constexpr size_t kMaxEntries = 256;

  private:
    struct Entry {
        std::unique_ptr<NameWatch> watch;
        std::optional<uid_t> uid;
        bool watched = true;
        uint64_t lastUse = 0;
        std::vector<Known> waiting;  // not empty until the daemon has answered
    };

    void Ask(const std::string& sender, Entry& entry);
    void OnAnswer(const std::string& sender, int32_t status, sd_bus_message* reply);
    void Forget(const std::string& sender);
    void EvictOne();

    Bus& bus_;
    const Gone gone_;
    std::map<std::string, Entry> entries_;
    uint64_t useCounter_ = 0;
};

}  // namespace KITE::Linux
