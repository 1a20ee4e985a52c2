// Batches of reports through the anomaly core, while the device changes, time passes and the manager leaves.

#include "fake_platform.h"
#include "fuzz.h"
#include "resource_quota_control_impl.h"

using namespace KITE;
using namespace KITE::Fuzz;
using Kelvra::ProcessAnomalyInfo;

namespace {

constexpr size_t kHistory = 100;

// Of processes and users alike. The process 7 never bears a reported name, none of which has an equals sign.
int32_t Id(Input& input) {
    return input.PickValueInArray({1, 2, 7, -1});
}

ProcessAnomalyInfo Report(Input& input) {
    ProcessAnomalyInfo info;
    info.pid = Id(input);
    info.uid = Id(input);
    info.processType = input.ConsumeIntegralInRange(-1000, 3999);
    info.duration = input.ConsumeIntegral<int64_t>();
    info.resType = input.PickValueInArray({"io", "cpu_ext", "mem", ""});
    info.action = input.PickValueInArray({"kill", "freeze", "warning", ""});
    info.processName = "daemon" + input.ConsumeRandomLengthString(40);
    std::erase(info.processName, '=');
    while (input.ConsumeBool()) {
        info.conditions.push_back(input.ConsumeIntegralInRange(0U, 32U));
    }
    return info;
}

void ChangeDevice(Fake::Platform& platform, Input& input) {
    const auto resource = [&](uint32_t number) {
        return std::make_shared<ResourceCallbackInfo>(Id(input), Id(input), number);
    };
    platform.isScreenOn = input.ConsumeBool();
    platform.continuousTaskResult = input.ConsumeBool() ? 0 : -1;
    platform.runningProcesses = {{Id(input), Id(input)}};
    platform.renderProcesses = {{Id(input), Id(input)}};
    platform.foregroundApplications = {{Id(input)}};
    platform.windowOwners = {-1, Id(input)};
    platform.continuousTasks = {
        nullptr, std::make_shared<ContinuousTaskCallbackInfo>(Id(input), Id(input), std::vector{1U})};
    platform.appResources = {nullptr, resource(0x40)};
    platform.processResources = {nullptr, resource(1)};
    platform.hasRegistry = input.ConsumeBool();
}

void CheckOthersAreLeftAlone(const Fake::Platform& platform) {
    for (const std::string& call : platform.Calls()) {
        const bool isTreatment = call.starts_with("KillProcess") || call.starts_with("ReportData");
        Require(!(isTreatment && call.find("pid=7") != call.npos));
        Require(!call.starts_with("OperateOneNativeProcess(7"));
    }
}

void CheckHistories(ResourceQuotaCtl::ResourceQuotaControlImpl& core, size_t reports) {
    std::string history;
    core.DumpAbnormalInfo(history, false);
    core.DumpAbnormalEnhanceInfo(history);
    history.clear();
    core.DumpAbnormalInfo(history, true);
    Require(std::ranges::count(history, '\n') >= static_cast<long>(std::min(reports, kHistory)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    auto& platform = Fake::Platform::Get();
    platform.Reset();
    platform.files = {{"/proc/1/cmdline", "/bin/daemon"},
                      {"/proc/2/cmdline", std::string("d/daemon\0-x", 11)},
                      {"/proc/7/cmdline", "/bin/o=r"},
                      {"/proc/-1/cmdline", "/"}};
    const auto core = std::make_shared<ResourceQuotaCtl::ResourceQuotaControlImpl>();
    core->InitKelvraTaskObserver();
    size_t reports = 0;
    while (input.remaining_bytes() > 0) {
        const int step = input.ConsumeIntegralInRange(0, 7);
        if (step == 0) {
            ChangeDevice(platform, input);
        } else if (step == 1) {
            platform.Advance(std::chrono::seconds(input.ConsumeIntegralInRange(0, 7)));
        } else if (step == 2) {
            core->HandleKelvraDied();
            core->InitKelvraTaskObserver();
        } else {
            std::vector<ProcessAnomalyInfo> batch(input.ConsumeIntegralInRange<size_t>(1, 12));
            std::ranges::generate(batch, [&] { return Report(input); });
            Require(platform.ReportAnomalies(batch) && platform.RunTasks() >= 1);
            reports += batch.size();
        }
    }
    CheckOthersAreLeftAlone(platform);
    CheckHistories(*core, reports);
    return 0;
}
