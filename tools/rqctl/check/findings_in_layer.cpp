#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>
#include <set>
#include <utility>

#include "process_quotas.h"
#include "rqctl/check/findings.h"
#include "rqctl/check/units.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::kConditionBits;
using ResourceQuotaCtl::kResourceTypes;
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

std::string Joined(const Names& names) {
    std::string joined;
    for (const std::string_view name : names) {
        joined += (joined.empty() ? "" : ", ") + std::string(name);
    }
    return joined;
}

// The names, and which of them may have been meant.
std::string AllowedOf(const Names& names, std::string_view written) {
    constexpr size_t kLongestWord = 64;
    std::string word(written.substr(0, kLongestWord));
    std::ranges::transform(word, word.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto distance = [&](std::string_view name) { return EditDistance(word, name); };
    const auto nearest = std::ranges::min_element(names, {}, distance);
    const bool isNear = distance(*nearest) <= (nearest->size() + 1) / 2 || word.starts_with(*nearest);
    return Joined(names) + (isNear ? " (nearest: " + std::string(*nearest) + ")" : "");
}

Names ConditionNames() {
    Names names;
    for (const auto& [name, bit] : kConditionBits) {
        names.push_back(name);
    }
    return names;
}

std::vector<std::string_view> PiecesOf(std::string_view condition) {
    std::vector<std::string_view> pieces;
    while (!condition.empty()) {
        const size_t end = std::min(condition.find('&'), condition.size());
        pieces.push_back(condition.substr(0, end));
        condition.remove_prefix(std::min(end + 1, condition.size()));
    }
    return pieces;
}

uint32_t BitOf(std::string_view name) {
    const auto found = std::ranges::find(kConditionBits, name, [](const auto& bit) { return bit.first; });
    return found == kConditionBits.end() ? 0 : found->second;
}

// A value and its place in the document.
struct Place {
    const JsonValue* value;
    std::string pointer;

    Place Under(const JsonValue& member) const { return {&member, Below(pointer, member.key)}; }
    Place Element(size_t index) const { return {&value->children[index], Below(pointer, index)}; }
};

class LayerLint {
  public:
    LayerLint(const Layer& layer, std::vector<Finding>& findings) : layer_(layer), findings_(findings) {}

    void Run() {
        const Place root{&layer_.json.root, ""};
        if (layer_.json.fault) {
            const JsonFault& fault = *layer_.json.fault;
            findings_.push_back({Severity::kError, &layer_, fault.offset, "", fault.found, fault.allowed});
            return;
        }
        FindDuplicates(root);
        if (!IsObject(root)) {
            return;
        }
        WarnOfOtherKeys(root, {"quotas"});
        const auto quotas = Required(root, "quotas", &JsonValue::IsArray, "a list");
        for (size_t i = 0; quotas && i < quotas->value->children.size(); ++i) {
            CheckElement(quotas->Element(i));
        }
    }

  private:
    void Add(Severity severity, const Place& place, size_t offset, std::string found, std::string allowed) {
        findings_.push_back({severity, &layer_, offset, place.pointer, std::move(found), std::move(allowed)});
    }
    void Error(const Place& place, std::string found, std::string allowed) {
        Add(Severity::kError, place, place.value->begin, std::move(found), std::move(allowed));
    }
    void Warn(const Place& place, std::string found, std::string allowed) {
        Add(Severity::kWarning, place, place.value->begin, std::move(found), std::move(allowed));
    }
    void WarnAtKey(const Place& place, std::string found, std::string allowed) {
        Add(Severity::kWarning, place, place.value->keyBegin, std::move(found), std::move(allowed));
    }
    std::string Shown(const Place& place) const { return layer_.json.Shown(*place.value); }

    bool IsObject(const Place& place) {
        if (!place.value->IsObject()) {
            Error(place, Shown(place), "an object");
        }
        return place.value->IsObject();
    }

    // The member, when it is there and of the type that the service asks for; else that is an error.
    std::optional<Place> Required(const Place& object, std::string_view key,
                                  bool (JsonValue::*isOfType)() const, const char* type) {
        const JsonValue* member = object.value->Find(key);
        if (member == nullptr) {
            Error(object, '"' + std::string(key) + "\" is missing", type);
            return std::nullopt;
        }
        Place place = object.Under(*member);
        if (!(member->*isOfType)()) {
            Error(place, Shown(place), type);
            return std::nullopt;
        }
        return place;
    }

    // Of members of the same key, the last is the one that counts.
    void FindDuplicates(const Place& place) {
        const auto& children = place.value->children;
        if (!place.value->IsObject()) {
            for (size_t i = 0; i < children.size(); ++i) {
                FindDuplicates(place.Element(i));
            }
            return;
        }
        std::set<std::string_view> later;
        for (size_t i = children.size(); i-- > 0;) {
            const Place member = place.Under(children[i]);
            if (!later.insert(children[i].key).second) {
                WarnAtKey(member, "the key stands again below, and that one counts", "each key once");
            }
            FindDuplicates(member);
        }
    }

    // A key that begins with $ is a note of tools, such as "$schema".
    void WarnOfOtherKeys(const Place& object, const Names& known) {
        for (const JsonValue& member : object.value->children) {
            if (!member.key.starts_with('$') && std::ranges::find(known, member.key) == known.end()) {
                WarnAtKey(object.Under(member), "the key is ignored", AllowedOf(known, member.key));
            }
        }
    }

    void CheckElement(const Place& element) {
        if (!IsObject(element)) {
            return;
        }
        WarnOfOtherKeys(element, {"process_name", "inherit", "process_quotas"});
        Required(element, "process_name", &JsonValue::IsString, kString);
        Required(element, "inherit", &JsonValue::IsString, "a string, \"\" for no parent");
        const auto quotas = Required(element, "process_quotas", &JsonValue::IsObject, "an object");
        if (!quotas) {
            return;
        }
        Names known(kResourceTypes.begin(), kResourceTypes.end());
        known.emplace_back("running_time");
        WarnOfOtherKeys(*quotas, known);
        for (const std::string_view key : known) {
            if (const JsonValue* member = quotas->value->Find(key)) {
                key == "running_time" ? CheckRunningTime(quotas->Under(*member))
                                      : CheckRules(quotas->Under(*member));
            }
        }
    }

    void CheckRunningTime(const Place& place) {
        constexpr const char* kAllowed = "an integer from 1 to 2147483647";
        if (!place.value->IsInteger()) {
            Warn(place, Shown(place) + " counts as no running time", kAllowed);
            return;
        }
        const int32_t time = CutTo32(place);
        if (time == 0) {
            Warn(place, "0 is as if the key were not there: a template's is inherited", kAllowed);
        } else if (time < 0) {
            Warn(place, std::to_string(time) + " is never told to anybody", kAllowed);
        }
    }

    int32_t CutTo32(const Place& place) {
        const int64_t wide = place.value->number;
        const auto cut = static_cast<int32_t>(wide);
        if (cut != wide || place.value->isCut) {
            Warn(place, Shown(place) + " is cut to " + std::to_string(cut),
                 "an integer from -2147483648 to 2147483647");
        }
        return cut;
    }

    int64_t CutTo64(const Place& place) {
        const auto cut = place.value->number;
        if (place.value->isCut) {
            Warn(place, Shown(place) + " is cut to " + std::to_string(cut), "at most 9223372036854775807");
        }
        return cut;
    }

    void CheckRules(const Place& rules) {
        if (!rules.value->IsArray()) {
            Warn(rules, Shown(rules) + " counts as an empty list", "a list of rules");
            return;
        }
        for (size_t i = 0; i < rules.value->children.size(); ++i) {
            if (const Place rule = rules.Element(i); IsObject(rule)) {
                CheckRule(rule, UnitOf(rules.value->key));
            }
        }
    }

    // The service reads the keys in this order.
    void CheckRule(const Place& rule, const Unit& unit) {
        WarnOfOtherKeys(rule, {"condition", "id", "resource_quota", "duration", "action"});
        if (const auto conditions = Required(rule, "condition", &JsonValue::IsArray, "a list of strings")) {
            CheckConditions(*conditions, unit);
        }
        if (const auto id = Required(rule, "id", &JsonValue::IsInteger, kInteger)) {
            CutTo32(*id);
        }
        if (const auto quota = Required(rule, "resource_quota", &JsonValue::IsInteger, kInteger)) {
            CheckQuota(*quota, unit);
        }
        if (const auto duration = Required(rule, "duration", &JsonValue::IsInteger, kInteger)) {
            CheckDuration(*duration, unit);
        }
        if (const auto action = Required(rule, "action", &JsonValue::IsString, kString)) {
            CheckAction(*action, unit);
        }
    }

    void CheckQuota(const Place& place, const Unit& unit) {
        const int64_t quota = CutTo64(place);
        const std::string allowed = "0 to " + std::to_string(unit.mostPossible - 1) + ' ' + unit.name;
        if (quota < 0) {
            Warn(place, std::to_string(quota) + " is exceeded by every process, at all times", allowed);
        } else if (quota >= unit.mostPossible) {
            Warn(place, std::to_string(quota) + ' ' + unit.name + " can never be exceeded", allowed);
        }
    }

    void CheckDuration(const Place& place, const Unit& unit) {
        const int64_t duration = CutTo64(place);
        if (duration <= 0) {
            Warn(place, std::to_string(duration) + " means the shortest time, that of one sample",
                 "1 second and more");
        } else if (unit.isStaged && duration > kLongestStagedDuration) {
            const char* instead = duration < kSuppressionSeconds
                                      ? ": it is frozen, but then suppressed again in place of killed"
                                      : ": it is suppressed again and again, never frozen or killed";
            Warn(place,
                 std::to_string(duration) + " s are too long for the stages to follow each other within " +
                     std::to_string(kSuppressionSeconds) + " s" + instead,
                 "1 or " + std::to_string(kLongestStagedDuration) + " seconds");
        } else if (duration > kLongestDuration) {
            Warn(place, std::to_string(duration) + " s are cut to " + std::to_string(kLongestDuration),
                 "up to " + std::to_string(kLongestDuration) + " seconds");
        }
    }

    void CheckAction(const Place& place, const Unit& unit) {
        static const Names kActions{"warning", "freeze", "kill"};
        const std::string& action = place.value->text;
        if (unit.isStaged) {
            if (!action.empty()) {
                Warn(place, Shown(place) + " is not looked at: the staged treatment has no action", "\"\"");
            }
        } else if (std::ranges::find(kActions, action) == kActions.end()) {
            Warn(place, Shown(place) + " is no action and does nothing", AllowedOf(kActions, action));
        }
    }

    void CheckConditions(const Place& conditions, const Unit& unit) {
        const size_t count = conditions.value->children.size();
        if (unit.isStaged && count > 0) {
            Warn(conditions, "conditions are not looked at: the staged treatment has none", "[]");
        }
        std::vector<uint32_t> masks;
        for (size_t i = 0; i < count; ++i) {
            const Place condition = conditions.Element(i);
            if (!condition.value->IsString()) {
                Error(condition, Shown(condition), kString);
            } else if (!unit.isStaged) {
                const uint32_t mask = CheckCondition(condition);
                WarnOfSecondMatch(condition, mask, masks);
                masks.push_back(mask);
            }
        }
    }

    uint32_t CheckCondition(const Place& place) {
        static const Names kNames = ConditionNames();
        uint32_t mask = 0;
        for (const std::string_view name : PiecesOf(place.value->text)) {
            const uint32_t bit = BitOf(name);
            mask |= bit;
            if (bit == 0) {
                Warn(place, nlohmann::json(name).dump() + " is no condition and adds nothing",
                     AllowedOf(kNames, name));
            }
        }
        if (mask == 0) {
            Warn(place, Shown(place) + " names no condition and always holds", Joined(kNames));
        } else if (NeverHolds(mask)) {
            Warn(place, Shown(place) + " never holds",
                 "conditions without audio, and not foreground and background together");
        }
        return mask;
    }

    // Of two alternatives of which one holds wherever the other does.
    void WarnOfSecondMatch(const Place& place, uint32_t mask, const std::vector<uint32_t>& before) {
        const auto isImplied = [mask](uint32_t other) {
            const bool isOneInOther = (mask & other) == mask || (mask & other) == other;
            return isOneInOther && !NeverHolds(mask | other);
        };
        const auto found = std::ranges::find_if(before, isImplied);
        if (found != before.end()) {
            const auto index = static_cast<size_t>(found - before.begin());
            Warn(place,
                 Shown(place) + " holds together with alternative " + std::to_string(index) +
                     ", and the action then runs twice",
                 "alternatives of which none implies another");
        }
    }

    const Layer& layer_;
    std::vector<Finding>& findings_;
};

}  // namespace

void LintLayer(const Layer& layer, std::vector<Finding>& findings) {
    LayerLint(layer, findings).Run();
}

}  // namespace KITE::Rqctl
