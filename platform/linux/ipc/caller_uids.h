#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ipc/name_watch.h"
#include "ipc/serving_thread.h"

namespace KITE::Linux {

// The uid behind each unique bus name, as the daemon vouches for it. Asked once for each sender and kept
// until that leaves the bus: a unique name is never given again. Belongs to the serving thread.
class CallerUids {
  public:
    using Receiver = std::function<void(std::optional<uid_t>)>;
    using Gone = std::function<void(const std::string& sender)>;

    // `gone` is called when a sender whose uid is kept leaves the bus.
    CallerUids(ServingThread& thread, Gone gone) : thread_(thread), gone_(std::move(gone)) {}

    // Calls `receive` exactly once: at once when the uid is kept, else when the daemon has answered, in the
    // order of the questions. No uid when the sender has gone or the daemon does not tell.
    void Find(const std::string& sender, Receiver receive);
    // Answers every open question with no uid, and forgets everything.
    void Clear();

  private:
    struct Entry {
        std::unique_ptr<NameWatch> watch;
        std::optional<uid_t> uid;
        std::vector<Receiver> waiting;  // not empty until the daemon has answered
    };

    void Ask(const std::string& sender, Entry& entry);
    void TakeAnswer(const std::string& sender, std::optional<uid_t> uid);
    void Forget(const std::string& sender);
    void MakeRoom();

    ServingThread& thread_;
    const Gone gone_;
    std::map<std::string, Entry> entries_;
};

}  // namespace KITE::Linux
