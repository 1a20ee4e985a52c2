#include "rqctl/check/layers.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "json_utils.h"
#include "res_policy_manager.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::InheritMap;
using ResourceQuotaCtl::JsonUtil;
using ResourceQuotaCtl::ProcessQuotas;
using ResourceQuotaCtl::ProcessQuotasMap;
using ResourceQuotaCtl::ResPolicyManager;

Layer ReadLayer(const std::string& path) {
    std::string text;
    if (JsonUtil::ReadFileToString(path, text)) {
        return {path, JsonText(std::move(text))};
    }
    const char* reason = access(path.c_str(), R_OK) == 0 ? "it cannot be opened" : strerrordesc_np(errno);
    Layer layer{path, JsonText("")};
    layer.json.fault = {0, std::string("cannot be read: ") + reason, "a quota file"};
    return layer;
}

std::vector<Element> ElementsOf(const std::vector<Layer>& layers) {
    std::vector<Element> elements;
    for (const Layer& layer : layers) {
        const JsonValue* quotas = layer.json.root.Find("quotas");
        for (size_t i = 0; !layer.json.fault && quotas != nullptr && i < quotas->children.size(); ++i) {
            const JsonValue& value = quotas->children[i];
            const JsonValue* name = value.Find("process_name");
            const JsonValue* parent = value.Find("inherit");
            const bool isElement = quotas->IsArray() && name != nullptr && name->IsString() &&
                                   parent != nullptr && parent->IsString();
            if (isElement) {
                elements.push_back({&layer, &value, i});
            }
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
        const bool isDirectory = std::filesystem::is_directory(path, ignored);
        const bool hasSlash = path.ends_with('/');
        files.push_back(isDirectory
                            ? path.substr(0, path.size() - (hasSlash ? 1 : 0)) + ResPolicyManager::kConfigFile
                            : path);
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

MergedLayers::MergedLayers(const std::vector<Layer>& layers) : elements_(ElementsOf(layers)) {
    Merge merge;
    auto element = elements_.begin();
    for (const Layer& layer : layers) {
        for (; element != elements_.end() && element->layer == &layer; ++element) {
            merge.Add(*element);
        }
        merge.EndFile();
    }
    for (const auto& [name, record] : merge.mergedQuotas) {
        entries_[name].record = merge.elements.at(record);
    }
    // Several elements may name the parent in force; the last of them is as good as the others.
    for (const Element& candidate : elements_) {
        const auto parent = merge.parents.find(candidate.Name().text);
        if (parent != merge.parents.end() && parent->second == candidate.Parent().text) {
            entries_[parent->first].heir = &candidate;
        }
    }
}

const Entry* MergedLayers::Find(const std::string& name) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? nullptr : &found->second;
}

const Entry* MergedLayers::ParentOf(const Entry& entry) const {
    return entry.heir == nullptr ? nullptr : Find(entry.heir->Parent().text);
}

}  // namespace KITE::Rqctl
