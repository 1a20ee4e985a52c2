#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "cpu_limit_info.h"
#include "dump_info.h"
#include "kelvra_manager_client.h"
#include "kelvra_task_observer.h"

namespace KITE::ResourceQuotaCtl {

// The anomaly core: takes batches of reports of processes that broke a quota, and decides and runs what
// happens to each. Reached through its DelayedSingleton; must be owned by a shared pointer.
//
// Reports are handled on the task runtime's workers; two batches may be handled at the same time.
class ResourceQuotaControlImpl : public std::enable_shared_from_this<ResourceQuotaControlImpl> {
  public:
    ResourceQuotaControlImpl() = default;
    ResourceQuotaControlImpl(const ResourceQuotaControlImpl&) = delete;
    ResourceQuotaControlImpl& operator=(const ResourceQuotaControlImpl&) = delete;

    // Subscribes to the Kelvra manager's reports, and waits for its answer. False when it refuses. One that
    // was tried since the manager came is not tried again, and that is true, also after a refusal.
    bool InitKelvraTaskObserver();
    // Drops the subscription of a manager that has gone. Any thread.
    void HandleKelvraDied();
    // Hands a batch to a worker and returns. Any thread.
    void SendHandlerEvent(std::vector<Kelvra::ProcessAnomalyInfo> infos);
    // Handles a batch here and now, report by report; one that fails a check does not stop the others.
    void HandleAbnormalInfos(std::vector<Kelvra::ProcessAnomalyInfo> infos);

    // Appends the history of received (true) or executed (false) reports, a line each, the oldest first: the
    // last 100, and none on a build that is not debuggable. Any thread.
    void DumpAbnormalInfo(std::string& result, bool isReported);
    // The same for the reports that took the staged treatment.
    void DumpAbnormalEnhanceInfo(std::string& result);
    // Logs the bytes that one process has written. The result stays as it is. Any thread.
    void DumpWritebytesAbility(std::string& result, int32_t pid);

  private:
    using Info = Kelvra::ProcessAnomalyInfo;
    using History = std::queue<DumpInfo>;

    void HandleAbnormalProcess(const Info& info, int32_t generalType);
    bool IsExemptBgContinuousTask(const Info& info);
    bool IsExemptEfficiencyResources(const Info& info);
    int32_t GetCurrentCondition(const Info& info, int32_t generalType);
    // Whether the application's user sees it: it is in the foreground or has a visible window. Nothing when
    // the report's pid and uid are those of no live application.
    std::optional<bool> IsSeenApplication(const Info& info);
    bool CheckVisibilityWindowInfo(int32_t uid);
    int32_t ExecuteAbnormalProcess(const Info& info);

    // The staged treatment: suppress, then freeze, then kill.
    void HandleAbnormalProcessEnhance(const Info& info);
    bool CheckWhetherSuppressRequired(const Info& info);
    bool CheckProcessStatus(const Info& info);
    void ReportSuppressProcessInfo(const Info& info);
    void EndSuppression(const std::string& processName, const CpuLimitInfo& suppressed);
    // False when the process was frozen already and the next stage is due; also true for a process that
    // another batch has just killed.
    bool ReportFreezeProcessInfo(const Info& info);
    std::optional<CpuLimitInfo> FindCpuLimitInfo(const std::string& processName);
    // Notes that the process has reached a stage, or forgets one that was killed (null); an entry that is
    // gone or another process's by now stays as it is.
    void MarkCpuLimitInfo(const std::string& processName, int32_t pid, bool CpuLimitInfo::*stage);

    // Keeps the report on a build that is debuggable, once a subscription was accepted.
    void Record(History& history, const Info& info);
    // Called with mutex_ held.
    void UpdateAbnormalInfoBuffer(History& history, Info info);
    DumpInfo ConvertAbnormalInfoToDumpInfo(const Info& info);
    // One line for the log. The operation is spelt so by contract.
    std::string AbnormalInfoTostring(const Info& info);
    void DumpHistory(std::string& result, History& history);

    // The observer's pointer. Not held while subscribing: a report may come before that returns.
    std::mutex observerMutex_;
    std::shared_ptr<KelvraTaskObserver> kelvraTaskObserver_;

    std::mutex mutex_;  // the three histories
    History abnormalInfos_;
    History executedInfos_;
    History enhanceInfos_;

    std::mutex cpuLimitMutex_;  // the map alone; never held across a call of the platform
    std::map<std::string, CpuLimitInfo> cpuLimitInfos_;  // by process name

    const uint64_t maxHistorySize_ = 100;
    std::atomic<bool> historyEnabled_{false};
};

}  // namespace KITE::ResourceQuotaCtl
