#include "res_policy_manager.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "config_policy.h"
#include "json_utils.h"
#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using Kelvra::ResQuotaInfo;
using nlohmann::json;

constexpr const char* kBaseDirectory = "/system";

bool IsResourceType(std::string_view key) {
    return std::ranges::find(kResourceTypes, key) != kResourceTypes.end();
}

uint32_t ConditionBit(std::string_view name) {
    const auto entry = std::ranges::find(kConditionBits, name, [](const auto& bit) { return bit.first; });
    return entry == kConditionBits.end() ? 0 : entry->second;
}

// A key that the child has stays as it is, even with an empty list; only the other keys come from the parent.
void Inherit(ProcessQuotas& child, const ProcessQuotas& parent) {
    if (child.runningTime == 0) {
        child.runningTime = parent.runningTime;
    }
    child.quotas.insert(parent.quotas.begin(), parent.quotas.end());
}

// A document takes several times the memory of the policy that is read from it. glibc keeps what is freed
// below memory in use and has to be told to give it back: else a host keeps 3.6 times what the policy needs.
void GiveMemoryBack() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

}  // namespace

bool ResPolicyManager::Init() {
    const std::lock_guard lock(mutex_);
    RQC_LOGI("%{public}s", "Init");
    if (isConfigInit_) {
        return true;
    }
    std::vector<std::string> files;
    GetQuotaConfigFilesList(files);
    if (files.empty()) {
        RQC_LOGE("There are no valid config files");
        return false;
    }
    return Init(files);
}

bool ResPolicyManager::InitFromFiles(const std::vector<std::string>& files) {
    const std::lock_guard lock(mutex_);
    return isConfigInit_ || Init(files);
}

bool ResPolicyManager::Init(const std::vector<std::string>& files) {
    ProcessQuotasMap mergedQuotas;
    ProcessQuotasMap fileQuotas;
    InheritMap mergedInherit;
    InheritMap fileInherit;
    for (const std::string& file : files) {
        json root;
        if (!JsonUtil::LoadJsonObjFromFile(root, file) ||
            !ParseProcessQuotaConfig(std::move(root), fileQuotas, fileInherit)) {
            RQC_LOGE("config file %{public}s is refused", file.c_str());
            return false;
        }
        MergeQuotaConfig(mergedQuotas, fileQuotas, mergedInherit, fileInherit);
    }
    if (!HandleInheritInfo(mergedQuotas, mergedInherit)) {
        RQC_LOGE("Merge quota config failed!");
        return false;
    }
    isConfigInit_ = true;
    GiveMemoryBack();
    return true;
}

void ResPolicyManager::GetQuotaConfigFilesList(std::vector<std::string>& files) const {
    std::vector<std::string> directories;
    if (const std::unique_ptr<CfgDir, decltype(&FreeCfgDirList)> list{GetCfgDirList(), &FreeCfgDirList}) {
        for (const char* path : list->paths) {
            if (path != nullptr) {
                RQC_LOGD("cfgDir: %{public}s ", path);
                directories.emplace_back(path);
            }
        }
    }
    if (std::ranges::find(directories, kBaseDirectory) == directories.end()) {
        directories.emplace(directories.begin(), kBaseDirectory);
    }
    for (const std::string& directory : directories) {
        std::string path;
        if (JsonUtil::GetRealPath(directory + kConfigFile, path) && access(path.c_str(), F_OK) == 0) {
            RQC_LOGD("Get valid base config file: %{public}s", path.c_str());
            files.push_back(std::move(path));
        }
    }
}

bool ResPolicyManager::ParseProcessQuotaConfig(json root, ProcessQuotasMap& processQuotas,
                                               InheritMap& inherit) {
    json entries;
    if (!JsonUtil::GetArrayFromJsonObj(std::move(root), "quotas", entries)) {
        RQC_LOGE("Get quotas arrays failed!");
        return false;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        const auto record = std::make_shared<ProcessQuotas>();
        std::string parent;
        json quotas;
        const char* key = nullptr;  // the one that is being read
        const bool isNamed =
            JsonUtil::GetStringFromJsonObj(entries[i], key = "process_name", record->processName) &&
            JsonUtil::GetStringFromJsonObj(entries[i], key = "inherit", parent);
        // Of two entries with one name in a file the later record stands, and the earlier parent.
        if (isNamed && !parent.empty()) {
            inherit.emplace(record->processName, std::move(parent));
        }
        // The quotas are copied: if they were moved, their pieces would be freed one by one and filled with
        // records, and no page of the document could be given back when it is freed.
        if (!isNamed || !JsonUtil::GetObjFromJsonObj(entries[i], key = "process_quotas", quotas) ||
            !ParseProcessQuotas(std::move(quotas), record)) {
            RQC_LOGE("ParseProcessQuotaConfig failed!");
            RQC_LOGE("/quotas/%{public}lu: %{public}s is missing or wrong", i, key);
            return false;
        }
        processQuotas[record->processName] = record;
    }
    return true;
}

bool ResPolicyManager::ParseProcessQuotas(json quotas, const std::shared_ptr<ProcessQuotas>& processQuotas) {
    JsonUtil::GetIntFromJsonObj(quotas, "running_time", processQuotas->runningTime);
    for (auto& [key, value] : quotas.items()) {
        std::vector<std::shared_ptr<QuotaForResource>> rules;
        if (IsResourceType(key) && value.is_array()) {
            for (json& element : value) {
                const auto rule = std::make_shared<QuotaForResource>();
                if (!ParseQuotaForResource(std::move(element), rule)) {
                    RQC_LOGE("ParseProcessQuotas failed!");
                    RQC_LOGE("/process_quotas/%{public}s/%{public}lu is wrong", key.c_str(), rules.size());
                    return false;
                }
                rules.push_back(rule);
            }
        }
        processQuotas->quotas[key] = std::move(rules);
    }
    return true;
}

bool ResPolicyManager::ParseQuotaForResource(json rule, const std::shared_ptr<QuotaForResource>& quota) {
    const char* key = nullptr;  // the one that is being read
    json conditions;
    const bool isRead = JsonUtil::GetArrayFromJsonObj(rule, key = "condition", conditions) &&
                        ParseConditionList(std::move(conditions), quota->conditions) &&
                        JsonUtil::GetIntFromJsonObj(rule, key = "id", quota->id) &&
                        JsonUtil::GetInt64FromJsonObj(rule, key = "resource_quota", quota->resourceQuota) &&
                        JsonUtil::GetInt64FromJsonObj(rule, key = "duration", quota->duration) &&
                        JsonUtil::GetStringFromJsonObj(rule, key = "action", quota->action);
    if (!isRead) {
        RQC_LOGE("ParseQuotaForResource failed!");
        RQC_LOGE("%{public}s of a rule is missing or wrong", key);
    }
    return isRead;
}

bool ResPolicyManager::ParseConditionList(json conditions, std::vector<uint32_t>& masks) const {
    for (json& condition : conditions) {
        if (!condition.is_string()) {
            return false;
        }
        masks.push_back(ParseConditions(std::move(condition.get_ref<std::string&>())));
    }
    return true;
}

uint32_t ResPolicyManager::ParseConditions(std::string conditions) const {
    uint32_t mask = 0;
    std::istringstream names(std::move(conditions));
    for (std::string name; std::getline(names, name, '&');) {
        mask |= ConditionBit(name);
    }
    return mask;
}

void ResPolicyManager::MergeQuotaConfig(ProcessQuotasMap& mergedQuotas, ProcessQuotasMap& fileQuotas,
                                        InheritMap& mergedInherit, InheritMap& fileInherit) const {
    for (auto& [name, record] : mergedQuotas) {
        const auto later = fileQuotas.find(name);
        if (later == fileQuotas.end()) {
            continue;
        }
        record = later->second;
        fileQuotas.erase(later);
        mergedInherit.erase(name);
        if (const auto parent = fileInherit.find(name); parent != fileInherit.end()) {
            mergedInherit[name] = parent->second;
            fileInherit.erase(parent);
        }
    }
    // What is new stays in the maps of the file, and counts as said again by the next file.
    mergedQuotas.insert(fileQuotas.begin(), fileQuotas.end());
    mergedInherit.insert(fileInherit.begin(), fileInherit.end());
}

bool ResPolicyManager::HandleInheritInfo(const ProcessQuotasMap& mergedQuotas, InheritMap& mergedInherit) {
    if (!IsInheritInfoValid(mergedInherit)) {
        return false;
    }
    for (std::string name = GetTopInheritInfo(mergedInherit); !name.empty();
         name = GetTopInheritInfo(mergedInherit)) {
        const std::string& parentName = mergedInherit.at(name);
        const auto parent = mergedQuotas.find(parentName);
        if (parent == mergedQuotas.end()) {
            RQC_LOGE("MergeConfig not find template name: %{public}s", parentName.c_str());
            return false;
        }
        Inherit(*mergedQuotas.at(name), *parent->second);
        mergedInherit.erase(name);
    }
    processQuotasMap_.insert(mergedQuotas.begin(), mergedQuotas.end());
    return true;
}

bool ResPolicyManager::IsInheritInfoValid(const InheritMap& inherit) const {
    std::set<std::string_view> cleared;  // names from which an earlier walk found no cycle
    for (const auto& [child, firstParent] : inherit) {
        std::set<std::string_view> visited;
        for (auto link = inherit.find(child); link != inherit.end() && !cleared.contains(link->first);
             link = inherit.find(link->second)) {
            const auto& [name, parent] = *link;
            if (visited.contains(parent)) {
                RQC_LOGE("Find circular inheritance: %{public}s, %{public}s", name.c_str(), parent.c_str());
                return false;
            }
            visited.insert(name);
        }
        cleared.merge(visited);
    }
    return true;
}

std::string ResPolicyManager::GetTopInheritInfo(const InheritMap& inherit) const {
    if (inherit.empty()) {
        return "";
    }
    auto link = inherit.begin();
    for (auto parent = inherit.find(link->second); parent != inherit.end();
         parent = inherit.find(link->second)) {
        link = parent;
    }
    return link->first;
}

void ResPolicyManager::GetAllResQuotaInfos(std::vector<ResQuotaInfo>& infos) {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, processQuotas] : processQuotasMap_) {
        GetResQuotaInfosOfOneProcess(processQuotas, infos);
    }
}

void ResPolicyManager::GetResQuotaInfosOfOneProcess(const std::shared_ptr<ProcessQuotas>& processQuotas,
                                                    std::vector<ResQuotaInfo>& infos) const {
    if (!processQuotas) {
        return;
    }
    for (const auto& [resType, rules] : processQuotas->quotas) {
        for (const auto& rule : rules) {
            ResQuotaInfo& info = infos.emplace_back();
            info.duration = rule->duration;
            info.resource = rule->resourceQuota;
            info.id = rule->id;
            info.action = rule->action;
            info.processName = processQuotas->processName;
            info.resType = resType;
            info.conditions = rule->conditions;
        }
    }
}

std::map<std::string, int32_t> ResPolicyManager::GetExtensionRunningTime() {
    const std::lock_guard lock(mutex_);
    std::map<std::string, int32_t> runningTimes;
    for (const auto& [name, processQuotas] : processQuotasMap_) {
        if (processQuotas && processQuotas->runningTime >= 1) {
            runningTimes.emplace(processQuotas->processName, processQuotas->runningTime);
        }
    }
    return runningTimes;
}

}  // namespace KITE::ResourceQuotaCtl
