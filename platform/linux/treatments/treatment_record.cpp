#include "treatments/treatment_record.h"

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

Group ReadGroup(const JsonNode& node) {
    const std::string name = node.Required("hierarchy").Text();
    if (name != kUnifiedName && name != kCpuV1Name) {
        node.Required("hierarchy").Fail("names no hierarchy");
    }
    return {name == kCpuV1Name ? Hierarchy::kCpuV1 : Hierarchy::kUnified, node.Required("path").Text()};
}

Placement ReadPlacement(const JsonNode& node) {
    return {ReadGroup(node.Required("home")), ReadGroup(node.Required("group"))};
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

SuppressionRecord ReadSuppression(const JsonNode& node) {
    return {.idleGroup = ReadOptional(node.Optional("idle_group"), ReadChangedGroup),
            .threads = ReadList(node.Required("threads"), ReadThreadPolicy),
            .family = {.session = node.Required("session").Number<pid_t>(0),
                       .processGroup = node.Required("process_group").Number<pid_t>(0),
                       .since = node.Required("since").Number<int64_t>(0)}};
}

FreezeRecord ReadFreeze(const JsonNode& node) {
    return {ReadOptional(node.Optional("frozen_group"), ReadChangedGroup),
            node.Required("was_stopped").Bool(false)};
}

TreatmentRecord ReadWholeRecord(const JsonNode& node) {
    TreatmentRecord record;
    record.bootId = node.Required("boot_id").Text();
    record.pid = node.Required("pid").Number<pid_t>(2);
    record.startTime = node.Required("start_time").Number<int64_t>(0);
    record.processName = node.Required("process_name").Text();
    record.hostPid = node.Required("host_pid").Number<pid_t>(0);
    record.hostStartTime = node.Required("host_start_time").Number<int64_t>(0);
    record.placements = ReadList(node.Required("placements"), ReadPlacement);
    record.suppression = ReadOptional(node.Optional("suppression"), ReadSuppression);
    record.freeze = ReadOptional(node.Optional("freeze"), ReadFreeze);
    return record;
}

// A part that is absent has no key.
template <typename Part>
void Add(json& document, const char* key, const std::optional<Part>& part) {
    if (part) {
        document[key] = *part;
    }
}

}  // namespace

// The JSON library finds these by their name, in the namespace of what they write.

static void to_json(json& document, const Group& group) {
    const bool isUnified = group.hierarchy == Hierarchy::kUnified;
    document = {{"hierarchy", isUnified ? kUnifiedName : kCpuV1Name}, {"path", group.path}};
}

static void to_json(json& document, const Placement& placement) {
    document = {{"home", placement.home}, {"group", placement.group}};
}

static void to_json(json& document, const ChangedGroup& changed) {
    document = {{"group", changed.group},
                {"previous", changed.previous},
                {"previous_weight", changed.previousWeight}};
}

static void to_json(json& document, const ThreadPolicy& thread) {
    const auto& [size, policy, flags, nice, priority, runtimeNs, deadlineNs, periodNs] = thread.attributes;
    document = {{"tid", thread.tid},    {"start_time", thread.startTime},
                {"policy", policy},     {"flags", flags},
                {"nice", nice},         {"priority", priority},
                {"runtime", runtimeNs}, {"deadline", deadlineNs},
                {"period", periodNs}};
}

static void to_json(json& document, const SuppressionRecord& suppression) {
    const auto& [session, processGroup, since] = suppression.family;
    document = {{"threads", suppression.threads},
                {"session", session},
                {"process_group", processGroup},
                {"since", since}};
    Add(document, "idle_group", suppression.idleGroup);
}

static void to_json(json& document, const FreezeRecord& freeze) {
    document = {{"was_stopped", freeze.wasStopped}};
    Add(document, "frozen_group", freeze.frozenGroup);
}

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

std::vector<Group> TreatmentRecord::GroupsInUse() const {
    std::vector<Group> groups;
    if (suppression && suppression->idleGroup) {
        groups.push_back(suppression->idleGroup->group);
    }
    if (freeze && freeze->frozenGroup) {
        groups.push_back(freeze->frozenGroup->group);
    }
    return groups;
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
    json document{{"boot_id", record.bootId},       {"pid", record.pid},
                  {"start_time", record.startTime}, {"process_name", record.processName},
                  {"host_pid", record.hostPid},     {"host_start_time", record.hostStartTime},
                  {"placements", record.placements}};
    Add(document, "suppression", record.suppression);
    Add(document, "freeze", record.freeze);
    return document.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

Result<TreatmentRecord> ReadRecord(const std::string& text) {
    return ReadJson(text, ReadWholeRecord);
}

bool GroupsArePlausible(const TreatmentRecord& record, const Cgroups& cgroups) {
    const auto fits = [&](const Placement& placement) {
        return cgroups.IsBelowRoot(placement.group) && placement.group == record.GroupBelow(placement.home);
    };
    const auto isBelow = [&](const Group& group) { return cgroups.IsBelowRoot(group); };
    return std::ranges::all_of(record.placements, fits) && std::ranges::all_of(record.GroupsInUse(), isBelow);
}

}  // namespace KITE::Linux
