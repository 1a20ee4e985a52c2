#include "treatments/treatment_record.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

using nlohmann::json;

constexpr const char* kDirectoryName = "treated";
constexpr std::string_view kRecordSuffix = ".json";
constexpr const char* kUnfinishedName = ".unfinished";
constexpr off_t kLargestRecord = 16 << 20;
constexpr uint32_t kHighestPolicy = SCHED_DEADLINE;
constexpr int32_t kLowestNice = 19;
constexpr int32_t kHighestNice = -20;
constexpr uint32_t kHighestPriority = 99;

json ToJson(const Group& group) {
    return {{"hierarchy", group.hierarchy == Hierarchy::kUnified ? "unified" : "cpu"}, {"path", group.path}};
}

json ToJson(const ChangedGroup& changed) {
    return {{"group", ToJson(changed.group)},
            {"previous", changed.previous},
            {"previous_weight", changed.previousWeight}};
}

json ToJson(const ThreadPolicy& thread) {
    return {{"tid", thread.tid},           {"start_time", thread.startTime},
            {"policy", thread.policy},     {"flags", thread.flags},
            {"nice", thread.nice},         {"priority", thread.priority},
            {"runtime", thread.runtimeNs}, {"deadline", thread.deadlineNs},
            {"period", thread.periodNs}};
}

json ToJson(const Suppression& suppression) {
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

json ToJson(const Freeze& freeze) {
    json document{{"was_stopped", freeze.wasStopped}};
    if (freeze.frozenGroup) {
        document["frozen_group"] = ToJson(*freeze.frozenGroup);
    }
    return document;
}

const json* Member(const json& object, const char* key) {
    const auto member = object.find(key);
    return object.is_object() && member != object.end() ? &*member : nullptr;
}

bool Take(const json& object, const char* key, std::string& text) {
    const json* member = Member(object, key);
    const bool isText = member != nullptr && member->is_string();
    return isText && (text = member->get<std::string>(), true);
}

bool Take(const json& object, const char* key, bool& flag) {
    const json* member = Member(object, key);
    return member != nullptr && member->is_boolean() && (flag = member->get<bool>(), true);
}

template <typename Number>
bool Take(const json& object, const char* key, Number& number, Number lowest, Number highest) {
    const json* member = Member(object, key);
    if (member == nullptr || !member->is_number_integer()) {
        return false;
    }
    const bool isHuge = member->is_number_unsigned() && member->get<uint64_t>() > INT64_MAX;
    const int64_t value = member->get<int64_t>();
    if (isHuge || std::cmp_less(value, lowest) || std::cmp_greater(value, highest)) {
        return false;
    }
    number = static_cast<Number>(value);
    return true;
}

template <typename Number>
bool Take(const json& object, const char* key, Number& number) {
    return Take(object, key, number, Number{0}, std::numeric_limits<Number>::max());
}

bool Take(const json& object, const char* key, Group& group) {
    const json* member = Member(object, key);
    std::string hierarchy;
    if (member == nullptr || !Take(*member, "hierarchy", hierarchy) || !Take(*member, "path", group.path)) {
        return false;
    }
    group.hierarchy = hierarchy == "unified" ? Hierarchy::kUnified : Hierarchy::kCpuV1;
    return hierarchy == "unified" || hierarchy == "cpu";
}

bool IsFlag(const std::string& value) {
    return value == "0" || value == "1";
}

bool IsWeight(const std::string& value) {
    return value.empty() || (value.front() != '-' && ParseDecimal(value).has_value());
}

bool Take(const json& object, const char* key, ChangedGroup& changed) {
    const json* member = Member(object, key);
    return member != nullptr && Take(*member, "group", changed.group) &&
           Take(*member, "previous", changed.previous) && IsFlag(changed.previous) &&
           Take(*member, "previous_weight", changed.previousWeight) && IsWeight(changed.previousWeight);
}

bool Take(const json& document, ThreadPolicy& thread) {
    return Take(document, "tid", thread.tid, 1, std::numeric_limits<pid_t>::max()) &&
           Take(document, "start_time", thread.startTime) &&
           Take(document, "policy", thread.policy, 0U, kHighestPolicy) &&
           Take(document, "flags", thread.flags) &&
           Take(document, "nice", thread.nice, kHighestNice, kLowestNice) &&
           Take(document, "priority", thread.priority, 0U, kHighestPriority) &&
           Take(document, "runtime", thread.runtimeNs) && Take(document, "deadline", thread.deadlineNs) &&
           Take(document, "period", thread.periodNs);
}

// An optional part: true when it is not there, or is there and well formed.
template <typename Part, typename Parse>
bool TakeIfThere(const json& object, const char* key, std::optional<Part>& part, Parse parse) {
    return Member(object, key) == nullptr || parse(*Member(object, key), part.emplace());
}

bool TakeChangedGroup(const json& object, const char* key, std::optional<ChangedGroup>& changed) {
    return Member(object, key) == nullptr || Take(object, key, changed.emplace());
}

bool ParseSuppression(const json& document, Suppression& suppression) {
    const json* threads = Member(document, "threads");
    if (threads == nullptr || !threads->is_array() ||
        !TakeChangedGroup(document, "idle_group", suppression.idleGroup) ||
        !Take(document, "session", suppression.family.session) ||
        !Take(document, "process_group", suppression.family.processGroup) ||
        !Take(document, "since", suppression.family.since)) {
        return false;
    }
    return std::ranges::all_of(
        *threads, [&](const json& thread) { return Take(thread, suppression.threads.emplace_back()); });
}

bool ParseFreeze(const json& document, Freeze& freeze) {
    return Take(document, "was_stopped", freeze.wasStopped) &&
           TakeChangedGroup(document, "frozen_group", freeze.frozenGroup);
}

bool ParsePlacements(const json& document, std::vector<Placement>& placements) {
    const json* list = Member(document, "placements");
    if (list == nullptr || !list->is_array()) {
        return false;
    }
    return std::ranges::all_of(*list, [&](const json& item) {
        Placement& placement = placements.emplace_back();
        return Take(item, "home", placement.home) && Take(item, "group", placement.group);
    });
}

bool ParseWhole(const json& document, TreatmentRecord& record) {
    return Take(document, "boot_id", record.bootId) &&
           Take(document, "pid", record.pid, 2, std::numeric_limits<pid_t>::max()) &&
           Take(document, "start_time", record.startTime) &&
           Take(document, "process_name", record.processName) && Take(document, "host_pid", record.hostPid) &&
           Take(document, "host_start_time", record.hostStartTime) &&
           ParsePlacements(document, record.placements) &&
           TakeIfThere(document, "suppression", record.suppression, ParseSuppression) &&
           TakeIfThere(document, "freeze", record.freeze, ParseFreeze);
}

// The directory, made when it is not there. Not open, with errno set, when it is not what it must be: EACCES
// for another user's.
UniqueFd OpenDirectory(const std::string& stateDirectory) {
    const UniqueFd state(open(stateDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!state || (mkdirat(state.Get(), kDirectoryName, 0700) != 0 && errno != EEXIST)) {
        return {};
    }
    UniqueFd directory(openat(state.Get(), kDirectoryName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory || fstat(directory.Get(), &status) != 0) {
        return {};
    }
    const bool isOurs = geteuid() == 0 || status.st_uid == geteuid();
    if (!isOurs || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        errno = EACCES;
        return {};
    }
    return directory;
}

// The hosts of a system share the state directory, and only one of them treats processes.
bool IsOfAnotherUser(const std::string& path) {
    struct stat status {};
    return geteuid() != 0 && lstat(path.c_str(), &status) == 0 && status.st_uid != geteuid();
}

int WriteWhole(int directory, const char* name, const std::string& text) {
    const UniqueFd file(
        openat(directory, name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) {
        return errno;
    }
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(file.Get(), text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        done += count < 0 ? 0 : static_cast<size_t>(count);
    }
    return 0;
}

// 0 or an error number; EBADMSG for what no record can be in.
int ReadWhole(int directory, const char* name, std::string& text) {
    const UniqueFd file(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        const bool isOfOtherKind = errno == ELOOP || errno == ENXIO;
        return isOfOtherKind ? EBADMSG : errno;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kLargestRecord) {
        return EBADMSG;
    }
    text.resize(static_cast<size_t>(status.st_size));
    const ssize_t count = pread(file.Get(), text.data(), text.size(), 0);
    return count == status.st_size ? 0 : (count < 0 ? errno : EIO);
}

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

int ReadNames(int directory, std::vector<std::string>& names) {
    const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, DirectoryCloser> list(own >= 0 ? fdopendir(own) : nullptr);
    if (!list) {
        const int error = errno;
        const UniqueFd unused(own);
        return error;
    }
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this function's own.
    while (const dirent* entry = readdir(list.get())) {
        names.emplace_back(entry->d_name);
        errno = 0;
    }
    const int error = errno;
    std::erase_if(names, [](const std::string& name) { return name.starts_with('.'); });
    return error;
}

std::string FileNameOf(const TreatmentRecord& record) {
    return record.Key() + std::string(kRecordSuffix);
}

}  // namespace

std::string CurrentBootId() {
    constexpr size_t kBootIdLimit = 64;
    const std::string text = ReadFile("/proc/sys/kernel/random/boot_id", kBootIdLimit).ValueOr({});
    return text.substr(0, text.find('\n'));
}

bool TreatmentRecord::IsInOtherHands() const {
    if (hostPid == getpid() || bootId != CurrentBootId()) {
        return false;
    }
    const Result<ProcessStat> host = ReadProcessStat(hostPid);
    if (!host) {
        return host.Code() != ErrorOf(ESRCH);
    }
    return !host->HasEnded() && host->startTime == hostStartTime;
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

std::optional<TreatmentRecord> ParseRecord(const std::string& text) {
    const json document = json::parse(text, nullptr, false);
    TreatmentRecord record;
    if (!ParseWhole(document, record)) {
        return std::nullopt;
    }
    if (record.suppression) {
        record.suppression->family.pid = record.pid;
    }
    return record;
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

int RecordStore::Write(const TreatmentRecord& record) const {
    const UniqueFd directory = OpenDirectory(stateDirectory_);
    if (!directory) {
        return errno;
    }
    if (const int error = WriteWhole(directory.Get(), kUnfinishedName, WriteRecord(record)); error != 0) {
        unlinkat(directory.Get(), kUnfinishedName, 0);
        return error;
    }
    const std::string name = FileNameOf(record);
    return renameat(directory.Get(), kUnfinishedName, directory.Get(), name.c_str()) == 0 ? 0 : errno;
}

int RecordStore::Remove(const TreatmentRecord& record) const {
    const UniqueFd directory = OpenDirectory(stateDirectory_);
    const std::string name = FileNameOf(record);
    return directory && (unlinkat(directory.Get(), name.c_str(), 0) == 0 || errno == ENOENT) ? 0 : errno;
}

int RecordStore::SetAside(const std::string& name) const {
    const UniqueFd directory = OpenDirectory(stateDirectory_);
    const std::string aside = "." + name + ".bad";
    const bool isDone =
        directory && renameat(directory.Get(), name.c_str(), directory.Get(), aside.c_str()) == 0;
    return isDone ? 0 : errno;
}

RecordStore::Left RecordStore::ReadAll(const Cgroups& cgroups) const {
    Left left;
    const std::string path = stateDirectory_ + "/" + kDirectoryName;
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        return left;
    }
    const UniqueFd directory = OpenDirectory(stateDirectory_);
    if (!directory) {
        left.error = IsOfAnotherUser(path) ? 0 : errno;
        return left;
    }
    std::vector<std::string> names;
    left.error = ReadNames(directory.Get(), names);
    const std::string bootId = CurrentBootId();
    for (const std::string& name : names) {
        std::string text;
        const int error = ReadWhole(directory.Get(), name.c_str(), text);
        std::optional<TreatmentRecord> record = error == 0 ? ParseRecord(text) : std::nullopt;
        if (error != 0 && error != EBADMSG) {
            left.unclear.emplace_back(name, error);
        } else if (!record || FileNameOf(*record) != name) {
            left.malformed.push_back(name);
        } else if (record->bootId == bootId && !GroupsArePlausible(*record, cgroups)) {
            left.unclear.emplace_back(name, ENODEV);
        } else {
            left.records.push_back(std::move(*record));
        }
    }
    return left;
}

}  // namespace KITE::Linux
