#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kelvra_manager_client.h"
#include "process_quotas.h"

namespace KITE::ResourceQuotaCtl {

// The quota policy: read once from the layered configuration files, then exported. Reached through its
// DelayedSingleton. Any thread; a reader that comes while Init runs waits for it and sees the whole policy or
// none. Before a successful Init every export is empty.
class ResPolicyManager {
  public:
    // Where a configuration directory has its file.
    static constexpr const char* kConfigFile = "/etc/efficiency_manager/process_resource_limit.json";

    ResPolicyManager() = default;
    ResPolicyManager(const ResPolicyManager&) = delete;
    ResPolicyManager& operator=(const ResPolicyManager&) = delete;
    virtual ~ResPolicyManager() = default;

    // Finds, reads, merges and publishes the configuration. False, with the reason logged and nothing
    // published, when there is no file or any file is refused; a later call then starts again. After a
    // success it does nothing and returns true.
    bool Init();
    // The same with the given files, in that order.
    bool InitFromFiles(const std::vector<std::string>& files);
    // True once Init has succeeded. Takes no lock.
    bool IsConfigInit() const { return isConfigInit_; }

    // Appends every quota record, in order of process name, resource type and configuration. Templates are
    // entries like any other.
    void GetAllResQuotaInfos(std::vector<Kelvra::ResQuotaInfo>& infos);
    // Appends the records of one process; nothing for null. Takes no lock.
    void GetResQuotaInfosOfOneProcess(const std::shared_ptr<ProcessQuotas>& processQuotas,
                                      std::vector<Kelvra::ResQuotaInfo>& infos) const;
    // The configured running times of 1 and above, by process name.
    std::map<std::string, int32_t> GetExtensionRunningTime();

    // Appends the existing configuration files, resolved, in the order in which they are merged.
    void GetQuotaConfigFilesList(std::vector<std::string>& files) const;
    // Merges what a file says into what the files before it said. The maps of the file are kept for the next
    // call and go on having an effect: see docs/quota-files.md, "Layers and inheritance". Records are
    // replaced as a whole and not looked into.
    void MergeQuotaConfig(ProcessQuotasMap& mergedQuotas, ProcessQuotasMap& fileQuotas,
                          InheritMap& mergedInherit, InheritMap& fileInherit) const;

  private:
    // The caller of what follows holds the mutex.
    bool Init(const std::vector<std::string>& files);

    // Each parse adds to its outputs; what a parse that fails has added is of no use.
    bool ParseProcessQuotaConfig(nlohmann::json root, ProcessQuotasMap& processQuotas, InheritMap& inherit);
    bool ParseProcessQuotas(nlohmann::json quotas, const std::shared_ptr<ProcessQuotas>& processQuotas);
    bool ParseQuotaForResource(nlohmann::json rule, const std::shared_ptr<QuotaForResource>& quota);
    bool ParseConditionList(nlohmann::json conditions, std::vector<uint32_t>& masks) const;
    uint32_t ParseConditions(std::string conditions) const;

    // Resolves inheritance, parents first, and publishes. False on a cycle and on a missing template.
    bool HandleInheritInfo(const ProcessQuotasMap& mergedQuotas, InheritMap& mergedInherit);
    bool IsInheritInfoValid(const InheritMap& inherit) const;
    // An entry whose parent inherits from no other; empty when no inheritance is left. Needs a map without
    // cycles.
    std::string GetTopInheritInfo(const InheritMap& inherit) const;

    std::mutex mutex_;  // the policy; held for the whole of Init and of each export
    std::atomic<bool> isConfigInit_{false};
    ProcessQuotasMap processQuotasMap_;
};

}  // namespace KITE::ResourceQuotaCtl
