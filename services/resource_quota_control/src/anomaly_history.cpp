// The texts of reports, and the histories that the dump command prints.
#include <string>
#include <utility>

#include "dump_info.h"
#include "resource_quota_control_impl.h"
#include "time_service.h"

namespace KITE::ResourceQuotaCtl {

std::string DumpInfo::ToString() const {
    std::string text = "pid_" + std::to_string(pid_);
    text += " uid_" + std::to_string(uid_);
    text += " processname_" + processname_;
    text += " processtype_" + std::to_string(processtype_);
    text += " action_" + action_;
    text += " restype_" + restype_;
    text += " duration_" + std::to_string(duration_);
    text += " condition_";
    for (const uint32_t condition : condition_) {
        text += std::to_string(condition) + '_';
    }
    text += " id_" + std::to_string(id_);
    text += " resource_" + std::to_string(resource_);
    text += " timestamp_" + std::to_string(timestamp_);
    return text;
}

std::string ResourceQuotaControlImpl::AbnormalInfoTostring(const Info& info) {
    std::string text = "pid is " + std::to_string(info.pid);
    text += ", uid is " + std::to_string(info.uid);
    text += ", process name is " + info.processName;
    text += ", process type is " + std::to_string(static_cast<uint32_t>(info.processType));
    text += ", action is " + info.action;
    text += ", restype is " + info.resType;
    text += ", duration is " + std::to_string(info.duration);
    text += ", condition is ";
    for (const uint32_t condition : info.conditions) {
        text += std::to_string(condition) + ' ';
    }
    text += "id is " + std::to_string(info.id);
    return text;
}

void ResourceQuotaControlImpl::Record(History& history, const Info& info) {
    if (historyEnabled_) {
        const std::lock_guard lock(mutex_);
        UpdateAbnormalInfoBuffer(history, info);
    }
}

void ResourceQuotaControlImpl::UpdateAbnormalInfoBuffer(History& history, Info info) {
    history.push(ConvertAbnormalInfoToDumpInfo(info));
    if (history.size() > maxHistorySize_) {
        history.pop();
    }
}

DumpInfo ResourceQuotaControlImpl::ConvertAbnormalInfoToDumpInfo(const Info& info) {
    DumpInfo record(info.duration, info.resource, info.uid, info.pid, info.id,
                    static_cast<uint32_t>(info.processType), info.action, info.resType, info.processName,
                    info.conditions);
    record.timestamp_ = TimeServiceClient::GetInstance().GetWallTimeMs();
    return record;
}

void ResourceQuotaControlImpl::DumpAbnormalInfo(std::string& result, bool isReported) {
    DumpHistory(result, isReported ? abnormalInfos_ : executedInfos_);
}

void ResourceQuotaControlImpl::DumpAbnormalEnhanceInfo(std::string& result) {
    DumpHistory(result, enhanceInfos_);
}

// A queue can only be walked by rotating it; it ends as it was.
void ResourceQuotaControlImpl::DumpHistory(std::string& result, History& history) {
    const std::lock_guard lock(mutex_);
    for (size_t left = history.size(); left > 0; --left) {
        result += history.front().ToString() + '\n';
        history.push(std::move(history.front()));
        history.pop();
    }
}

}  // namespace KITE::ResourceQuotaCtl
