#include "demo/configuration.h"

#include <functional>
#include <string>

#include "base/file.h"
#include "base/file_names.h"
#include "base/json_node.h"

namespace KITE::Demo {

namespace {

namespace fs = std::filesystem;
using Linux::Failure;
using Linux::Result;
using nlohmann::json;

Result<void> ChangeFile(const std::string& path, const std::function<void(json&)>& change) {
    Result<json> document =
        Linux::ReadJsonFile(path, [](const Linux::JsonNode& node) { return *node.Value(); });
    if (!document) {
        return document.Why();
    }
    change(*document);
    const std::error_code error = Linux::WriteFile(path, document->dump(2));
    return error ? Result<void>(Failure(path, error)) : Result<void>();
}

}  // namespace

Result<void> WriteConfiguration(const fs::path& etc, const fs::path& shipped,
                                const std::vector<fs::path>& layers) {
    std::error_code error;
    fs::copy(shipped, etc, fs::copy_options::recursive, error);
    if (error) {
        return Failure("the configuration of " + shipped.string(), error);
    }
    // The platform refuses what others than the owner may write, which a source tree may well allow.
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(etc)) {
        fs::permissions(entry, entry.is_directory() ? fs::perms{0755} : fs::perms{0644});
    }
    Result<void> changed = ChangeFile(etc.string() + Linux::FileName::kParameters,
                                      [](json& parameters) { parameters["kelvra.record_samples"] = true; });
    if (!changed) {
        return changed;
    }
    return ChangeFile(etc.string() + Linux::FileName::kConfigDirectories, [&](json& document) {
        json directories = json::array();
        for (const fs::path& layer : layers) {
            directories.push_back(fs::absolute(layer).lexically_normal());
        }
        for (const json& layer : layers.empty() ? document["directories"] : json::array()) {
            directories.push_back(etc / "quotas" / fs::path(layer.get<std::string>()).filename());
        }
        document["directories"] = directories;
    });
}

}  // namespace KITE::Demo
