#pragma once

#include <memory>
#include <vector>

#include "kelvra_manager_client.h"

namespace KITE::ResourceQuotaCtl {

class ResourceQuotaControlImpl;

// Takes the Kelvra manager's reports and hands them to the anomaly core, if that still exists.
class KelvraTaskObserver : public Kelvra::KelvraManagerTaskSubscriber {
  public:
    explicit KelvraTaskObserver(const std::shared_ptr<ResourceQuotaControlImpl>& impl) : impl_(impl) {}

    void OnReportAbnormalProcess(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) override;

  private:
    const std::weak_ptr<ResourceQuotaControlImpl> impl_;
};

}  // namespace KITE::ResourceQuotaCtl
