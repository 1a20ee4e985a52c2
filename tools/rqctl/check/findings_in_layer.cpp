#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <numeric>
#include <optional>
#include <set>
#include <utility>

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

// A value and the JSON pointer to it.
struct Node {
    const JsonValue* value;
    std::string pointer;

    Node Member(const JsonValue& member) const { return {&member, Below(pointer, member.key)}; }
    Node Element(size_t index) const { return {&value->children[index], Below(pointer, index)}; }
};

// Collects the findings in one layer.
class LayerFindings {
  public:
    LayerFindings(const Layer& layer, std::vector<Finding>& findings) : layer_(layer), findings_(findings) {}

    void Error(const Node& node, std::string found, std::string allowed) {
        Add(Severity::kError, node, node.value->begin, std::move(found), std::move(allowed));
    }
    void Warn(const Node& node, std::string found, std::string allowed) {
        Add(Severity::kWarning, node, node.value->begin, std::move(found), std::move(allowed));
    }
    void WarnAtKey(const Node& node, std::string found, std::string allowed) {
        Add(Severity::kWarning, node, node.value->keyBegin, std::move(found), std::move(allowed));
    }
    std::string Excerpt(const Node& node) const { return layer_.json.Excerpt(*node.value); }

    bool RequireObject(const Node& node) {
        if (!node.value->IsObject()) {
            Error(node, Excerpt(node), "an object");
        }
        return node.value->IsObject();
    }

    // The member, when it is there and of the type that the service requires; else that is an error.
    std::optional<Node> Require(const Node& object, std::string_view key, bool (JsonValue::*isOfType)() const,
                                const char* type) {
        const JsonValue* member = object.value->Find(key);
        if (member == nullptr) {
            Error(object, fmt::format("\"{}\" is missing", key), type);
            return std::nullopt;
        }
        Node node = object.Member(*member);
        if (!(member->*isOfType)()) {
            Error(node, Excerpt(node), type);
            return std::nullopt;
        }
        return node;
    }

    // A key that begins with $ is a note of tools, such as "$schema".
    void WarnOfOtherKeys(const Node& object, const Names& keys) {
        for (const JsonValue& member : object.value->children) {
            if (!member.key.starts_with('$') && std::ranges::find(keys, member.key) == keys.end()) {
                WarnAtKey(object.Member(member), "the key is ignored", AllowedOf(keys, member.key));
            }
        }
    }

    // Warns of an integer that the service cuts to 32 bits.
    int32_t CutTo32(const Node& node) {
        const auto cut = static_cast<int32_t>(node.value->number);
        if (cut != node.value->number || node.value->isCut) {
            Warn(node, fmt::format("{} is cut to {}", Excerpt(node), cut),
                 "an integer from -2147483648 to 2147483647");
        }
        return cut;
    }
    int64_t CutTo64(const Node& node) {
        if (node.value->isCut) {
            Warn(node, fmt::format("{} is cut to {}", Excerpt(node), node.value->number),
                 "at most 9223372036854775807");
        }
        return node.value->number;
    }

  private:
    void Add(Severity severity, const Node& node, size_t offset, std::string found, std::string allowed) {
        findings_.push_back({severity, &layer_, offset, node.pointer, std::move(found), std::move(allowed)});
    }

    const Layer& layer_;
    std::vector<Finding>& findings_;
};

// Of members of the same key, the last is the one that counts.
void CheckForRepeatedKeys(const Node& node, LayerFindings& findings) {
    const auto& children = node.value->children;
    std::set<std::string_view> later;
    for (size_t i = children.size(); i-- > 0;) {
        const Node child = node.value->IsObject() ? node.Member(children[i]) : node.Element(i);
        if (node.value->IsObject() && !later.insert(children[i].key).second) {
            findings.WarnAtKey(child, "the key is repeated below, and the last one counts", "each key once");
        }
        CheckForRepeatedKeys(child, findings);
    }
}

void CheckQuota(const Node& node, const ResourceType& type, LayerFindings& findings) {
    const int64_t quota = findings.CutTo64(node);
    const std::string allowed = fmt::format("0 to {} {}", type.mostPossible - 1, type.unit);
    if (quota < 0) {
        findings.Warn(node, fmt::format("every process exceeds {} at all times", quota), allowed);
    } else if (quota >= type.mostPossible) {
        findings.Warn(node, fmt::format("{} {} can never be exceeded", quota, type.unit), allowed);
    }
}

void CheckDuration(const Node& node, const ResourceType& type, LayerFindings& findings) {
    const int64_t duration = findings.CutTo64(node);
    if (duration <= 0) {
        findings.Warn(node, fmt::format("{} means the time between two samples", duration),
                      "1 second and more");
    } else if (type.isStaged && duration > kLongestStagedDuration) {
        findings.Warn(
            node,
            fmt::format("with {} s the stages do not follow each other within {} s: the process is {}",
                        duration, kSuppressionSeconds,
                        duration < kSuppressionSeconds
                            ? "frozen, but then suppressed again instead of killed"
                            : "suppressed again and again, never frozen or killed"),
            fmt::format("1 or {} seconds", kLongestStagedDuration));
    } else if (duration > kLongestDuration) {
        findings.Warn(node, fmt::format("{} s are cut to {}", duration, kLongestDuration),
                      fmt::format("up to {} seconds", kLongestDuration));
    }
}

void CheckAction(const Node& node, const ResourceType& type, LayerFindings& findings) {
    static const Names kActions{"warning", "freeze", "kill"};
    const std::string& action = node.value->text;
    if (type.isStaged && !action.empty()) {
        findings.Warn(node, findings.Excerpt(node) + " is ignored: the staged treatment has no action",
                      "\"\"");
    } else if (!type.isStaged && std::ranges::find(kActions, action) == kActions.end()) {
        findings.Warn(node, findings.Excerpt(node) + " is not an action, so nothing is done",
                      AllowedOf(kActions, action));
    }
}

// Returns the mask of the condition's bits.
uint32_t CheckCondition(const Node& node, LayerFindings& findings) {
    static const Names kNames = [] {
        Names names;
        std::ranges::transform(kConditionBits, std::back_inserter(names),
                               [](const auto& condition) { return condition.first; });
        return names;
    }();
    uint32_t mask = 0;
    for (const std::string_view name : Linux::Split(node.value->text, '&')) {
        const auto known = std::ranges::find(kNames, name);
        if (known == kNames.end()) {
            findings.Warn(node, nlohmann::json(name).dump() + " is not a condition and is ignored",
                          AllowedOf(kNames, name));
        } else {
            mask |= kConditionBits[static_cast<size_t>(known - kNames.begin())].second;
        }
    }
    if (mask == 0) {
        findings.Warn(node, findings.Excerpt(node) + " contains no condition, so it always holds",
                      fmt::format("{}", fmt::join(kNames, ", ")));
    } else if (NeverHolds(mask)) {
        findings.Warn(node, findings.Excerpt(node) + " never holds",
                      "conditions without audio, and not foreground and background together");
    }
    return mask;
}

// Of two alternatives of which one holds wherever the other does.
void CheckForSecondMatch(const Node& node, uint32_t mask, const std::vector<uint32_t>& before,
                         LayerFindings& findings) {
    const auto isImplied = [mask](uint32_t other) {
        const bool isOneInOther = (mask & other) == mask || (mask & other) == other;
        return isOneInOther && !NeverHolds(mask | other);
    };
    const auto found = std::ranges::find_if(before, isImplied);
    if (found != before.end()) {
        findings.Warn(node,
                      fmt::format("{} holds together with alternative {}, and the action then runs twice",
                                  findings.Excerpt(node), found - before.begin()),
                      "alternatives that do not imply each other");
    }
}

void CheckConditions(const Node& conditions, const ResourceType& type, LayerFindings& findings) {
    const size_t count = conditions.value->children.size();
    if (type.isStaged && count > 0) {
        findings.Warn(conditions, "conditions are ignored: the staged treatment has none", "[]");
    }
    std::vector<uint32_t> masks;
    for (size_t i = 0; i < count; ++i) {
        const Node condition = conditions.Element(i);
        if (!condition.value->IsString()) {
            findings.Error(condition, findings.Excerpt(condition), kString);
        } else if (!type.isStaged) {
            const uint32_t mask = CheckCondition(condition, findings);
            CheckForSecondMatch(condition, mask, masks, findings);
            masks.push_back(mask);
        }
    }
}

// The service reads the keys in this order.
void CheckRule(const Node& rule, const ResourceType& type, LayerFindings& findings) {
    if (!findings.RequireObject(rule)) {
        return;
    }
    findings.WarnOfOtherKeys(rule, {"condition", "id", "resource_quota", "duration", "action"});
    if (const auto node = findings.Require(rule, "condition", &JsonValue::IsArray, "a list of strings")) {
        CheckConditions(*node, type, findings);
    }
    if (const auto node = findings.Require(rule, "id", &JsonValue::IsInteger, kInteger)) {
        findings.CutTo32(*node);
    }
    if (const auto node = findings.Require(rule, "resource_quota", &JsonValue::IsInteger, kInteger)) {
        CheckQuota(*node, type, findings);
    }
    if (const auto node = findings.Require(rule, "duration", &JsonValue::IsInteger, kInteger)) {
        CheckDuration(*node, type, findings);
    }
    if (const auto node = findings.Require(rule, "action", &JsonValue::IsString, kString)) {
        CheckAction(*node, type, findings);
    }
}

void CheckRules(const Node& rules, const ResourceType& type, LayerFindings& findings) {
    if (!rules.value->IsArray()) {
        findings.Warn(rules, findings.Excerpt(rules) + " counts as an empty list", "a list of rules");
        return;
    }
    for (size_t i = 0; i < rules.value->children.size(); ++i) {
        CheckRule(rules.Element(i), type, findings);
    }
}

void CheckRunningTime(const Node& node, LayerFindings& findings) {
    constexpr const char* kAllowed = "an integer from 1 to 2147483647";
    if (!node.value->IsInteger()) {
        findings.Warn(node, findings.Excerpt(node) + " is not an integer and counts as 0", kAllowed);
        return;
    }
    const int32_t time = findings.CutTo32(node);
    if (time == 0) {
        findings.Warn(node, "0 counts as a missing key: the template's running time is inherited", kAllowed);
    } else if (time < 0) {
        findings.Warn(node, fmt::format("{} is not handed out: only times from 1 on are", time), kAllowed);
    }
}

void CheckElement(const Node& element, LayerFindings& findings) {
    constexpr std::string_view kRunningTime = "running_time";
    if (!findings.RequireObject(element)) {
        return;
    }
    findings.WarnOfOtherKeys(element, {"process_name", "inherit", "process_quotas"});
    findings.Require(element, "process_name", &JsonValue::IsString, kString);
    findings.Require(element, "inherit", &JsonValue::IsString, "a string, \"\" for no parent");
    const auto quotas = findings.Require(element, "process_quotas", &JsonValue::IsObject, "an object");
    if (!quotas) {
        return;
    }
    Names keys;
    for (const ResourceType& type : Linux::kResourceTypes) {
        keys.push_back(type.name);
        if (const JsonValue* rules = quotas->value->Find(type.name)) {
            CheckRules(quotas->Member(*rules), type, findings);
        }
    }
    keys.push_back(kRunningTime);
    findings.WarnOfOtherKeys(*quotas, keys);
    if (const JsonValue* time = quotas->value->Find(kRunningTime)) {
        CheckRunningTime(quotas->Member(*time), findings);
    }
}

}  // namespace

void CheckLayer(const Layer& layer, std::vector<Finding>& all) {
    if (const auto& fault = layer.json.fault) {
        all.push_back({Severity::kError, &layer, fault->offset, "", fault->found, fault->allowed});
        return;
    }
    LayerFindings findings(layer, all);
    const Node root{&layer.json.root, ""};
    CheckForRepeatedKeys(root, findings);
    if (!findings.RequireObject(root)) {
        return;
    }
    findings.WarnOfOtherKeys(root, {"quotas"});
    const auto quotas = findings.Require(root, "quotas", &JsonValue::IsArray, "a list");
    for (size_t i = 0; quotas && i < quotas->value->children.size(); ++i) {
        CheckElement(quotas->Element(i), findings);
    }
}

}  // namespace KITE::Rqctl
