#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/file_names.h"
#include "base/json_node.h"
#include "config_policy.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace {

using namespace KITE::Linux;

struct ListDeleter {
    void operator()(CfgDir* list) const noexcept { FreeCfgDirList(list); }
};

std::vector<std::string> ReadDirectories(const JsonNode& root) {
    std::vector<std::string> directories;
    root.AllowKeys({"directories"});
    for (const JsonNode& element : root.Required("directories").Elements()) {
        directories.push_back(element.Text());
        if (directories.back().find('\0') != std::string::npos || !directories.back().starts_with('/')) {
            element.Fail("must be an absolute path");
        }
    }
    return directories;
}

// Fails when there is no such directory, or when others than its owner may put files into it.
Result<void> RequireUsable(const std::string& directory) {
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        return LastError();
    }
    if (!S_ISDIR(status.st_mode)) {
        return ErrorOf(ENOTDIR);
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return Failure("others than its owner may write in it");
    }
    return {};
}

// Null when there is not enough memory for all entries.
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
    const auto named =
        ReadJsonFile(GetSettings().etcDirectory + FileName::kConfigDirectories, ReadDirectories);
    if (!named) {
        if (!Is(named.Code(), ENOENT)) {
            PLATFORM_LOGE("no configuration directories are used: %{public}s", named.Why().Text().c_str());
        }
        return nullptr;
    }
    std::vector<std::string> usable;
    for (const std::string& directory : *named) {
        if (const Result<void> isUsable = RequireUsable(directory); !isUsable) {
            PLATFORM_LOGW("configuration directory %{public}s is left out: %{public}s", directory.c_str(),
                          isUsable.Why().Text().c_str());
        } else if (usable.size() == MAX_CFG_POLICY_DIRS_CNT) {
            PLATFORM_LOGW("configuration directory %{public}s is left out: it is behind the first %{public}d",
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
