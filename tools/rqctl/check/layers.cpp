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

bool IsText(const JsonValue* value) {
    return value != nullptr && value->IsString();
}

// Of a layer that can be read.
std::vector<Element> ElementsOf(const Layer& layer) {
    std::vector<Element> elements;
    const JsonValue* quotas = layer.json.fault ? nullptr : layer.json.root.Find("quotas");
    for (size_t i = 0; quotas != nullptr && quotas->IsArray() && i < quotas->children.size(); ++i) {
        const JsonValue& value = quotas->children[i];
        if (IsText(value.Find("process_name")) && IsText(value.Find("inherit"))) {
            elements.push_back({&layer, &value, i});
        }
    }
    return elements;
}

// The merge of the service, file by file, on records that stand for the elements.
struct Merge {
    ProcessQuotasMap mergedQuotas;
    ProcessQuotasMap fileQuotas;
    InheritMap parents;
    InheritMap fileInherit;
    std::map<std::shared_ptr<ProcessQuotas>, const Element*> elements;

    void Add(const Element& element) {
        const std::string& name = element.Name().text;
        const auto record = std::make_shared<ProcessQuotas>();
        elements[record] = &element;
        fileQuotas[name] = record;
        if (!element.Parent().text.empty()) {
            fileInherit.emplace(name, element.Parent().text);
        }
    }
    void EndFile() { ResPolicyManager().MergeQuotaConfig(mergedQuotas, fileQuotas, parents, fileInherit); }
};

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
    layers.reserve(files.size());
    for (const std::string& file : files) {
        layers.push_back(ReadLayer(file));
    }
    return layers;
}

MergedLayers::MergedLayers(const std::vector<Layer>& layers) {
    for (const Layer& layer : layers) {
        std::ranges::copy(ElementsOf(layer), std::back_inserter(elements_));
    }
    Merge merge;
    auto element = elements_.begin();
    for (const Layer& layer : layers) {
        for (; element != elements_.end() && element->layer == &layer; ++element) {
            merge.Add(*element);
        }
        merge.EndFile();
    }
    for (const auto& [name, record] : merge.mergedQuotas) {
        entries_[name].rulesFrom = merge.elements.at(record);
    }
    // Several elements may name the parent in force; the last of them is as good as the others.
    for (const Element& candidate : elements_) {
        const auto parent = merge.parents.find(candidate.Name().text);
        if (parent != merge.parents.end() && parent->second == candidate.Parent().text) {
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
