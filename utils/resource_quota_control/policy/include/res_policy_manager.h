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
    // What Init works on while it goes through the files. The maps of one file are deliberately kept from
    // file to file: what was new in one file takes part in the next file's merge.
    struct MergeState {
        ProcessQuotasMap mergedQuotas;
        ProcessQuotasMap fileQuotas;
        InheritMap mergedInherit;
        InheritMap fileInherit;
    };

    // Loads, merges and publishes, and gives back the memory that took; the caller holds the mutex.
    bool Init(const std::vector<std::string>& files);
    bool LoadAndMergeFiles(const std::vector<std::string>& files, MergeState& state);

    // Merges what no further file will look at: it is moved.
    void MergeLastQuotaConfig(MergeState& state) const;
    // The first half of a merge: what the file defines again replaces what was defined.
    void Redefine(ProcessQuotasMap& mergedQuotas, ProcessQuotasMap& fileQuotas, InheritMap& mergedInherit,
                  InheritMap& fileInherit) const;

    // Each parse adds to its outputs; on a failure what was added stays, and the caller gives all of it up.
    bool ParseProcessQuotaConfig(nlohmann::json root, ProcessQuotasMap& processQuotas, InheritMap& inherit);
    // These two give the key that is missing or wrong, null when all is well.
    const char* ParseProcessEntry(nlohmann::json entry, ProcessQuotasMap& processQuotas, InheritMap& inherit);
    const char* ReadRule(const nlohmann::json& rule, QuotaForResource& quota) const;
    bool ParseProcessQuotas(nlohmann::json quotas, const std::shared_ptr<ProcessQuotas>& processQuotas);
    bool ParseQuotaForResource(nlohmann::json rule, const std::shared_ptr<QuotaForResource>& quota);
    uint32_t ParseConditions(std::string conditions) const;

    // Resolves inheritance, parents first, and publishes. False on a cycle and on a missing template.
    bool HandleInheritInfo(ProcessQuotasMap& mergedQuotas, InheritMap& mergedInherit);
    bool IsInheritInfoValid(const InheritMap& inherit) const;
    // An entry whose parent inherits from nobody; empty when no inheritance is left. Needs a map without
    // cycles.
    std::string GetTopInheritInfo(const InheritMap& inherit) const;

    // Frees the parts of documents that have been read.
    void FreeSpent();

    std::mutex mutex_;  // the policy; held for the whole of Init and of each export
    std::atomic<bool> isConfigInit_{false};
    ProcessQuotasMap processQuotasMap_;
    size_t ruleCount_ = 0;  // of processQuotasMap_; to count them takes half as long as to export them
    // While Init runs: parts of the document that have been read. Each freed by itself would make place for
    // the next record, and the policy would lie scattered over all pages of the document. Freed many at a
    // time they are whole pages, and still in the cache.
    std::vector<nlohmann::json> spent_;
};

}  // namespace KITE::ResourceQuotaCtl
