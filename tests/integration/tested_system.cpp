#include "tested_system.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <stdexcept>

namespace KITE::Integration {

namespace {

namespace fs = std::filesystem;

constexpr const char* kPolicyDirectory = "/etc/efficiency_manager";

void Require(bool isRight, const std::string& failure) {
    if (!isRight) {
        throw std::runtime_error(failure);
    }
}

void Require(const Linux::Result<void>& result) {
    Require(static_cast<bool>(result), result ? "" : result.Why().Text());
}

}  // namespace

TestedSystem::TestedSystem()
    : PrivateSystem({.shipped = KITE_ETC,
                     .host = KITE_HOST,
                     .quotaLibrary = KITE_QUOTA_LIBRARY,
                     .kelvraLibrary = KITE_KELVRA_LIBRARY,
                     .clientUids = {kUntrustedUid}}) {
    Require(StartBus());
    fs::create_directories(Layer() + kPolicyDirectory);
    WriteWholeFile(Paths().etc + Linux::FileName::kConfigDirectories,
                   fmt::format(R"({{"directories": ["{}"]}})", Layer()));
    SetPolicy({Rule("absent", "cpu", 50, "warning")});
    SetParameters(R"({"const.debuggable": 1, "kelvra.sample_period_ms": 100})");
    SetTokens(R"({"tokens": [{"uid": 0, "process_name": "svcdb",
                              "permissions": ["kite.permission.DUMP", "kite.permission.MANAGE_TREATMENTS"]},
                             {"uid": 61913, "process_name": "resource_quota_control"}]})");
}

std::string TestedSystem::Rule(const std::string& processName, const std::string& resourceType, int64_t quota,
                               const std::string& action, int32_t runningTime) {
    return fmt::format(
        R"({{"process_name": "{}", "inherit": "", "process_quotas": {{"running_time": {}, "{}": [
            {{"condition": [], "id": 1, "resource_quota": {}, "duration": 1, "action": "{}"}}]}}}})",
        processName, runningTime, resourceType, quota, action);
}

void TestedSystem::SetPolicy(const std::vector<std::string>& rules) {
    WriteWholeFile(Layer() + kPolicyDirectory + "/process_resource_limit.json",
                   fmt::format(R"({{"quotas": [{}]}})", fmt::join(rules, ",\n")));
}

void TestedSystem::StartWhole() {
    StartKelvraHost();
    StartQuotaHost();
    Require(AwaitService());
}

FakeManager& TestedSystem::StartWithFakeManager(const std::vector<std::string>& options) {
    manager_ = std::make_unique<FakeManager>(Address());
    StartQuotaHost(options);
    Require(manager_->AwaitSubscription(), "the quota service does not subscribe");
    Require(AwaitService());
    return *manager_;
}

int TestedSystem::StopQuotaHost() {
    QuotaHost().process.Signal(SIGTERM);
    return QuotaHost().process.AwaitExit();
}

Process& TestedSystem::StartTarget(const std::string& name, const std::vector<std::string>& mode,
                                   Launch launch) {
    launch.program = launch.program.empty() ? KITE_TARGET : launch.program;
    launch.arguments = {name};
    launch.arguments.insert(launch.arguments.end(), mode.begin(), mode.end());
    launch.blockedSignal = SIGUSR1;
    Process& target = targets_.emplace_back(launch);
    Require(!target.StartError(), name + ": " + target.StartError().message());
    return target;
}

std::vector<std::string> TestedSystem::TracesOfTreatments() const {
    std::vector<std::string> traces;
    std::error_code error;
    for (const auto& record : fs::directory_iterator(State(Linux::FileName::kTreatments), error)) {
        traces.push_back(record.path());
    }
    const auto options = fs::directory_options::skip_permission_denied;
    for (auto entry = fs::recursive_directory_iterator("/sys/fs/cgroup", options, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (std::ranges::any_of(targets_, [&](const Process& target) {
                return name.starts_with(fmt::format("kite-{}-", target.Pid()));
            })) {
            traces.push_back(entry->path());
        }
    }
    return traces;
}

}  // namespace KITE::Integration
