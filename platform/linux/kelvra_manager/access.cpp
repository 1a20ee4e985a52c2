#include "kelvra_manager/access.h"

#include <sys/types.h>

#include <optional>
#include <utility>

#include "access_token.h"
#include "ipc/access.h"
#include "runtime/platform_log.h"
#include "system_ability.h"

namespace KITE::Linux {

namespace {

constexpr const char* kQuotaService = "resource_quota_control";

constexpr std::chrono::minutes kPauseBetweenLines{1};

}  // namespace

bool CallerCheck::IsQuotaService(uint32_t request) {
    NativeTokenInfo caller;
    const uint32_t token = IPCSkeleton::GetCallingTokenID();
    const bool isNamed = token != 0 && AccessTokenKit::GetNativeTokenInfo(token, caller) == 0;
    return (isNamed && caller.processName == kQuotaService) || Refuse(request, "the quota service");
}

bool CallerCheck::IsKelvraManager(uint32_t request) {
    return CallerOwnsAbility(KELVRA_MANAGER_SERVICE_ID) || Refuse(request, "the Kelvra manager");
}

bool CallerCheck::Refuse(uint32_t request, const char* expected) {
    const auto now = std::chrono::steady_clock::now();
    if (now < nextLine_) {
        ++unlogged_;
        return false;
    }
    nextLine_ = now + kPauseBetweenLines;
    const std::optional<uid_t> uid = CallerUid();
    PLATFORM_LOGE(
        "request %{public}u of %{public}s, uid %{public}ld, is refused: only %{public}s may send it; "
        "%{public}u other requests were refused since the last such line",
        request, CallerName().c_str(), uid ? long{*uid} : -1L, expected, std::exchange(unlogged_, 0U));
    return false;
}

}  // namespace KITE::Linux
