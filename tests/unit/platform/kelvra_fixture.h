#pragma once

#include "kelvra_manager/manager/windows.h"
#include "platform_fixture.h"

namespace KITE::Linux::Sampling {

inline constexpr int64_t kSecond = 1'000'000'000;

inline TimePoint Second(double seconds) {
    return TimePoint(nanoseconds(static_cast<int64_t>(seconds * kSecond)));
}

inline Kelvra::ResQuotaInfo Quota(std::string name, std::string resType, int64_t limit, int64_t duration,
                                  int32_t id = 0) {
    Kelvra::ResQuotaInfo quota;
    quota.processName = std::move(name);
    quota.resType = std::move(resType);
    quota.resource = limit;
    quota.duration = duration;
    quota.id = id;
    quota.action = "kill";
    quota.conditions = {8, 1};
    return quota;
}

}  // namespace KITE::Linux::Sampling
