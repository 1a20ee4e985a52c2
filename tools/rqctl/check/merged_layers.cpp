#include "rqctl/check/layers.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>

#include "base/result.h"
#include "json_utils.h"
#include "res_policy_manager.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::InheritMap;
using ResourceQuotaCtl::JsonUtil;
using ResourceQuotaCtl::ProcessQuotas;
using ResourceQuotaCtl::ProcessQuotasMap;
using ResourceQuotaCtl::ResPolicyManager;

// Reads the file as the service does.
Layer ReadLayer(const std::string& path) {
    std::string text;
    if (JsonUtil::ReadFileToString(path, text)) {
        return {path, JsonText(std::move(text))};
    }
    const Linux::Failure reason =
        access(path.c_str(), R_OK) == 0 ? Linux::Failure("it cannot be opened") : Linux::LastError();
    Layer layer{path, JsonText("")};
    layer.json.fault = {0, "cannot be read: " + reason.Text(), "a quota file"};
    return layer;
}

// Of a layer that can be read.
std::vector<Element> ElementsOf(const Layer& layer) {
    const JsonValue* quotas = layer.json.fault ? nullptr : layer.json.root->Find("quotas");
    if (quotas == nullptr || !quotas->IsArray()) {
        return {};
    }
    std::vector<Element> elements;
    for (const JsonValue& value : quotas->children) {
        const auto isText = [&](const char* key) {
            const JsonValue* member = value.Find(key);
            return member != nullptr && member->IsString();
        };
        if (isText("process_name") && isText("inherit")) {
            elements.push_back({&layer, &value});
        }
    }
    return elements;
}

}  // namespace

std::vector<std::string> QuotaFilesOf(const std::vector<std::string>& paths) {
    std::vector<std::string> files;
    if (paths.empty()) {
        ResPolicyManager().GetQuotaConfigFilesList(files);
    }
    for (const std::string& path : paths) {
        std::error_code ignored;
        const std::string directory = path.ends_with('/') ? path.substr(0, path.size() - 1) : path;
        files.push_back(
            std::filesystem::is_directory(path, ignored) ? directory + ResPolicyManager::kConfigFile : path);
    }
    return files;
}

std::vector<Layer> ReadLayers(const std::vector<std::string>& files) {
    std::vector<Layer> layers;
    std::ranges::transform(files, std::back_inserter(layers), ReadLayer);
    return layers;
}

MergedLayers::MergedLayers(const std::vector<Layer>& layers) {
    for (const Layer& layer : layers) {
        std::ranges::copy(ElementsOf(layer), std::back_inserter(elements_));
    }
    // The service merges records, file by file, and does not look into them; these stand for the elements.
    std::map<std::shared_ptr<ProcessQuotas>, const Element*> elementOf;
    ProcessQuotasMap mergedQuotas;
    ProcessQuotasMap fileQuotas;
    InheritMap parents;
    InheritMap fileInherit;
    auto element = elements_.begin();
    for (const Layer& layer : layers) {
        for (; element != elements_.end() && element->layer == &layer; ++element) {
            const std::string& name = element->Name().text;
            fileQuotas[name] = std::make_shared<ProcessQuotas>();
            elementOf[fileQuotas[name]] = &*element;
            if (!element->Parent().text.empty()) {
                fileInherit.emplace(name, element->Parent().text);
            }
        }
        ResPolicyManager().MergeQuotaConfig(mergedQuotas, fileQuotas, parents, fileInherit);
    }
    for (const auto& [name, record] : mergedQuotas) {
        entries_[name].rulesFrom = elementOf.at(record);
    }
    // Several elements may name the parent in force; the last of them is as good as the others.
    for (const Element& candidate : elements_) {
        const auto parent = parents.find(candidate.Name().text);
        if (parent != parents.end() && parent->second == candidate.Parent().text) {
            entries_[parent->first].parentFrom = &candidate;
        }
    }
}

const Entry* MergedLayers::Find(const std::string& name) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? nullptr : &found->second;
}

const Entry* MergedLayers::ParentOf(const Entry& entry) const {
    return entry.parentFrom == nullptr ? nullptr : Find(entry.parentFrom->Parent().text);
}

}  // namespace KITE::Rqctl
