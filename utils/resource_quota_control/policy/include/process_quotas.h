#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace KITE::ResourceQuotaCtl {

// Keys of a process's quotas whose values are rules.
inline constexpr std::array<std::string_view, 4> kResourceTypes{"cpu", "cpu_ext", "io", "mem"};

// Device conditions that a rule may name, and their bits.
inline constexpr std::array<std::pair<std::string_view, uint32_t>, 4> kConditionBits{{
    {"foreground", 1},
    {"background", 2},
    {"audio", 4},
    {"screen_off", 8},
}};

// One rule for one resource of one process. Units are the resource type's and belong to the Kelvra manager.
struct QuotaForResource {
    int32_t id = 0;
    int64_t resourceQuota = 0;
    int64_t duration = 0;
    std::vector<uint32_t> conditions;  // one mask of condition bits per configured string, in order
    std::string action;
};

// Everything configured for one process name, or for a template that other entries inherit from.
struct ProcessQuotas {
    std::string processName;
    int32_t runningTime = 0;  // of an extension process; 0 when not configured
    // By key of the configured object. A key that is no resource type, or whose value is no list, has no
    // rules but hides a template's entry of the same key.
    std::map<std::string, std::vector<std::shared_ptr<QuotaForResource>>> quotas;
};

// By process or template name.
using ProcessQuotasMap = std::map<std::string, std::shared_ptr<ProcessQuotas>>;
// From an entry's name to the name of the one that it inherits from.
using InheritMap = std::map<std::string, std::string>;

}  // namespace KITE::ResourceQuotaCtl
