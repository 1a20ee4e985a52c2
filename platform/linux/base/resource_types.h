#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

// What the resource types of quotas mean on Linux. A new type is a row here, a way to measure it in the
// Kelvra manager (kelvra_manager/manager/process_meter.cpp), and a name that the service's policy accepts.
namespace KITE::Linux {

enum class Resource : uint8_t { kMemory, kCpu, kCpuExt, kIo };

struct ResourceType {
    Resource resource;
    std::string_view name;     // in quota files, records and events
    std::string_view unit;     // of a quota, for people
    std::string_view measure;  // what a number of it is: "83 % of a core"
    std::string_view span;     // how the number goes together with the duration: "over 5 s"
    int64_t mostPossible;      // a machine measures no more, so that a quota from here on is never exceeded
    bool isStaged;  // a breach is answered by suppression, freeze and kill, not by the rule's action
};

// The bounds are those of the largest machines that Linux runs on: 64 PiB of address space, 8192 processors.
inline constexpr ResourceType kResourceTypes[] = {
    {Resource::kMemory, "mem", "KiB", "KiB", "for", int64_t{1} << 46, false},
    {Resource::kCpu, "cpu", "percent of one core", "% of a core", "over", int64_t{8192} * 100, false},
    {Resource::kCpuExt, "cpu_ext", "percent of one core", "% of a core", "over", int64_t{8192} * 100, true},
    {Resource::kIo, "io", "bytes", "bytes written", "within", INT64_MAX, false},
};

// Null for a name that is not a resource type; names are exact.
constexpr const ResourceType* FindResourceType(std::string_view name) {
    const auto* found = std::ranges::find(kResourceTypes, name, &ResourceType::name);
    return found == std::end(kResourceTypes) ? nullptr : found;
}

}  // namespace KITE::Linux
