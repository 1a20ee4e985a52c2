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
    auto list = std::make_unique<CfgDir>();
    size_t count = 0;
    for (const std::string& directory : *named) {
        if (const Result<void> isUsable = RequireUsable(directory); !isUsable) {
            PLATFORM_LOGW("configuration directory %{public}s is left out: %{public}s", directory.c_str(),
                          isUsable.Why().Text().c_str());
        } else if (count == MAX_CFG_POLICY_DIRS_CNT) {
            PLATFORM_LOGW("configuration directory %{public}s is left out: it is behind the first %{public}d",
                          directory.c_str(), int{MAX_CFG_POLICY_DIRS_CNT});
        } else {
            list->paths[count++] = strdup(directory.c_str());
        }
    }
    return count == 0 ? nullptr : list.release();
}

void FreeCfgDirList(CfgDir* list) {
    const std::unique_ptr<CfgDir> freed(list);
    for (size_t i = 0; freed && i < MAX_CFG_POLICY_DIRS_CNT; ++i) {
        std::free(freed->paths[i]);
    }
}
