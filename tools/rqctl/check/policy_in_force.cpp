#include "rqctl/check/policy_in_force.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "res_policy_manager.h"
#include "system_log.h"

namespace KITE::Rqctl {

namespace {

using Kelvra::ResQuotaInfo;

const JsonValue* FindQuota(const Entry& entry, const std::string& key) {
    const JsonValue* quotas = entry.rulesFrom->Find("process_quotas");
    return quotas == nullptr ? nullptr : quotas->Find(key);
}

// Lists are inherited whole, so the record's rule is the one of its place in the first list found.
Origin OriginOfRule(const Entry* entry, const std::string& resource, int index) {
    for (; entry != nullptr; entry = entry->parent) {
        if (const JsonValue* rules = FindQuota(*entry, resource)) {
            const auto& list = rules->children;
            const bool isThere = std::cmp_less(index, list.size());
            return {entry->rulesFrom, isThere ? &*std::next(list.begin(), index) : nullptr};
        }
    }
    return {};
}

// A running time of 0 is inherited.
Origin OriginOfRunningTime(const Entry* entry) {
    for (; entry != nullptr; entry = entry->parent) {
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
    if (const auto entry = merged_.entries.find(name); entry != merged_.entries.end()) {
        found.entry = &entry->second;
    }
    bool areSameFiles = true;
    int index = 0;
    for (const ResQuotaInfo& record : records_) {
        if (record.processName == name) {
            const bool isFirst = found.rules.empty() || found.rules.back().record.resType != record.resType;
            index = isFirst ? 0 : index + 1;
            found.rules.push_back({record, OriginOfRule(found.entry, record.resType, index)});
            areSameFiles = areSameFiles && found.rules.back().origin.value != nullptr;
        }
    }
    if (const auto time = runningTimes_.find(name); time != runningTimes_.end()) {
        found.runningTime = time->second;
        found.runningTimeOrigin = OriginOfRunningTime(found.entry);
        areSameFiles = areSameFiles && found.runningTimeOrigin.value != nullptr;
    }
    if (!areSameFiles) {
        return Linux::Failure("the quota files changed while they were read; try again");
    }
    return found;
}

}  // namespace KITE::Rqctl
