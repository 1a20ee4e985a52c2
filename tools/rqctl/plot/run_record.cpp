#include "rqctl/plot/run_record.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "base/file.h"
#include "base/json_node.h"
#include "base/text.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using Linux::JsonNode;
using Linux::ResourceType;

// A line of the samples file, whose form docs/linux.md describes.
struct SampleLine {
    int32_t pid = 0;
    std::string name;
    Sample sample;
    Quotas quotas;
};

Quota ReadQuota(const JsonNode& pair) {
    const std::vector<JsonNode> numbers = pair.Elements();
    if (numbers.size() != 2) {
        pair.Fail("must be a limit and a duration");
        return {};
    }
    return {numbers[0].Number(INT64_MIN), numbers[1].Number(INT64_MIN)};
}

Quotas ReadQuotas(const JsonNode& node) {
    Quotas quotas;
    for (const auto& [name, pairs] : node.Members()) {
        const ResourceType* type = Linux::FindResourceType(name);
        if (type == nullptr) {
            pairs.Fail("unknown resource type");
        }
        for (const JsonNode& pair : pairs.Elements()) {
            quotas[type].insert(ReadQuota(pair));
        }
    }
    return quotas;
}

SampleLine ReadSample(const JsonNode& node) {
    SampleLine line;
    line.pid = node.Required("pid").Number<int32_t>(1);
    line.name = node.Optional("name").Text();
    line.sample.time = node.Required("time").Number<int64_t>(0, Tools::kLatestMoment);
    line.sample.start = node.Optional("start").Number<int64_t>(0);
    std::ranges::transform(Linux::kResourceTypes, line.sample.values.begin(), [&](const ResourceType& type) {
        return node.Optional(type.sampleKey).Number<int64_t>(-1);
    });
    line.quotas = ReadQuotas(node.Optional("quotas"));
    return line;
}

void Take(const Tools::Event& event, RunRecord& record) {
    if (const TreatmentKind* kind = FindTreatmentKind(event)) {
        const char* separator = event.form.empty() || event.reason.empty() ? "" : ": ";
        record.processes[{event.pid, event.processName}].treatments.push_back(
            {event.time, kind, event.result, event.form + separator + event.reason});
        record.isDryRun = record.isDryRun || event.isDryRun;
    }
}

// Keeps nothing of processes that nothing was done to.
void Take(const SampleLine& line, RunRecord& record) {
    record.hasSamples = true;
    const auto process = record.processes.find({line.pid, line.name});
    if (process != record.processes.end()) {
        process->second.samples.push_back(line.sample);
        process->second.quotas = line.quotas;
    }
}

// The failure is that of the file itself; there may be no predecessor.
template <typename Reader>
std::error_code ReadLines(const std::string& path, Reader read, RunRecord& record) {
    std::error_code error;
    for (const char* suffix : {".1", ""}) {
        const Linux::Result<std::string> text = Linux::ReadFile(path + suffix);
        error = text.Code();
        for (const std::string_view line : Linux::Split(text ? *text : std::string_view(), '\n')) {
            if (const auto content = Linux::ReadJson(line, read)) {
                Take(*content, record);
            } else {
                ++record.skippedLines;
            }
        }
    }
    return error;
}

}  // namespace

Linux::Result<RunRecord> ReadRunRecord(const std::string& events, const std::string& samples) {
    RunRecord record;
    const std::error_code error = ReadLines(events, Tools::ReadEvent, record);
    std::error_code ignored;
    const bool isDirectory =
        std::filesystem::is_directory(std::filesystem::path(events).parent_path(), ignored);
    // There is no events file where nothing has happened yet.
    if (error && !(Linux::Is(error, ENOENT) && isDirectory)) {
        return Linux::Failure(events, error);
    }
    ReadLines(samples, ReadSample, record);
    // A wall clock may have been set back.
    for (auto& [key, process] : record.processes) {
        std::ranges::stable_sort(process.treatments, {}, &Treatment::time);
        std::ranges::stable_sort(process.samples, {}, &Sample::time);
    }
    return record;
}

}  // namespace KITE::Rqctl
