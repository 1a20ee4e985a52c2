#pragma once

#include <set>
#include <string>

#include "base/result.h"
#include "ipc/serving_thread.h"

namespace KITE::Linux {

// The bus names that this process has asked for.
class ClaimedNames {
  public:
    explicit ClaimedNames(ServingThread& thread) : thread_(thread) {}

    // Makes this process the owner of a name; a success when it is already. Fails when another process owns
    // it, the bus refuses, or names are not claimed any more. Waits for the daemon; any thread but the
    // serving one.
    Result<void> Claim(const std::string& name);

    // Names can be claimed. Before the serving thread starts.
    void Begin() { isClosed_ = false; }
    // Gives back every name; none can be claimed any more. On the serving thread.
    void ReleaseAll();

  private:
    MessageHandle NewRequest(const std::string& name);

    ServingThread& thread_;
    // Belong to the serving thread while it runs.
    std::set<std::string> names_;
    bool isClosed_ = false;
};

}  // namespace KITE::Linux
