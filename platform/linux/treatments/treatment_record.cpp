#include "treatments/treatment_record.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "base/file.h"
#include "base/json_node.h"
#include "base/text.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

using nlohmann::json;

constexpr const char* kUnifiedName = "unified";
constexpr const char* kCpuV1Name = "cpu";

json ToJson(const Group& group) {
    return {{"hierarchy", group.hierarchy == Hierarchy::kUnified ? kUnifiedName : kCpuV1Name},
            {"path", group.path}};
}

Group ReadGroup(const JsonNode& node) {
    const std::string name = node.Required("hierarchy").Text();
    if (name != kUnifiedName && name != kCpuV1Name) {
        node.Required("hierarchy").Fail("names no hierarchy");
    }
    return {name == kCpuV1Name ? Hierarchy::kCpuV1 : Hierarchy::kUnified, node.Required("path").Text()};
}

json ToJson(const ChangedGroup& changed) {
    return {{"group", ToJson(changed.group)},
            {"previous", changed.previous},
            {"previous_weight", changed.previousWeight}};
}

ChangedGroup ReadChangedGroup(const JsonNode& node) {
    ChangedGroup changed{ReadGroup(node.Required("group")), node.Required("previous").Text(),
                         node.Required("previous_weight").Text()};
    if (changed.previous != "0" && changed.previous != "1") {
        node.Required("previous").Fail("must be \"0\" or \"1\"");
    }
    const std::string& weight = changed.previousWeight;
    if (!weight.empty() && (weight.front() == '-' || !ParseDecimal(weight))) {
        node.Required("previous_weight").Fail("must be a number or empty");
    }
    return changed;
}

std::optional<ChangedGroup> ReadOptionalGroup(const JsonNode& node) {
    return node.IsPresent() ? std::optional(ReadChangedGroup(node)) : std::nullopt;
}

json ToJson(const ThreadPolicy& thread) {
    const SchedulingAttributes& attributes = thread.attributes;
    return {{"tid", thread.tid},
            {"start_time", thread.startTime},
            {"policy", attributes.policy},
            {"flags", attributes.flags},
            {"nice", attributes.nice},
            {"priority", attributes.priority},
            {"runtime", attributes.runtimeNs},
            {"deadline", attributes.deadlineNs},
            {"period", attributes.periodNs}};
}

ThreadPolicy ReadThreadPolicy(const JsonNode& node) {
    constexpr uint32_t kHighestPriority = 99;
    return {.tid = node.Required("tid").Number<pid_t>(1),
            .startTime = node.Required("start_time").Number<int64_t>(0),
            .attributes = {.policy = node.Required("policy").Number<uint32_t>(0, SCHED_DEADLINE),
                           .flags = node.Required("flags").Number<uint64_t>(0),
                           .nice = node.Required("nice").Number<int32_t>(-20, 19),
                           .priority = node.Required("priority").Number<uint32_t>(0, kHighestPriority),
                           .runtimeNs = node.Required("runtime").Number<uint64_t>(0),
                           .deadlineNs = node.Required("deadline").Number<uint64_t>(0),
                           .periodNs = node.Required("period").Number<uint64_t>(0)}};
}

json ToJson(const SuppressionRecord& suppression) {
    json threads = json::array();
    for (const ThreadPolicy& thread : suppression.threads) {
        threads.push_back(ToJson(thread));
    }
    json document{{"threads", std::move(threads)},
                  {"session", suppression.family.session},
                  {"process_group", suppression.family.processGroup},
                  {"since", suppression.family.since}};
    if (suppression.idleGroup) {
        document["idle_group"] = ToJson(*suppression.idleGroup);
    }
    return document;
}

SuppressionRecord ReadSuppression(const JsonNode& node) {
    SuppressionRecord suppression;
    suppression.idleGroup = ReadOptionalGroup(node.Optional("idle_group"));
    suppression.family = {.session = node.Required("session").Number<pid_t>(0),
                          .processGroup = node.Required("process_group").Number<pid_t>(0),
                          .since = node.Required("since").Number<int64_t>(0)};
    for (const JsonNode& thread : node.Required("threads").Elements()) {
        suppression.threads.push_back(ReadThreadPolicy(thread));
    }
    return suppression;
}

json ToJson(const FreezeRecord& freeze) {
    json document{{"was_stopped", freeze.wasStopped}};
    if (freeze.frozenGroup) {
        document["frozen_group"] = ToJson(*freeze.frozenGroup);
    }
    return document;
}

FreezeRecord ReadFreeze(const JsonNode& node) {
    return {ReadOptionalGroup(node.Optional("frozen_group")), node.Required("was_stopped").Bool(false)};
}

TreatmentRecord ReadWholeRecord(const JsonNode& node) {
    TreatmentRecord record;
    record.bootId = node.Required("boot_id").Text();
    record.pid = node.Required("pid").Number<pid_t>(2);
    record.startTime = node.Required("start_time").Number<int64_t>(0);
    record.processName = node.Required("process_name").Text();
    record.hostPid = node.Required("host_pid").Number<pid_t>(0);
    record.hostStartTime = node.Required("host_start_time").Number<int64_t>(0);
    for (const JsonNode& placement : node.Required("placements").Elements()) {
        record.placements.push_back(
            {ReadGroup(placement.Required("home")), ReadGroup(placement.Required("group"))});
    }
    if (const JsonNode suppression = node.Optional("suppression"); suppression.IsPresent()) {
        record.suppression = ReadSuppression(suppression);
    }
    if (const JsonNode freeze = node.Optional("freeze"); freeze.IsPresent()) {
        record.freeze = ReadFreeze(freeze);
    }
    return record;
}

}  // namespace

bool TreatmentRecord::IsOfAnotherLivingHost() const {
    if (hostPid == getpid() || bootId != CurrentBootId()) {
        return false;
    }
    const Result<ProcessStat> host = ReadProcessStat(hostPid);
    if (!host) {
        return !Is(host.Code(), ESRCH);
    }
    return !host->HasEnded() && host->startTime == hostStartTime;
}

std::string CurrentBootId() {
    constexpr size_t kBootIdLimit = 64;
    const std::string text = ReadFile("/proc/sys/kernel/random/boot_id", kBootIdLimit).ValueOr({});
    return text.substr(0, text.find('\n'));
}

TreatmentRecord RecordOfThisHost() {
    TreatmentRecord record;
    record.bootId = CurrentBootId();
    record.hostPid = getpid();
    record.hostStartTime = ReadProcessStat(getpid()).ValueOr({}).startTime;
    return record;
}

std::string WriteRecord(const TreatmentRecord& record) {
    json placements = json::array();
    for (const Placement& placement : record.placements) {
        placements.push_back({{"home", ToJson(placement.home)}, {"group", ToJson(placement.group)}});
    }
    json document{{"boot_id", record.bootId},           {"pid", record.pid},
                  {"start_time", record.startTime},     {"process_name", record.processName},
                  {"host_pid", record.hostPid},         {"host_start_time", record.hostStartTime},
                  {"placements", std::move(placements)}};
    if (record.suppression) {
        document["suppression"] = ToJson(*record.suppression);
    }
    if (record.freeze) {
        document["freeze"] = ToJson(*record.freeze);
    }
    return document.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

Result<TreatmentRecord> ReadRecord(const std::string& text) {
    return ReadJson(text, ReadWholeRecord);
}

bool GroupsArePlausible(const TreatmentRecord& record, const Cgroups& cgroups) {
    const bool placementsFit = std::ranges::all_of(record.placements, [&](const Placement& placement) {
        return cgroups.IsBelowRoot(placement.group) && placement.group == record.GroupBelow(placement.home);
    });
    const auto isBelow = [&](const std::optional<ChangedGroup>& changed) {
        return !changed || cgroups.IsBelowRoot(changed->group);
    };
    return placementsFit && (!record.suppression || isBelow(record.suppression->idleGroup)) &&
           (!record.freeze || isBelow(record.freeze->frozenGroup));
}

}  // namespace KITE::Linux
