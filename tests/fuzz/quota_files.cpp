// Quota files, merged and inherited, through the whole of Init. An input is the files' texts with a record
// separator between them, or choices from which files of the right shape are made.

#include <nlohmann/json.hpp>

#include "fake_platform.h"
#include "fuzz.h"
#include "res_policy_manager.h"

using namespace KITE;
using namespace KITE::Fuzz;
using nlohmann::json;
using ResourceQuotaCtl::ResPolicyManager;

namespace {

constexpr size_t kMostFiles = 4;

// What some member wants and the others do not.
json Value(Input& input) {
    return json::parse(input.PickValueInArray({"null", "-1", "7", "18446744073709551615", "1e3", R"("kill")",
                                               "[]", R"(["audio&screen_off", "other", "&"])", "{}", "[{}]"}));
}

// Names are so few that entries replace each other and inherit from each other.
json Entry(Input& input) {
    const auto name = [&] { return input.PickValueInArray({"", "A", "B", "C", "D", "E", "F"}); };
    json rule{
        {"condition", json::array()}, {"id", 1}, {"resource_quota", 2}, {"duration", 3}, {"action", ""}};
    if (input.ConsumeIntegralInRange(0, 15) == 0) {
        rule[input.PickValueInArray({"condition", "id", "resource_quota", "duration", "action"})] =
            Value(input);
    }
    json quotas = json::object();
    while (input.ConsumeBool()) {
        json& value =
            quotas[input.PickValueInArray({"cpu", "cpu_ext", "io", "mem", "running_time", "other"})];
        value = input.ConsumeIntegralInRange(0, 7) == 0 ? Value(input) : json{rule, rule};
    }
    return {{"process_name", name()}, {"inherit", name()}, {"process_quotas", quotas}};
}

std::string File(Input& input) {
    json entries = json::array();
    while (entries.size() < 8 && input.ConsumeIntegralInRange(0, 15) != 0) {
        entries.push_back(Entry(input));
    }
    return json{{"quotas", entries}}.dump();
}

std::vector<std::string> FilesOf(const uint8_t* data, size_t size) {
    if (size == 0 || data[0] >= kMostFiles) {
        return Split({reinterpret_cast<const char*>(data), size}, '\x1e', kMostFiles);
    }
    Input input(data + 1, size - 1);
    std::vector<std::string> files(data[0] + size_t{1});
    std::ranges::generate(files, [&] { return File(input); });
    return files;
}

void SetFiles(const std::vector<std::string>& files) {
    auto& platform = Fake::Platform::Get();
    platform.Reset();
    for (const std::string& file : files) {
        const std::string layer = std::to_string(platform.configDirectories.size());
        std::filesystem::create_directories(layer + "/etc/efficiency_manager");
        WriteFile(layer + "/etc/efficiency_manager/process_resource_limit.json", file);
        platform.configDirectories.push_back(layer);
    }
}

// What a manager tells, none of which may be impossible.
Parcel Told(ResPolicyManager& policy) {
    Parcel told;
    std::vector<Kelvra::ResQuotaInfo> infos;
    policy.GetAllResQuotaInfos(infos);
    for (const auto& info : infos) {
        Require(std::ranges::count(ResourceQuotaCtl::kResourceTypes, info.resType) == 1);
        Require(std::ranges::all_of(info.conditions, [](uint32_t mask) { return mask < 16; }));
        Require(info.Marshalling(told));
    }
    for (const auto& [name, runningTime] : policy.GetExtensionRunningTime()) {
        Require(runningTime >= 1 && told.WriteString(name) && told.WriteInt32(runningTime));
    }
    return told;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    SetFiles(FilesOf(data, size));
    ResPolicyManager policy;
    const bool isLoaded = policy.Init();
    const Parcel told = Told(policy);
    Require(isLoaded == policy.IsConfigInit() && (isLoaded || told.ReadableBytes() == 0));
    Require(policy.Init() == isLoaded && AreEqual(Told(policy), told));
    return 0;
}
