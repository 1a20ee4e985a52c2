#include "rqctl/check/rule_words.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "base/resource_types.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using Kelvra::ResQuotaInfo;

std::string AlternativeInWords(uint32_t mask) {
    static constexpr std::pair<uint32_t, const char*> kWords[] = {
        {1, "it is an application in the foreground"},
        {2, "it is an application in the background"},
        {8, "the screen is off"}};
    std::vector<std::string_view> words;
    for (const auto& [bit, text] : kWords) {
        if ((mask & bit) != 0) {
            words.emplace_back(text);
        }
    }
    return words.empty() ? "always" : fmt::format("{}", fmt::join(words, " and "));
}

std::string StagesInWords(int64_t duration) {
    const char* stages = duration <= kLongestStagedDuration
                             ? "at a second report within them frozen for 2 s, at a third killed"
                         : duration < kSuppressionSeconds
                             ? "at a second report within them frozen for 2 s; a third comes too late"
                             : "and again at each report, since the next one comes after them";
    return fmt::format(
        "it is suppressed for {} s, {}; nothing is done while it is in the foreground or has a "
        "visible window",
        kSuppressionSeconds, stages);
}

}  // namespace

std::string QuotaInWords(const ResQuotaInfo& rule) {
    const Linux::ResourceType* type = Linux::FindResourceType(rule.resType);
    if (type == nullptr) {
        return fmt::format("more than {}", rule.resource);
    }
    const auto bytes = static_cast<double>(rule.resource) * static_cast<double>(type->bytes);
    return fmt::format(
        "more than {} {}{} {}", rule.resource, type->measure,
        bytes >= 1024 ? fmt::format(" ({})", Tools::BytesText(bytes)) : std::string(),
        rule.duration > 0 ? fmt::format("{} {} s", type->span, rule.duration) : "between two samples");
}

std::string ConditionsInWords(const ResQuotaInfo& rule) {
    if (rule.conditions.empty() || Linux::IsStaged(rule.resType)) {
        return "always";
    }
    std::vector<std::string> alternatives;
    for (const uint32_t mask : rule.conditions) {
        if (!NeverHolds(mask)) {
            alternatives.push_back(AlternativeInWords(mask));
        }
    }
    if (alternatives == std::vector<std::string>{"always"}) {
        return "always";
    }
    return fmt::format("{}{}; always for an extension",
                       alternatives.empty() ? "never" : fmt::format("{}", fmt::join(alternatives, ", or ")),
                       alternatives.size() > 1 ? "; once for each that holds" : "");
}

std::string ActionInWords(const ResQuotaInfo& rule) {
    static constexpr std::pair<std::string_view, const char*> kWords[] = {
        {"warning", "the log says so, and nothing is done to it"},
        {"freeze", "it is frozen, until an administrator releases it or the service ends"},
        {"kill", "it is killed"}};
    if (Linux::IsStaged(rule.resType)) {
        return StagesInWords(rule.duration);
    }
    const auto* words = std::ranges::find(kWords, rule.action, [](const auto& word) { return word.first; });
    if (words == std::end(kWords)) {
        return "nothing, since this is not an action";
    }
    const Linux::ResourceType* type = Linux::FindResourceType(rule.resType);
    const bool isIo = type != nullptr && type->resource == Linux::Resource::kIo;
    return fmt::format("{}{}", words->second,
                       isIo ? "; not while it has a data-transfer task or an efficiency resource" : "");
}

}  // namespace KITE::Rqctl
