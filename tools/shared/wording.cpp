#include "shared/wording.h"

#include <fmt/chrono.h>

#include <cmath>
#include <iterator>

#include "base/resource_types.h"
#include "shared/terminal.h"

namespace KITE::Tools {

std::string MomentText(int64_t time) {
    return time >= 0 && time <= kLatestMoment
               ? fmt::format("{:%F} {}", fmt::localtime(time / 1000), ClockText(time))
               : fmt::to_string(time);
}

std::string ClockText(int64_t time) {
    return fmt::format("{:%T}.{:03}", fmt::localtime(time / 1000), time % 1000);
}

std::string MeasureText(std::string_view resourceType, int64_t resource, int64_t duration) {
    const Linux::ResourceType* type = Linux::FindResourceType(resourceType);
    return type == nullptr
               ? fmt::format("{} {} over {} s", Escaped(resourceType), resource, duration)
               : fmt::format("{} {} {} {} {} s", type->name, resource, type->measure, type->span, duration);
}

std::string BytesText(double bytes) {
    static constexpr std::string_view kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    size_t unit = 0;
    for (; bytes >= 1024 && unit + 1 < std::size(kUnits); ++unit) {
        bytes /= 1024;
    }
    return fmt::format("{} {}", std::round(bytes * 10) / 10, kUnits[unit]);
}

std::string ProcessText(std::string_view name, int64_t pid) {
    return fmt::format("{} (pid {})", Escaped(name), pid);
}

}  // namespace KITE::Tools
