#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "kelvra_manager/manager/manager_stub.h"
#include "parameters.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "singleton.h"
#include "system_ability.h"

// The Kelvra manager as an ability of its host: loading the library registers it.
namespace KITE::Linux::Sampling {

namespace {

// As many processes as there are descriptors for; the host has raised the limit as far as it goes.
size_t MostWatched() {
    constexpr rlim_t kForEverythingElse = 128;
    constexpr rlim_t kPerProcess = WatchedProcess::kMostDescriptors;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t left = std::max(limit.rlim_cur, kForEverythingElse) - kForEverythingElse;
    return std::clamp<size_t>(left / kPerProcess, 1, ProcessTable::kMostWatched);
}

class ManagerAbility : public SystemAbility {
  public:
    ManagerAbility() : SystemAbility(KELVRA_MANAGER_SERVICE_ID, true) {}

    std::string GetClassName() override { return "KelvraManager"; }
    void OnStart() override {
        const std::chrono::milliseconds period(GetIntParameter("kelvra.sample_period_ms", 1000, 100, 60'000));
        const bool isRecorded = GetBoolParameter("kelvra.record_samples", false);
        auto recorder = isRecorded ? std::make_unique<SampleRecorder>(SamplesPath()) : nullptr;
        sampler_ = std::make_shared<Sampler>(period, MostWatched(), std::make_shared<Reporter>(),
                                             std::move(recorder));
        sampler_->Start();
        if (!Publish(MakeSptr<ManagerStub>(sampler_))) {
            PLATFORM_LOGE(
                "the Kelvra manager cannot be published: no quotas are taken and nothing is reported");
        }
    }
    void OnStop() override {
        if (sampler_) {
            sampler_->Stop();
        }
    }

  private:
    std::shared_ptr<Sampler> sampler_;
};

[[maybe_unused]] const bool g_isRegistered =
    SystemAbility::MakeAndRegisterAbility(DelayedSingleton<ManagerAbility>::GetInstance().get());

}  // namespace

}  // namespace KITE::Linux::Sampling
