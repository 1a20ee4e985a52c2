#include "rqctl/check/policy_in_force.h"

#include <algorithm>
#include <optional>

#include "res_policy_manager.h"
#include "rqctl/check/quiet_log.h"

namespace KITE::Rqctl {

namespace {

using Kelvra::ResQuotaInfo;
using Ancestry = std::vector<const Entry*>;

const JsonValue* QuotasOf(const Entry& entry) {
    return entry.rulesFrom->value->Find("process_quotas");
}

// Lists are inherited whole, so the record's rule is the one of its place in the first list found.
std::optional<Origin> OriginOfRule(const Ancestry& ancestry, const std::string& resource, size_t index) {
    for (const Entry* entry : ancestry) {
        if (const JsonValue* rules = QuotasOf(*entry)->Find(resource)) {
            return index < rules->children.size()
                       ? std::optional(Origin{entry->rulesFrom, &rules->children[index]})
                       : std::nullopt;
        }
    }
    return std::nullopt;
}

// A running time of 0 is inherited.
std::optional<Origin> OriginOfRunningTime(const Ancestry& ancestry) {
    for (const Entry* entry : ancestry) {
        const JsonValue* time = QuotasOf(*entry)->Find("running_time");
        if (time != nullptr && time->IsInteger() && static_cast<int32_t>(time->number) != 0) {
            return Origin{entry->rulesFrom, time};
        }
    }
    return std::nullopt;
}

}  // namespace

PolicyInForce::PolicyInForce(const std::vector<Layer>& layers) : merged_(layers) {
    const QuietLog quiet;
    std::vector<std::string> files;
    std::ranges::transform(layers, std::back_inserter(files), &Layer::path);
    ResourceQuotaCtl::ResPolicyManager policy;
    isAccepted_ = policy.InitFromFiles(files);
    policy.GetAllResQuotaInfos(records_);
    runningTimes_ = policy.GetExtensionRunningTime();
}

Linux::Result<EntryInForce> PolicyInForce::Find(const std::string& name) const {
    static const Linux::Failure kFilesChanged("the quota files changed while they were read; try again");
    EntryInForce found;
    for (const Entry* entry = merged_.Find(name); isAccepted_ && entry != nullptr;
         entry = merged_.ParentOf(*entry)) {
        found.ancestry.push_back(entry);
    }
    size_t index = 0;
    for (const ResQuotaInfo& record : records_) {
        if (record.processName != name) {
            continue;
        }
        const bool isFirst = found.rules.empty() || found.rules.back().record.resType != record.resType;
        index = isFirst ? 0 : index + 1;
        const auto origin = OriginOfRule(found.ancestry, record.resType, index);
        if (!origin) {
            return kFilesChanged;
        }
        found.rules.push_back({record, *origin});
    }
    if (const auto time = runningTimes_.find(name); time != runningTimes_.end()) {
        const auto origin = OriginOfRunningTime(found.ancestry);
        if (!origin) {
            return kFilesChanged;
        }
        found.runningTime = time->second;
        found.runningTimeOrigin = *origin;
    }
    return found;
}

}  // namespace KITE::Rqctl
