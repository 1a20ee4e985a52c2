#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelvra_manager_client.h"
#include "rqctl/check/layers.h"

namespace KITE::Rqctl {

// Where something in force was written.
struct Origin {
    const Element* element;
    const JsonValue* value;
};

// A quota record as the service hands it out, and the rule that it was made of.
struct EffectiveRule {
    Kelvra::ResQuotaInfo record;
    Origin origin;
};

// What is in force for one name.
struct Explanation {
    std::vector<const Entry*> line;  // the entry, its parent, that one's parent and so on
    std::vector<EffectiveRule> rules;
    int32_t runningTime = 0;
    Origin runningTimeOrigin{};  // null where no running time is in force
};

// The policy that the service makes of quota files, and where each part of it was written.
class ExplainedPolicy {
  public:
    // The layers must outlive it.
    explicit ExplainedPolicy(const std::vector<Layer>& layers);

    // Whether the service accepts the layers. Without that nothing is in force.
    bool IsAccepted() const { return isAccepted_; }
    // Empty for a name that has no entry.
    Explanation Explain(const std::string& name) const;

  private:
    static Origin OriginOf(const Explanation& explanation, const Kelvra::ResQuotaInfo& record, size_t index);

    MergedLayers merged_;
    bool isAccepted_ = false;
    std::vector<Kelvra::ResQuotaInfo> records_;
    std::map<std::string, int32_t> runningTimes_;
};

// In plain words: when a record is broken, under which conditions something follows, and what does.
std::string LimitInWords(const Kelvra::ResQuotaInfo& record);
std::string ConditionsInWords(const Kelvra::ResQuotaInfo& record);
std::string ActionInWords(const Kelvra::ResQuotaInfo& record);

}  // namespace KITE::Rqctl
