#pragma once

#include "system_log.h"

namespace KITE::ResourceQuotaCtl {

// The service's lines: RQC_LOGI("pid is %{public}d", pid) and its like for debug and error. See KITE_LOG.
inline constexpr Log::Label kLogLabel{0xD001716, "RESOURCE_QUOTA_CONTROL"};

}  // namespace KITE::ResourceQuotaCtl

#define RQC_LOG(level, ...) \
    KITE_LOG(::KITE::Log::Level::level, ::KITE::ResourceQuotaCtl::kLogLabel, __VA_ARGS__)
#define RQC_LOGD(...) RQC_LOG(kDebug, __VA_ARGS__)
#define RQC_LOGI(...) RQC_LOG(kInfo, __VA_ARGS__)
#define RQC_LOGE(...) RQC_LOG(kError, __VA_ARGS__)
