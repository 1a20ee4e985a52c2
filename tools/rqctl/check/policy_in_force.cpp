#include "rqctl/check/policy_in_force.h"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "res_policy_manager.h"
#include "rqctl/check/quiet_log.h"
#include "rqctl/check/units.h"

namespace KITE::Rqctl {

namespace {

// The rules are the policy's reading of the files, their places that of the check.
constexpr const char* kFilesChanged = "the quota files changed while they were read; try again";

using Kelvra::ResQuotaInfo;
using ResourceQuotaCtl::ResPolicyManager;

const JsonValue* QuotasOf(const Entry& entry) {
    return entry.record->value->Find("process_quotas");
}

bool HasRunningTime(const Entry* entry) {
    const JsonValue* time = QuotasOf(*entry)->Find("running_time");
    return time != nullptr && time->IsInteger() && static_cast<int32_t>(time->number) != 0;
}

// "65536 KiB (64 MiB)": with the largest unit of which there is at least one.
std::string Amount(int64_t amount, std::string_view unit, size_t prefix) {
    static constexpr std::string_view kPrefixes[] = {"", "Ki", "Mi", "Gi", "Ti", "Pi", "Ei"};
    std::string text = std::to_string(amount) + ' ' + std::string(unit);
    const size_t given = prefix;
    auto larger = static_cast<double>(amount);
    for (; larger >= 1024 && prefix + 1 < std::size(kPrefixes); ++prefix) {
        larger /= 1024;
    }
    if (prefix != given) {
        std::ostringstream rounded;
        rounded << std::setprecision(3) << larger;
        text += " (" + rounded.str() + ' ' + std::string(kPrefixes[prefix]) + "B)";
    }
    return text;
}

std::string Within(const ResQuotaInfo& record, const char* duration, const char* sample) {
    return record.duration > 0 ? duration + std::to_string(record.duration) + " s" : sample;
}

std::string AlternativeInWords(uint32_t mask) {
    static constexpr std::pair<uint32_t, const char*> kWords[] = {
        {1, "it is an application in the foreground"},
        {2, "it is an application in the background"},
        {8, "the screen is off"}};
    std::string words;
    for (const auto& [bit, text] : kWords) {
        if ((mask & bit) != 0) {
            words += (words.empty() ? "" : " and ") + std::string(text);
        }
    }
    return words.empty() ? "always" : words;
}

}  // namespace

ExplainedPolicy::ExplainedPolicy(const std::vector<Layer>& layers) : merged_(layers) {
    const QuietLog quiet;
    std::vector<std::string> files;
    files.reserve(layers.size());
    for (const Layer& layer : layers) {
        files.push_back(layer.path);
    }
    ResPolicyManager policy;
    isAccepted_ = policy.InitFromFiles(files);
    policy.GetAllResQuotaInfos(records_);
    runningTimes_ = policy.GetExtensionRunningTime();
}

Explanation ExplainedPolicy::Explain(const std::string& name) const {
    Explanation explanation;
    if (!isAccepted_) {
        return explanation;
    }
    for (const Entry* entry = merged_.Find(name); entry != nullptr; entry = merged_.ParentOf(*entry)) {
        explanation.line.push_back(entry);
    }
    size_t index = 0;
    for (const ResQuotaInfo& record : records_) {
        if (record.processName == name) {
            const auto& rules = explanation.rules;
            index = !rules.empty() && rules.back().record.resType == record.resType ? index + 1 : 0;
            explanation.rules.push_back({record, OriginOf(explanation, record, index)});
        }
    }
    if (const auto time = runningTimes_.find(name); time != runningTimes_.end()) {
        explanation.runningTime = time->second;
        const auto entry = std::ranges::find_if(explanation.line, HasRunningTime);
        if (entry == explanation.line.end()) {
            throw std::runtime_error(kFilesChanged);
        }
        explanation.runningTimeOrigin = {(*entry)->record, QuotasOf(**entry)->Find("running_time")};
    }
    return explanation;
}

// Lists are inherited whole, so the record's rule is the one of its place in the first list found.
Origin ExplainedPolicy::OriginOf(const Explanation& explanation, const ResQuotaInfo& record, size_t index) {
    for (const Entry* entry : explanation.line) {
        if (const JsonValue* rules = QuotasOf(*entry)->Find(record.resType)) {
            return {entry->record, &rules->children.at(index)};
        }
    }
    throw std::runtime_error(kFilesChanged);
}

std::string LimitInWords(const ResQuotaInfo& record) {
    if (record.resType == "mem") {
        return "more than " + Amount(record.resource, "KiB", 1) + " of memory" +
               Within(record, " in every sample for ", " in a sample");
    }
    if (record.resType == "io") {
        return "more than " + Amount(record.resource, "bytes", 0) + " sent to storage" +
               Within(record, " in the last ", " between two samples");
    }
    return "more than " + std::to_string(record.resource) + " % of one core" +
           Within(record, " over the last ", " between two samples");
}

std::string ConditionsInWords(const ResQuotaInfo& record) {
    if (record.conditions.empty() || UnitOf(record.resType).isStaged) {
        return "always";
    }
    std::vector<uint32_t> possible;
    std::ranges::remove_copy_if(record.conditions, std::back_inserter(possible), NeverHolds);
    if (possible == std::vector<uint32_t>{0}) {
        return "always";
    }
    std::string words;
    for (const uint32_t mask : possible) {
        words += (words.empty() ? "" : ", or ") + AlternativeInWords(mask);
    }
    return (words.empty() ? "never" : words) + (possible.size() > 1 ? "; once for each that holds" : "") +
           "; always for an extension";
}

std::string ActionInWords(const ResQuotaInfo& record) {
    if (UnitOf(record.resType).isStaged) {
        const char* stages = record.duration <= kLongestStagedDuration
                                 ? "at a second report within them frozen for 2 s, at a third killed"
                             : record.duration < kSuppressionSeconds
                                 ? "at a second report within them frozen for 2 s; a third comes too late"
                                 : "and again with each report: a second within them is too early to come";
        return std::string("it is suppressed for 6 s, ") + stages +
               "; left alone in the foreground or with a visible window";
    }
    const std::string unless =
        record.resType == "io" ? "; not while it has a data-transfer task or an efficiency resource" : "";
    if (record.action == "warning") {
        return "the log says so, and it is left alone" + unless;
    }
    if (record.action == "freeze") {
        return "it is frozen, until an administrator or the end of the service lets it go" + unless;
    }
    return record.action == "kill" ? "it is killed" + unless : "nothing, since that is no action";
}

}  // namespace KITE::Rqctl
