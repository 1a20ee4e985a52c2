#include "res_policy_manager.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "config_policy.h"
#include "json_utils.h"
#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using Kelvra::ResQuotaInfo;
using nlohmann::json;

constexpr const char* kBaseDirectory = "/system";
constexpr size_t kSpentAtOnce = 1024;  // some 400 KB of a document, which the processor's cache still holds

bool IsResourceType(std::string_view key) {
    return std::ranges::find(kResourceTypes, key) != kResourceTypes.end();
}

uint32_t ConditionBit(std::string_view name) {
    const auto entry = std::ranges::find(kConditionBits, name, [](const auto& bit) { return bit.first; });
    return entry == kConditionBits.end() ? 0 : entry->second;
}

// What the child has keeps its place, key by key; only keys that it lacks come from the parent.
void Inherit(ProcessQuotas& child, const ProcessQuotas& parent) {
    if (child.runningTime == 0) {
        child.runningTime = parent.runningTime;
    }
    child.quotas.insert(parent.quotas.begin(), parent.quotas.end());
}

// A document takes several times the memory of the policy that is read from it, and only glibc has to be told
// to give it back to the system.
void GiveMemoryBack() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

// Moves the entries whose keys the map lacks.
template <typename Map>
void MoveMissing(Map& map, Map& from) {
    if (map.empty()) {
        map.swap(from);
    } else {
        map.merge(from);
    }
}

size_t CountRules(const ProcessQuotasMap& processQuotas) {
    size_t count = 0;
    for (const auto& [name, entry] : processQuotas) {
        if (entry) {
            for (const auto& [key, rules] : entry->quotas) {
                count += rules.size();
            }
        }
    }
    return count;
}

void Fill(ResQuotaInfo& info, const std::string& processName, const std::string& resType,
          const QuotaForResource& rule) {
    info.duration = rule.duration;
    info.resource = rule.resourceQuota;
    info.id = rule.id;
    info.processType = 0;
    info.action = rule.action;
    info.processName = processName;
    info.resType = resType;
    info.conditions = rule.conditions;
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
    {
        MergeState state;
        const bool isLoaded = LoadAndMergeFiles(files, state);
        isConfigInit_ = isLoaded && HandleInheritInfo(state.mergedQuotas, state.mergedInherit);
        if (isLoaded && !isConfigInit_) {
            RQC_LOGE("Merge quota config failed!");
        }
    }
    FreeSpent();
    GiveMemoryBack();
    return isConfigInit_;
}

void ResPolicyManager::FreeSpent() {
    spent_.clear();
    spent_.shrink_to_fit();
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

bool ResPolicyManager::LoadAndMergeFiles(const std::vector<std::string>& files, MergeState& state) {
    for (const std::string& file : files) {
        json root;
        if (!JsonUtil::LoadJsonObjFromFile(root, file) ||
            !ParseProcessQuotaConfig(std::move(root), state.fileQuotas, state.fileInherit)) {
            RQC_LOGE("config file %{public}s is refused", file.c_str());
            return false;
        }
        if (&file == &files.back()) {
            MergeLastQuotaConfig(state);
        } else {
            MergeQuotaConfig(state.mergedQuotas, state.fileQuotas, state.mergedInherit, state.fileInherit);
        }
    }
    return true;
}

bool ResPolicyManager::ParseProcessQuotaConfig(json root, ProcessQuotasMap& processQuotas,
                                               InheritMap& inherit) {
    json entries;
    if (!JsonUtil::GetArrayFromJsonObj(std::move(root), "quotas", entries)) {
        RQC_LOGE("Get quotas arrays failed!");
        return false;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        if (const char* wrongKey = ParseProcessEntry(std::move(entries[i]), processQuotas, inherit)) {
            RQC_LOGE("ParseProcessQuotaConfig failed!");
            RQC_LOGE("/quotas/%{public}lu: %{public}s is missing or wrong", i, wrongKey);
            return false;
        }
        if (spent_.size() >= kSpentAtOnce) {
            FreeSpent();
        }
    }
    FreeSpent();
    return true;
}

const char* ResPolicyManager::ParseProcessEntry(json entry, ProcessQuotasMap& processQuotas,
                                                InheritMap& inherit) {
    const auto record = std::make_shared<ProcessQuotas>();
    json& spent = spent_.emplace_back(std::move(entry));
    if (!JsonUtil::GetStringFromJsonObj(spent, "process_name", record->processName)) {
        return "process_name";
    }
    std::string parent;
    if (!JsonUtil::GetStringFromJsonObj(spent, "inherit", parent)) {
        return "inherit";
    }
    if (!parent.empty()) {
        inherit.emplace(record->processName, std::move(parent));
    }
    json quotas;
    if (!JsonUtil::GetObjFromJsonObj(std::move(spent), "process_quotas", quotas) ||
        !ParseProcessQuotas(std::move(quotas), record)) {
        return "process_quotas";
    }
    processQuotas[record->processName] = record;
    return nullptr;
}

bool ResPolicyManager::ParseProcessQuotas(json quotas, const std::shared_ptr<ProcessQuotas>& processQuotas) {
    JsonUtil::GetIntFromJsonObj(quotas, "running_time", processQuotas->runningTime);
    for (auto& [key, value] : quotas.items()) {
        std::vector<std::shared_ptr<QuotaForResource>> rules;
        if (IsResourceType(key) && value.is_array()) {
            rules.reserve(value.size());
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
    spent_.push_back(std::move(quotas));
    return true;
}

bool ResPolicyManager::ParseQuotaForResource(json rule, const std::shared_ptr<QuotaForResource>& quota) {
    if (const char* wrongKey = ReadRule(rule, *quota)) {
        RQC_LOGE("ParseQuotaForResource failed!");
        RQC_LOGE("%{public}s of a rule is missing or wrong", wrongKey);
        return false;
    }
    spent_.push_back(std::move(rule));
    return true;
}

const char* ResPolicyManager::ReadRule(const json& rule, QuotaForResource& quota) const {
    json conditions;
    if (!JsonUtil::GetArrayFromJsonObj(rule, "condition", conditions)) {
        return "condition";
    }
    for (json& condition : conditions) {
        if (!condition.is_string()) {
            return "condition";
        }
        quota.conditions.push_back(ParseConditions(std::move(condition.get_ref<std::string&>())));
    }
    if (!JsonUtil::GetIntFromJsonObj(rule, "id", quota.id)) {
        return "id";
    }
    if (!JsonUtil::GetInt64FromJsonObj(rule, "resource_quota", quota.resourceQuota)) {
        return "resource_quota";
    }
    if (!JsonUtil::GetInt64FromJsonObj(rule, "duration", quota.duration)) {
        return "duration";
    }
    return JsonUtil::GetStringFromJsonObj(rule, "action", quota.action) ? nullptr : "action";
}

uint32_t ResPolicyManager::ParseConditions(std::string conditions) const {
    uint32_t mask = 0;
    for (std::string_view rest = conditions; !rest.empty();) {
        const size_t end = rest.find('&');
        mask |= ConditionBit(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return mask;
}

void ResPolicyManager::MergeQuotaConfig(ProcessQuotasMap& mergedQuotas, ProcessQuotasMap& fileQuotas,
                                        InheritMap& mergedInherit, InheritMap& fileInherit) const {
    Redefine(mergedQuotas, fileQuotas, mergedInherit, fileInherit);
    mergedQuotas.insert(fileQuotas.begin(), fileQuotas.end());
    mergedInherit.insert(fileInherit.begin(), fileInherit.end());
}

void ResPolicyManager::MergeLastQuotaConfig(MergeState& state) const {
    Redefine(state.mergedQuotas, state.fileQuotas, state.mergedInherit, state.fileInherit);
    MoveMissing(state.mergedQuotas, state.fileQuotas);
    MoveMissing(state.mergedInherit, state.fileInherit);
}

void ResPolicyManager::Redefine(ProcessQuotasMap& mergedQuotas, ProcessQuotasMap& fileQuotas,
                                InheritMap& mergedInherit, InheritMap& fileInherit) const {
    for (auto& [name, record] : mergedQuotas) {
        const auto later = fileQuotas.find(name);
        if (later == fileQuotas.end()) {
            continue;
        }
        record = std::move(later->second);
        fileQuotas.erase(later);
        mergedInherit.erase(name);
        const auto parent = fileInherit.find(name);
        if (parent != fileInherit.end()) {
            mergedInherit[name] = std::move(parent->second);
            fileInherit.erase(parent);
        }
    }
}

bool ResPolicyManager::HandleInheritInfo(ProcessQuotasMap& mergedQuotas, InheritMap& mergedInherit) {
    if (!IsInheritInfoValid(mergedInherit)) {
        return false;
    }
    for (std::string name = GetTopInheritInfo(mergedInherit); !name.empty();
         name = GetTopInheritInfo(mergedInherit)) {
        const auto link = mergedInherit.find(name);
        const auto child = mergedQuotas.find(name);
        const auto parent = mergedQuotas.find(link->second);
        if (parent == mergedQuotas.end()) {
            RQC_LOGE("MergeConfig not find template name: %{public}s", link->second.c_str());
            return false;
        }
        Inherit(*child->second, *parent->second);
        mergedInherit.erase(link);
    }
    MoveMissing(processQuotasMap_, mergedQuotas);
    ruleCount_ = CountRules(processQuotasMap_);
    return true;
}

bool ResPolicyManager::IsInheritInfoValid(const InheritMap& inherit) const {
    std::unordered_map<std::string_view, const std::string*>
        walks;  // by name, the child from which it was met
    walks.reserve(inherit.size());
    for (const auto& [child, firstParent] : inherit) {
        // Ends where an earlier walk, which found no cycle, has been.
        for (auto link = inherit.find(child);
             link != inherit.end() && walks.emplace(link->first, &child).second;
             link = inherit.find(link->second)) {
            const auto met = walks.find(link->second);
            if (met != walks.end() && met->second == &child) {
                RQC_LOGE("Find circular inheritance: %{public}s, %{public}s", link->first.c_str(),
                         link->second.c_str());
                return false;
            }
        }
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
    infos.reserve(infos.size() + ruleCount_);
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
            Fill(infos.emplace_back(), processQuotas->processName, resType, *rule);
        }
    }
}

std::map<std::string, int32_t> ResPolicyManager::GetExtensionRunningTime() {
    const std::lock_guard lock(mutex_);
    std::map<std::string, int32_t> runningTimes;
    for (const auto& [name, processQuotas] : processQuotasMap_) {
        if (processQuotas && processQuotas->runningTime >= 1) {
            // The names come in their order.
            runningTimes.emplace_hint(runningTimes.end(), processQuotas->processName,
                                      processQuotas->runningTime);
        }
    }
    return runningTimes;
}

}  // namespace KITE::ResourceQuotaCtl
