#include "rqctl/check/merged_layers.h"

#include <memory>

#include "res_policy_manager.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::InheritMap;
using ResourceQuotaCtl::ProcessQuotas;
using ResourceQuotaCtl::ProcessQuotasMap;
using ResourceQuotaCtl::ResPolicyManager;

bool HasText(const JsonValue& element, const char* key) {
    const JsonValue* member = element.Find(key);
    return member != nullptr && member->IsString();
}

std::vector<const JsonValue*> ElementsOf(const Layer& layer) {
    std::vector<const JsonValue*> elements;
    const JsonValue* quotas = layer.fault ? nullptr : layer.root.Find("quotas");
    if (quotas != nullptr && quotas->IsArray()) {
        for (const JsonValue& element : quotas->children) {
            if (HasText(element, "process_name") && HasText(element, "inherit")) {
                elements.push_back(&element);
            }
        }
    }
    return elements;
}

}  // namespace

MergedLayers::MergedLayers(const Layers& layers) {
    // The service merges records, file by file, and does not look into them; these stand for the elements.
    std::map<std::shared_ptr<ProcessQuotas>, const JsonValue*> elementOf;
    ProcessQuotasMap mergedQuotas;
    ProcessQuotasMap fileQuotas;
    InheritMap parents;
    InheritMap fileInherit;
    for (const Layer& layer : layers) {
        for (const JsonValue* element : ElementsOf(layer)) {
            const std::string& name = NameOf(*element).text;
            fileQuotas[name] = std::make_shared<ProcessQuotas>();
            elementOf[fileQuotas[name]] = element;
            if (const std::string& parent = InheritOf(*element).text; !parent.empty()) {
                fileInherit.emplace(name, parent);
            }
            elements.push_back(element);
        }
        ResPolicyManager().MergeQuotaConfig(mergedQuotas, fileQuotas, parents, fileInherit);
    }
    for (const auto& [name, record] : mergedQuotas) {
        entries[name].rulesFrom = elementOf.at(record);
    }
    // Several elements may name the parent in force; the last of them is as good as the others.
    for (const JsonValue* element : elements) {
        const auto parent = parents.find(NameOf(*element).text);
        if (parent != parents.end() && parent->second == InheritOf(*element).text) {
            const auto parentEntry = entries.find(parent->second);
            Entry& entry = entries[parent->first];
            entry.parentFrom = element;
            entry.parent = parentEntry == entries.end() ? nullptr : &parentEntry->second;
        }
    }
}

}  // namespace KITE::Rqctl
