#include "kelvra_task_observer.h"

#include "resource_quota_control_impl.h"
#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

void KelvraTaskObserver::OnReportAbnormalProcess(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) {
    RQC_LOGD("OnReportAbnormalProcess called, abnormal size is %{public}d", static_cast<int>(infos.size()));
    if (const auto impl = impl_.lock()) {
        impl->SendHandlerEvent(infos);
    }
}

}  // namespace KITE::ResourceQuotaCtl
