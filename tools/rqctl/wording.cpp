#include "rqctl/wording.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

struct Unit {
    std::string_view resourceType;
    const char* unit;
    const char* span;
};

constexpr std::array<Unit, 4> kUnits{{
    {"mem", " KiB", " for "},
    {"cpu", " % of a core", " over "},
    {"cpu_ext", " % of a core", " over "},
    {"io", " bytes written", " within "},
}};

}  // namespace

bool IsMoment(int64_t time) {
    constexpr int64_t kLatest = 253'402'300'799'999;
    return time >= 0 && time <= kLatest;
}

std::string MomentText(int64_t time) {
    constexpr int64_t kMillisecondsPerSecond = 1000;
    const std::time_t seconds = time / kMillisecondsPerSecond;
    std::tm parts{};
    std::array<char, 64> day{};
    if (time < 0 || localtime_r(&seconds, &parts) == nullptr ||
        std::strftime(day.data(), day.size(), "%F %T", &parts) == 0) {
        return std::to_string(time);
    }
    std::array<char, 8> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03d", static_cast<int>(time % kMillisecondsPerSecond));
    return std::string(day.data()) + fraction.data();
}

std::string MeasureText(const std::string& resourceType, int64_t resource, int64_t duration) {
    Unit known{resourceType, "", " over "};
    for (const Unit& unit : kUnits) {
        known = unit.resourceType == resourceType ? unit : known;
    }
    return Printable(resourceType) + " " + std::to_string(resource) + known.unit + known.span +
           std::to_string(duration) + " s";
}

std::string ProcessText(const std::string& name, int64_t pid) {
    return Printable(name) + " (pid " + std::to_string(pid) + ")";
}

}  // namespace KITE::Rqctl
