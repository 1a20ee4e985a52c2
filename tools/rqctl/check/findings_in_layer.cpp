#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <numeric>
#include <utility>

#include "base/resource_types.h"
#include "base/text.h"
#include "process_quotas.h"
#include "rqctl/check/findings.h"
#include "rqctl/check/rule_words.h"

namespace KITE::Rqctl {

namespace {

using Linux::ResourceType;
using ResourceQuotaCtl::kConditionBits;
using Names = std::vector<std::string_view>;

constexpr const char* kString = "a string";
constexpr const char* kInt32 = "an integer from -2147483648 to 2147483647";
constexpr const char* kInt64 = "at most 9223372036854775807";
constexpr const char* kInteger = "an integer (no fraction, exponent or quotation marks)";

size_t EditDistance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

// The names, and which of them may have been meant.
std::string AllowedOf(const Names& names, std::string_view written) {
    constexpr size_t kLongestWord = 64;
    std::string word(written.substr(0, kLongestWord));
    std::ranges::transform(word, word.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto distance = [&](std::string_view name) { return EditDistance(word, name); };
    const auto nearest = std::ranges::min_element(names, {}, distance);
    const bool isNear = distance(*nearest) <= (nearest->size() + 1) / 2 || word.starts_with(*nearest);
    return fmt::format("{}{}", fmt::join(names, ", "),
                       isNear ? fmt::format(" (nearest: {})", *nearest) : std::string());
}

using IsOfType = bool (JsonValue::*)() const;

// Whether the value is of the type that the service requires; else that is an error.
bool Require(const JsonValue& value, IsOfType isOfType, const char* type, Findings& findings) {
    const bool isRight = (value.*isOfType)();
    if (!isRight) {
        findings.Error(value, value.Excerpt(), type);
    }
    return isRight;
}

// A key that begins with $ is a note of tools, such as "$schema".
void WarnOfOtherKeys(const JsonValue& object, const Names& keys, Findings& findings) {
    for (const JsonValue& member : object.children) {
        if (!member.key.starts_with('$') && std::ranges::find(keys, member.key) == keys.end()) {
            findings.WarnAtKey(member, "the key is ignored", AllowedOf(keys, member.key));
        }
    }
}

// A key of an object; all are required. `check` looks into a value of the right type.
template <typename... Context>
struct Key {
    std::string_view name;
    IsOfType isOfType;
    const char* type;
    void (*check)(const JsonValue& value, Findings& findings, const Context&... context);
};

// An object with these keys, each of its type.
template <size_t N, typename... Context>
void CheckObject(const JsonValue& object, const Key<Context...> (&keys)[N], Findings& findings,
                 const Context&... context) {
    if (!Require(object, &JsonValue::IsObject, "an object", findings)) {
        return;
    }
    Names names;
    for (const auto& [name, isOfType, type, check] : keys) {
        names.push_back(name);
        const JsonValue* value = object.Find(name);
        if (value == nullptr) {
            findings.Error(object, fmt::format("\"{}\" is missing", name), type);
        } else if (Require(*value, isOfType, type, findings)) {
            check(*value, findings, context...);
        }
    }
    WarnOfOtherKeys(object, names, findings);
}

// The number as the service reads it; warns where that is another one.
template <typename T>
T CutTo(const JsonValue& value, const char* allowed, Findings& findings) {
    const auto cut = static_cast<T>(value.number);
    if (cut != value.number || value.isCut) {
        findings.Warn(value, fmt::format("{} is cut to {}", value.Excerpt(), cut), allowed);
    }
    return cut;
}

// Of members of the same key, the last is the one that counts.
void CheckForRepeatedKeys(const JsonValue& value, Findings& findings) {
    for (const JsonValue& child : value.children) {
        if (value.IsObject() && value.Find(child.key) != &child) {
            findings.WarnAtKey(child, "the key is repeated below, and the last one counts", "each key once");
        }
        CheckForRepeatedKeys(child, findings);
    }
}

void CheckId(const JsonValue& id, Findings& findings, const ResourceType& /*type*/) {
    CutTo<int32_t>(id, kInt32, findings);
}

void CheckQuota(const JsonValue& value, Findings& findings, const ResourceType& type) {
    const int64_t quota = CutTo<int64_t>(value, kInt64, findings);
    const std::string allowed = fmt::format("0 to {} {}", type.mostPossible - 1, type.unit);
    if (quota < 0) {
        findings.Warn(value, fmt::format("every process exceeds {} at all times", quota), allowed);
    } else if (quota >= type.mostPossible) {
        findings.Warn(value, fmt::format("{} {} can never be exceeded", quota, type.unit), allowed);
    }
}

void CheckDuration(const JsonValue& value, Findings& findings, const ResourceType& type) {
    const int64_t duration = CutTo<int64_t>(value, kInt64, findings);
    if (duration <= 0) {
        findings.Warn(value, fmt::format("{} means the time between two samples", duration),
                      "1 second and more");
    } else if (type.isStaged && duration > kLongestStagedDuration) {
        findings.Warn(
            value,
            fmt::format("with {} s the stages do not follow each other within {} s: the process is {}",
                        duration, kSuppressionSeconds,
                        duration < kSuppressionSeconds
                            ? "frozen, but then suppressed again instead of killed"
                            : "suppressed again and again, never frozen or killed"),
            fmt::format("1 or {} seconds", kLongestStagedDuration));
    } else if (duration > kLongestDuration) {
        findings.Warn(value, fmt::format("{} s are cut to {}", duration, kLongestDuration),
                      fmt::format("up to {} seconds", kLongestDuration));
    }
}

void CheckAction(const JsonValue& value, Findings& findings, const ResourceType& type) {
    static const Names kActions{"warning", "freeze", "kill"};
    const std::string& action = value.text;
    if (type.isStaged && !action.empty()) {
        findings.Warn(value, value.Excerpt() + " is ignored: the staged treatment has no action", "\"\"");
    } else if (!type.isStaged && std::ranges::find(kActions, action) == kActions.end()) {
        findings.Warn(value, value.Excerpt() + " is not an action, so nothing is done",
                      AllowedOf(kActions, action));
    }
}

// Returns the mask of the condition's bits.
uint32_t CheckCondition(const JsonValue& condition, Findings& findings) {
    Names names;
    for (const auto& [name, bit] : kConditionBits) {
        names.push_back(name);
    }
    uint32_t mask = 0;
    for (const std::string_view name : Linux::Split(condition.text, '&')) {
        const auto known = std::ranges::find(names, name);
        if (known == names.end()) {
            findings.Warn(condition, nlohmann::json(name).dump() + " is not a condition and is ignored",
                          AllowedOf(names, name));
        } else {
            mask |= kConditionBits[static_cast<size_t>(known - names.begin())].second;
        }
    }
    if (mask == 0) {
        findings.Warn(condition, condition.Excerpt() + " contains no condition, so it always holds",
                      fmt::format("{}", fmt::join(names, ", ")));
    } else if (NeverHolds(mask)) {
        findings.Warn(condition, condition.Excerpt() + " never holds",
                      "conditions without audio, and not foreground and background together");
    }
    return mask;
}

// Of two alternatives of which one holds wherever the other does.
void CheckForSecondMatch(const JsonValue& condition, uint32_t mask, const std::vector<uint32_t>& before,
                         Findings& findings) {
    const auto found = std::ranges::find_if(before, [mask](uint32_t other) {
        const bool isOneInOther = (mask & other) == mask || (mask & other) == other;
        return isOneInOther && !NeverHolds(mask | other);
    });
    if (found != before.end()) {
        findings.Warn(condition,
                      fmt::format("{} holds together with alternative {}, and the action then runs twice",
                                  condition.Excerpt(), found - before.begin()),
                      "alternatives that do not imply each other");
    }
}

void CheckConditions(const JsonValue& conditions, Findings& findings, const ResourceType& type) {
    if (type.isStaged && !conditions.children.empty()) {
        findings.Warn(conditions, "conditions are ignored: the staged treatment has none", "[]");
    }
    std::vector<uint32_t> masks;
    for (const JsonValue& condition : conditions.children) {
        if (Require(condition, &JsonValue::IsString, kString, findings) && !type.isStaged) {
            const uint32_t mask = CheckCondition(condition, findings);
            CheckForSecondMatch(condition, mask, masks, findings);
            masks.push_back(mask);
        }
    }
}

constexpr Key<ResourceType> kRuleKeys[] = {
    {"condition", &JsonValue::IsArray, "a list of strings", CheckConditions},
    {"id", &JsonValue::IsInteger, kInteger, CheckId},
    {"resource_quota", &JsonValue::IsInteger, kInteger, CheckQuota},
    {"duration", &JsonValue::IsInteger, kInteger, CheckDuration},
    {"action", &JsonValue::IsString, kString, CheckAction},
};

void CheckRules(const JsonValue& rules, Findings& findings, const ResourceType& type) {
    if (!rules.IsArray()) {
        findings.Warn(rules, rules.Excerpt() + " counts as an empty list", "a list of rules");
        return;
    }
    for (const JsonValue& rule : rules.children) {
        CheckObject(rule, kRuleKeys, findings, type);
    }
}

void CheckRunningTime(const JsonValue& value, Findings& findings) {
    constexpr const char* kAllowed = "an integer from 1 to 2147483647";
    if (!value.IsInteger()) {
        findings.Warn(value, value.Excerpt() + " is not an integer and counts as 0", kAllowed);
        return;
    }
    const int32_t time = CutTo<int32_t>(value, kInt32, findings);
    if (time == 0) {
        findings.Warn(value, "0 counts as a missing key: the template's running time is inherited", kAllowed);
    } else if (time < 0) {
        findings.Warn(value, fmt::format("{} is not handed out: only times from 1 on are", time), kAllowed);
    }
}

void CheckProcessQuotas(const JsonValue& quotas, Findings& findings) {
    constexpr std::string_view kRunningTime = "running_time";
    Names keys;
    for (const ResourceType& type : Linux::kResourceTypes) {
        keys.push_back(type.name);
        if (const JsonValue* rules = quotas.Find(type.name)) {
            CheckRules(*rules, findings, type);
        }
    }
    keys.push_back(kRunningTime);
    WarnOfOtherKeys(quotas, keys, findings);
    if (const JsonValue* time = quotas.Find(kRunningTime)) {
        CheckRunningTime(*time, findings);
    }
}

// What a name means is seen between the elements.
void AcceptName(const JsonValue& /*name*/, Findings& /*findings*/) {}

constexpr Key<> kElementKeys[] = {
    {"process_name", &JsonValue::IsString, kString, AcceptName},
    {"inherit", &JsonValue::IsString, "a string, \"\" for no parent", AcceptName},
    {"process_quotas", &JsonValue::IsObject, "an object", CheckProcessQuotas},
};

void CheckElements(const JsonValue& quotas, Findings& findings) {
    for (const JsonValue& element : quotas.children) {
        CheckObject(element, kElementKeys, findings);
    }
}

constexpr Key<> kRootKeys[] = {{"quotas", &JsonValue::IsArray, "a list", CheckElements}};

}  // namespace

void CheckLayer(const Layer& layer, Findings& findings) {
    if (const auto& fault = layer.fault) {
        findings.all.push_back({Severity::kError, &layer.root, fault->offset, fault->found, fault->allowed});
        return;
    }
    CheckForRepeatedKeys(layer.root, findings);
    CheckObject(layer.root, kRootKeys, findings);
}

}  // namespace KITE::Rqctl
