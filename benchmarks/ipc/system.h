#pragma once

#include <stdexcept>
#include <string>

#include "integration/private_system.h"

namespace KITE::Benchmarks {

// A private bus with hosts, for the object's life, outside of a test. Root is there to measure.
class System : public Integration::PrivateSystem {
  public:
    System() {
        SetUp();
        if (HasFailure()) {
            throw std::runtime_error("the private bus does not start");
        }
    }
    System(const System&) = delete;
    System& operator=(const System&) = delete;
    ~System() override { TearDown(); }

    using PrivateSystem::Address;
    using PrivateSystem::Connect;
    using PrivateSystem::Directory;
    using PrivateSystem::KelvraHost;
    using PrivateSystem::LogToJournal;
    using PrivateSystem::QuotaHost;
    using PrivateSystem::Rule;
    using PrivateSystem::SetParameters;
    using PrivateSystem::SetPolicy;
    using PrivateSystem::SetTokens;
    using PrivateSystem::StartKelvraHost;
    using PrivateSystem::StartQuotaHost;
    using PrivateSystem::StartTarget;

  private:
    void TestBody() override {}
};

}  // namespace KITE::Benchmarks
