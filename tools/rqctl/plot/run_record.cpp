#include "rqctl/plot/run_record.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <system_error>

#include "file_utils.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::json;

std::optional<int64_t> NumberAt(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_number_integer() ? std::optional(found->get<int64_t>())
                                                               : std::nullopt;
}

std::string TextAt(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::optional<int64_t> TimeAt(const json& object) {
    const std::optional<int64_t> time = NumberAt(object, "time");
    return time && *time >= 0 && *time <= Tools::kLatestMoment ? time : std::nullopt;
}

std::optional<int32_t> PidAt(const json& object, const char* key) {
    const std::optional<int64_t> pid = NumberAt(object, key);
    return pid && *pid > 0 && *pid <= std::numeric_limits<int32_t>::max()
               ? std::optional(static_cast<int32_t>(*pid))
               : std::nullopt;
}

std::optional<Treatment::Kind> KindOf(std::string_view name) {
    using enum Treatment::Kind;
    static constexpr std::array<std::pair<std::string_view, Treatment::Kind>, 6> kNames{{
        {"SUPPRESS", kSuppress},
        {"SUPPRESS_END", kSuppressEnd},
        {"FREEZE", kFreeze},
        {"THAW", kThaw},
        {"KILL", kKill},
        {"RELEASE", kRelease},
    }};
    const auto found = std::ranges::find(kNames, name, &decltype(kNames)::value_type::first);
    return found == kNames.end() ? std::nullopt : std::optional(found->second);
}

// False for a line that is no event.
bool TakeEvent(const json& event, RunRecord& record) {
    const std::optional<int64_t> time = TimeAt(event);
    if (!time || TextAt(event, "name").empty()) {
        return false;
    }
    const std::optional<Treatment::Kind> kind = KindOf(TextAt(event, "name"));
    const std::optional<int32_t> pid = PidAt(event, "PID");
    if (!kind || !pid || TextAt(event, "domain") != "KITE") {
        return true;
    }
    std::string detail = TextAt(event, "FORM");
    if (const std::string reason = TextAt(event, "REASON"); !reason.empty()) {
        detail += (detail.empty() ? "" : ": ") + reason;
    }
    record.processes[{*pid, TextAt(event, "PROCESS_NAME")}].treatments.push_back(
        {*time, *kind, NumberAt(event, "RESULT").value_or(0), std::move(detail)});
    record.isDryRun = record.isDryRun || event.value("DRY_RUN", json()) == true;
    return true;
}

std::map<std::string, std::vector<Quota>> QuotasOf(const json& sample) {
    std::map<std::string, std::vector<Quota>> quotas;
    const auto found = sample.find("quotas");
    if (found == sample.end() || !found->is_object()) {
        return quotas;
    }
    for (const auto& [resource, pairs] : found->items()) {
        std::vector<Quota>& own = quotas[resource];
        for (const json& pair : pairs) {
            if (pair.is_array() && pair.size() == 2 && pair[0].is_number_integer() &&
                pair[1].is_number_integer()) {
                own.push_back({pair[0].get<int64_t>(), pair[1].get<int64_t>()});
            }
        }
        std::ranges::sort(own);
        own.erase(std::unique(own.begin(), own.end()), own.end());
    }
    return quotas;
}

// False for a line that is no sample. Of processes that nothing was done to nothing is kept.
bool TakeSample(const json& line, RunRecord& record) {
    const std::optional<int64_t> time = TimeAt(line);
    const std::optional<int32_t> pid = PidAt(line, "pid");
    if (!time || !pid) {
        return false;
    }
    record.hasSamples = true;
    const auto process = record.processes.find({*pid, TextAt(line, "name")});
    if (process != record.processes.end()) {
        process->second.samples.push_back(
            {*time, NumberAt(line, "start").value_or(0), NumberAt(line, "cpu_ns").value_or(-1),
             NumberAt(line, "memory_kib").value_or(-1), NumberAt(line, "written_bytes").value_or(-1)});
        process->second.quotas = QuotasOf(line);
    }
    return true;
}

// False when neither file is there.
bool ReadLines(const std::string& path, RunRecord& record, bool (*take)(const json&, RunRecord&)) {
    bool isThere = false;
    for (const char* suffix : {".1", ""}) {
        std::string text;
        if (!LoadStringFromFile(path + suffix, text)) {
            continue;
        }
        isThere = true;
        for (std::string_view rest = text; !rest.empty();) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(rest.size(), line.size() + 1));
            const json object = json::parse(line, nullptr, false);
            if (!object.is_object() || !take(object, record)) {
                ++record.skippedLines;
            }
        }
    }
    return isThere;
}

}  // namespace

bool ReadRunRecord(const std::string& events, const std::string& samples, RunRecord& record,
                   std::string& error) {
    if (!ReadLines(events, record, TakeEvent)) {
        // Where nothing has happened yet there is no file.
        std::error_code failure;
        const bool isThere = std::filesystem::exists(events, failure);
        if (isThere || !std::filesystem::is_directory(std::filesystem::path(events).parent_path(), failure)) {
            error = events + ": cannot be read";
            return false;
        }
    }
    ReadLines(samples, record, TakeSample);
    // A wall clock may have been set back.
    for (auto& [key, process] : record.processes) {
        std::ranges::stable_sort(process.treatments, {}, &Treatment::time);
        std::ranges::stable_sort(process.samples, {}, &Sample::time);
    }
    return true;
}

}  // namespace KITE::Rqctl
