#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

// What the resource types of quotas mean on Linux. A new type is a row here, a way to measure it in the
// Kelvra manager (kelvra_manager/manager/process_meter.cpp), and a name that the service's policy accepts.
namespace KITE::Linux {

enum class Resource : uint8_t { kMemory, kCpu, kCpuExt, kIo };

// What is compared with a quota: the amount itself, in every sample for the duration; how much of the
// duration a counter of nanoseconds grew, in percent; or by how much a counter grew within the duration.
enum class Judged : uint8_t { kAmount, kShareOfTime, kGrowth };

struct ResourceType {
    Resource resource;
    std::string_view name;     // in quota files, records and events
    std::string_view unit;     // of a quota, for people
    std::string_view measure;  // what a number of it is: "83 % of a core"
    std::string_view span;     // how the number goes together with the duration: "over 5 s"
    int64_t mostPossible;      // a machine measures no more, so that a quota from here on is never exceeded
    bool isStaged;  // a breach is answered by suppression, freeze and kill, not by the rule's action
    int64_t bytes;  // in one unit; 0 where bytes are not what is counted
    std::string_view quantity;   // what is measured: "processor time"
    std::string_view sampleKey;  // of the amount or counter in a recorded sample
    Judged judged;
};

// The bounds are those of the largest machines that Linux runs on: 64 PiB of address space, 8192 processors.
// clang-format off
inline constexpr ResourceType kResourceTypes[] = {
    {Resource::kMemory, "mem", "KiB", "KiB", "for", int64_t{1} << 46, false,
     1024, "memory", "memory_kib", Judged::kAmount},
    {Resource::kCpu, "cpu", "percent of one core", "% of a core", "over", int64_t{8192} * 100, false,
     0, "processor time", "cpu_ns", Judged::kShareOfTime},
    {Resource::kCpuExt, "cpu_ext", "percent of one core", "% of a core", "over", int64_t{8192} * 100, true,
     0, "processor time", "cpu_ns", Judged::kShareOfTime},
    {Resource::kIo, "io", "bytes", "bytes written", "within", INT64_MAX, false,
     1, "written to storage", "written_bytes", Judged::kGrowth},
};
// clang-format on

// Null for a name that is not a resource type; names are exact.
constexpr const ResourceType* FindResourceType(std::string_view name) {
    const auto* found = std::ranges::find(kResourceTypes, name, &ResourceType::name);
    return found == std::end(kResourceTypes) ? nullptr : found;
}

// Whether a breach of that resource type is treated in stages.
constexpr bool IsStaged(std::string_view name) {
    const ResourceType* type = FindResourceType(name);
    return type != nullptr && type->isStaged;
}

}  // namespace KITE::Linux
