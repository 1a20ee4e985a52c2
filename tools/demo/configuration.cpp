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

// The shipped layers, in the shipped order. Copied, since the platform refuses directories that others than
// their owner may write, which a source tree may well be.
Result<std::vector<fs::path>> CopyLayers(const fs::path& etc, const fs::path& shipped) {
    auto layers =
        Linux::ReadJsonFile(shipped.string() + Linux::FileName::kConfigDirectories, ReadDirectories);
    if (!layers) {
        return layers;
    }
    std::error_code error;
    fs::create_directories(etc / "quotas", error);
    for (fs::path& layer : *layers) {
        const fs::path source = shipped / "quotas" / layer.filename();
        layer = etc / "quotas" / layer.filename();
        fs::copy(source, layer, fs::copy_options::recursive, error);
        if (!error) {
            fs::permissions(layer, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove,
                            error);
        }
        if (error) {
            return Failure(source.string(), error);
        }
    }
    return layers;
}

Result<void> WriteParameters(const std::string& etc, const std::string& shipped) {
    Result<json> parameters = Linux::ReadJsonFile(shipped + Linux::FileName::kParameters, ReadAll);
    if (!parameters) {
        return parameters.Why();
    }
    (*parameters)["kelvra.record_samples"] = true;
    return Write(etc + Linux::FileName::kParameters, *parameters);
}

Result<void> CopyTokens(const std::string& etc, const std::string& shipped) {
    const Result<std::string> tokens = Linux::ReadFile(shipped + Linux::FileName::kTokens);
    const std::error_code error =
        tokens ? Linux::WriteFile(etc + Linux::FileName::kTokens, *tokens) : tokens.Code();
    return error ? Result<void>(Failure("the tokens of " + shipped, error)) : Result<void>();
}

}  // namespace

Result<void> WriteConfiguration(const fs::path& etc, const fs::path& shipped,
                                const std::vector<fs::path>& layers) {
    Result<std::vector<fs::path>> all = layers.empty() ? CopyLayers(etc, shipped) : layers;
    if (!all) {
        return all.Why();
    }
    json directories = json::array();
    for (const fs::path& layer : *all) {
        directories.push_back(fs::absolute(layer).lexically_normal());
    }
    Result<void> written =
        Write(etc.string() + Linux::FileName::kConfigDirectories, {{"directories", directories}});
    written = written ? WriteParameters(etc, shipped) : written;
    return written ? CopyTokens(etc, shipped) : written;
}

}  // namespace KITE::Demo
