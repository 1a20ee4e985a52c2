#pragma once

#include "ipc/system.h"

namespace KITE::Benchmarks {

class WholeSystem : public System {
  public:
    // Throws when the hosts do not start.
    void StartWhole() {
        PrivateSystem::StartWhole();
        RequireStarted();
    }
    Integration::FakeManager& StartWithFakeManager() {
        Integration::FakeManager& manager = PrivateSystem::StartWithFakeManager();
        RequireStarted();
        return manager;
    }
    using PrivateSystem::StopQuotaHost;

  private:
    static void RequireStarted() {
        if (HasFailure()) {
            throw std::runtime_error("the hosts do not start");
        }
    }
};

}  // namespace KITE::Benchmarks
