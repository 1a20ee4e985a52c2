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

class NameWatch;
class ServingThread;

// The uid behind each unique bus name, as the daemon vouches for it. Asked once for each sender and kept
// until that leaves the bus: a unique name is never given again. Belongs to the serving thread.
class CallerUids {
  public:
    using Receiver = std::function<void(std::optional<uid_t>)>;
    using Gone = std::function<void(const std::string& sender)>;

    // `gone` is called when a sender whose uid is kept leaves the bus.
    CallerUids(ServingThread& thread, Gone gone);
    ~CallerUids();

    // Calls `receive` exactly once: at once when the uid is kept, else when the daemon has answered. Calls
    // for one sender come in the order of the questions. No uid when the sender has gone or the daemon does
    // not tell.
    void Find(const std::string& sender, Receiver receive);
    // Answers every open question with no uid, and forgets everything.
    void Clear();

  private:
    struct Entry {
        std::unique_ptr<NameWatch> watch;
        std::optional<uid_t> uid;
        uint64_t lastUse = 0;
        std::vector<Receiver> waiting;  // not empty until the daemon has answered
    };

    void Ask(const std::string& sender, Entry& entry);
    void TakeAnswer(const std::string& sender, std::optional<uid_t> uid);
    void Forget(const std::string& sender);
    void DropOldest();

    ServingThread& thread_;
    const Gone gone_;
    std::map<std::string, Entry> entries_;
    uint64_t useCounter_ = 0;
};

}  // namespace KITE::Linux
