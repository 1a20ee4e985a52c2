#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/result.h"
#include "kelvra_manager_client.h"
#include "rqctl/check/merged_layers.h"

namespace KITE::Rqctl {

// Where something in force was written.
struct Origin {
    const JsonValue* element = nullptr;  // of "quotas"
    const JsonValue* value = nullptr;
};

// A rule as the service hands it to the Kelvra manager.
struct RuleInForce {
    Kelvra::ResQuotaInfo record;
    Origin origin;
};

// What is in force under one name.
struct EntryInForce {
    const Entry* entry = nullptr;  // null for a name that has none
    std::vector<RuleInForce> rules;
    int32_t runningTime = 0;
    Origin runningTimeOrigin;  // null where no running time is in force
};

// The policy that the service makes of quota files, and where each part of it was written.
class PolicyInForce {
  public:
    // The layers must outlive it.
    explicit PolicyInForce(const Layers& layers);

    // Whether the service accepts the layers. Without that nothing is in force.
    bool IsAccepted() const { return isAccepted_; }
    // Fails when the files changed between their reading by the service's code and by ours.
    Linux::Result<EntryInForce> Find(const std::string& name) const;

  private:
    MergedLayers merged_;
    bool isAccepted_ = false;
    std::vector<Kelvra::ResQuotaInfo> records_;
    std::map<std::string, int32_t> runningTimes_;
};

}  // namespace KITE::Rqctl
