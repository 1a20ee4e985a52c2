#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/json_node.h"
#include "config_policy.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace {

using namespace KITE::Linux;

struct ListDeleter {
    void operator()(CfgDir* list) const noexcept { FreeCfgDirList(list); }
};

std::string ConfigFile() {
    return GetSettings().etcDirectory + "/config_directories.json";
}

bool ReadDirectories(std::vector<std::string>& directories, std::string& error) {
    nlohmann::json document;
    if (!LoadJsonFile(ConfigFile(), document, error)) {
        return false;
    }
    if (document.is_null()) {
        return true;
    }
    std::string fault;
    const JsonNode root(document, fault);
    root.AllowKeys({"directories"});
    for (const JsonNode& element : root.Required("directories").Elements()) {
        directories.push_back(element.Text());
        if (directories.back().find('\0') != std::string::npos || !directories.back().starts_with('/')) {
            element.Fail("must be an absolute path");
        }
    }
    error = fault.empty() ? "" : ConfigFile() + ": " + fault;
    return fault.empty();
}

// Why the directory cannot be searched; null when it can.
const char* FaultOf(const std::string& directory) {
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        return strerrordesc_np(errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return strerrordesc_np(ENOTDIR);
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "others than its owner may write in it" : nullptr;
}

// A list that would lack entries for want of memory is no list.
CfgDir* MakeList(const std::vector<std::string>& directories) {
    std::unique_ptr<CfgDir, ListDeleter> list(static_cast<CfgDir*>(std::calloc(1, sizeof(CfgDir))));
    for (size_t i = 0; list && i < directories.size(); ++i) {
        list->paths[i] = strdup(directories[i].c_str());
        if (list->paths[i] == nullptr) {
            list.reset();
        }
    }
    return list.release();
}

}  // namespace

CfgDir* GetCfgDirList() {
    std::vector<std::string> named;
    std::string error;
    if (!ReadDirectories(named, error)) {
        PLATFORM_LOGE("no configuration directories: %{public}s", error.c_str());
        return nullptr;
    }
    std::vector<std::string> usable;
    for (const std::string& directory : named) {
        if (const char* fault = FaultOf(directory)) {
            PLATFORM_LOGW("configuration directory %{public}s is left out: %{public}s", directory.c_str(),
                          fault);
        } else if (usable.size() == MAX_CFG_POLICY_DIRS_CNT) {
            PLATFORM_LOGW("configuration directory %{public}s is left out: there are %{public}d before it",
                          directory.c_str(), int{MAX_CFG_POLICY_DIRS_CNT});
        } else {
            usable.push_back(directory);
        }
    }
    return usable.empty() ? nullptr : MakeList(usable);
}

void FreeCfgDirList(CfgDir* list) {
    if (list != nullptr) {
        for (char* path : list->paths) {
            std::free(path);
        }
        std::free(list);
    }
}
