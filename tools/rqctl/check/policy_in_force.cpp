#include "rqctl/check/policy_in_force.h"

#include <algorithm>
#include <iterator>

#include "res_policy_manager.h"
#include "system_log.h"

namespace KITE::Rqctl {

namespace {

using Kelvra::ResQuotaInfo;
using Ancestry = std::vector<const Entry*>;

const JsonValue* FindQuota(const Entry& entry, const std::string& key) {
    const JsonValue* quotas = entry.rulesFrom->Find("process_quotas");
    return quotas == nullptr ? nullptr : quotas->Find(key);
}

// Lists are inherited whole, so the record's rule is the one of its place in the first list found.
Origin OriginOfRule(const Ancestry& ancestry, const std::string& resource, size_t index) {
    for (const Entry* entry : ancestry) {
        const JsonValue* rules = FindQuota(*entry, resource);
        if (rules != nullptr && index < rules->children.size()) {
            return {entry->rulesFrom, &*std::next(rules->children.begin(), static_cast<ptrdiff_t>(index))};
        }
        if (rules != nullptr) {
            break;
        }
    }
    return {};
}

// A running time of 0 is inherited.
Origin OriginOfRunningTime(const Ancestry& ancestry) {
    for (const Entry* entry : ancestry) {
        const JsonValue* time = FindQuota(*entry, "running_time");
        if (time != nullptr && time->IsInteger() && static_cast<int32_t>(time->number) != 0) {
            return {entry->rulesFrom, time};
        }
    }
    return {};
}

}  // namespace

PolicyInForce::PolicyInForce(const Layers& layers) : merged_(layers) {
    std::vector<std::string> files;
    std::ranges::transform(layers, std::back_inserter(files), &Layer::path);
    // What is wrong in the files is told by the check, and better: the service's code logs nothing meanwhile.
    constexpr auto kNothing = static_cast<Log::Level>(static_cast<int>(Log::Level::kError) + 1);
    const Log::Level level = Log::minimumLevel.exchange(kNothing);
    ResourceQuotaCtl::ResPolicyManager policy;
    isAccepted_ = policy.InitFromFiles(files);
    Log::minimumLevel = level;
    policy.GetAllResQuotaInfos(records_);
    runningTimes_ = policy.GetExtensionRunningTime();
}

Linux::Result<EntryInForce> PolicyInForce::Find(const std::string& name) const {
    EntryInForce found;
    for (const Entry* entry = merged_.Find(name); isAccepted_ && entry != nullptr;
         entry = merged_.ParentOf(*entry)) {
        found.ancestry.push_back(entry);
    }
    bool areSameFiles = true;
    size_t index = 0;
    for (const ResQuotaInfo& record : records_) {
        if (record.processName == name) {
            const bool isFirst = found.rules.empty() || found.rules.back().record.resType != record.resType;
            index = isFirst ? 0 : index + 1;
            found.rules.push_back({record, OriginOfRule(found.ancestry, record.resType, index)});
            areSameFiles = areSameFiles && found.rules.back().origin.value != nullptr;
        }
    }
    if (const auto time = runningTimes_.find(name); time != runningTimes_.end()) {
        found.runningTime = time->second;
        found.runningTimeOrigin = OriginOfRunningTime(found.ancestry);
        areSameFiles = areSameFiles && found.runningTimeOrigin.value != nullptr;
    }
    return areSameFiles ? found
                        : Linux::Result<EntryInForce>(
                              Linux::Failure("the quota files changed while they were read; try again"));
}

}  // namespace KITE::Rqctl
