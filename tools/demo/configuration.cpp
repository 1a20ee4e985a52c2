#include "demo/configuration.h"

#include <string>

#include "base/file.h"
#include "base/file_names.h"
#include "base/json_node.h"

namespace KITE::Demo {

namespace {

namespace fs = std::filesystem;
using Linux::Failure;
using Linux::JsonNode;
using Linux::Result;
using nlohmann::json;

std::vector<fs::path> ReadDirectories(const JsonNode& node) {
    std::vector<fs::path> directories;
    for (const JsonNode& directory : node.Required("directories").Elements()) {
        directories.emplace_back(directory.Text());
    }
    return directories;
}

json ReadAll(const JsonNode& node) {
    return *node.Value();
}

Result<void> Write(const std::string& path, const json& document) {
    const std::error_code error = Linux::WriteFile(path, document.dump(2));
    return error ? Result<void>(Failure(path, error)) : Result<void>();
}

// The shipped layers' copies, in the shipped order. Their mode is narrowed: the platform refuses directories
// that others than their owner may write, which those of a source tree may well be.
Result<std::vector<fs::path>> NarrowLayers(const fs::path& etc) {
    auto layers = Linux::ReadJsonFile(etc.string() + Linux::FileName::kConfigDirectories, ReadDirectories);
    for (size_t i = 0; layers && i < layers->size(); ++i) {
        std::error_code error;
        (*layers)[i] = etc / "quotas" / (*layers)[i].filename();
        fs::permissions((*layers)[i], fs::perms::group_write | fs::perms::others_write,
                        fs::perm_options::remove, error);
        if (error) {
            return Failure((*layers)[i].string(), error);
        }
    }
    return layers;
}

// What is measured is recorded.
Result<void> ChangeParameters(const std::string& etc) {
    const std::string path = etc + Linux::FileName::kParameters;
    Result<json> parameters = Linux::ReadJsonFile(path, ReadAll);
    if (!parameters) {
        return parameters.Why();
    }
    (*parameters)["kelvra.record_samples"] = true;
    return Write(path, *parameters);
}

}  // namespace

Result<void> WriteConfiguration(const fs::path& etc, const fs::path& shipped,
                                const std::vector<fs::path>& layers) {
    std::error_code error;
    fs::copy(shipped, etc, fs::copy_options::recursive, error);
    if (!error) {
        fs::permissions(etc.string() + Linux::FileName::kTokens, fs::perms{0644}, error);
    }
    if (error) {
        return Failure("the configuration of " + shipped.string(), error);
    }
    Result<std::vector<fs::path>> all = layers.empty() ? NarrowLayers(etc) : layers;
    if (!all) {
        return all.Why();
    }
    json directories = json::array();
    for (const fs::path& layer : *all) {
        directories.push_back(fs::absolute(layer).lexically_normal());
    }
    Result<void> written =
        Write(etc.string() + Linux::FileName::kConfigDirectories, {{"directories", directories}});
    return written ? ChangeParameters(etc) : written;
}

}  // namespace KITE::Demo
