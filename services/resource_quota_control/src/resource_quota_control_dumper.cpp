#include "resource_quota_control_dumper.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <utility>

#include "res_policy_manager.h"
#include "resource_quota_control_impl.h"
#include "singleton.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using Arguments = std::vector<std::string>;

constexpr std::string_view kHelp =
    "Resource quota control dump options:\n"
    "  description of the cmd option:\n"
    "    -h:                        show this help.\n"
    "  DumpConfig\n"
    "  DumpRunningTime\n"
    "  DumpReportedAbnormalInfo\n"
    "  DumpHandledAbnormalInfo\n"
    "  DumpHandledAbnormalEnhanceInfo\n"
    "  DumpGetIoWritebytesAbility\n";

// The number that a text begins with, white space and a sign before it allowed; 0, which names no process,
// when there is none or it is out of range.
int32_t ParsePid(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    if (text.starts_with('+') && !text.starts_with("+-")) {
        text.remove_prefix(1);
    }
    int32_t pid = 0;
    std::from_chars(text.data(), text.data() + text.size(), pid);
    return pid;
}

void DumpConfig(const Arguments& /*args*/, std::string& result) {
    std::vector<Kelvra::ResQuotaInfo> infos;
    DelayedSingleton<ResPolicyManager>::GetInstance()->GetAllResQuotaInfos(infos);
    for (const auto& info : infos) {
        result += ResourceQuotaControlDumper::TransitResQuotaToString(info);
    }
}

void DumpRunningTime(const Arguments& /*args*/, std::string& result) {
    for (const auto& [name, runningTime] :
         DelayedSingleton<ResPolicyManager>::GetInstance()->GetExtensionRunningTime()) {
        result += name + " running time is " + std::to_string(runningTime) + '\n';
    }
}

ResourceQuotaControlImpl& Core() {
    return *DelayedSingleton<ResourceQuotaControlImpl>::GetInstance();
}

void DumpIoWriteBytes(const Arguments& args, std::string& result) {
    Core().DumpWritebytesAbility(result, args.size() > 1 ? ParsePid(args[1]) : 0);
}

using Option = std::pair<std::string_view, void (*)(const Arguments&, std::string&)>;

constexpr std::array<Option, 7> kOptions{{
    {"-h", [](const Arguments&, std::string& result) { result += kHelp; }},
    {"DumpConfig", DumpConfig},
    {"DumpRunningTime", DumpRunningTime},
    {"DumpReportedAbnormalInfo",
     [](const Arguments&, std::string& result) { Core().DumpAbnormalInfo(result, true); }},
    {"DumpHandledAbnormalInfo",
     [](const Arguments&, std::string& result) { Core().DumpAbnormalInfo(result, false); }},
    {"DumpHandledAbnormalEnhanceInfo",
     [](const Arguments&, std::string& result) { Core().DumpAbnormalEnhanceInfo(result); }},
    {"DumpGetIoWritebytesAbility", DumpIoWriteBytes},
}};

}  // namespace

void ResourceQuotaControlDumper::Dump(const Arguments& args, std::string& result) {
    result.clear();
    const std::string_view word = args.empty() ? "-h" : std::string_view(args[0]);
    const auto option = std::ranges::find(kOptions, word, &Option::first);
    const auto write = option == kOptions.end() ? kOptions.front().second : option->second;
    write(args, result);
}

std::string ResourceQuotaControlDumper::TransitResQuotaToString(const Kelvra::ResQuotaInfo& info) {
    std::string line = "process name is " + info.processName;
    line += ", resource is " + std::to_string(info.resource);
    line += ", duration is " + std::to_string(info.duration);
    line += ", id is " + std::to_string(info.id);
    line += ", process type is " + std::to_string(info.processType);
    line += ", action is " + info.action;
    line += ", resType is " + info.resType;
    line += ", condition is ";
    for (const uint32_t condition : info.conditions) {
        line += ' ' + std::to_string(condition);
    }
    line += '\n';
    return line;
}

}  // namespace KITE::ResourceQuotaCtl
