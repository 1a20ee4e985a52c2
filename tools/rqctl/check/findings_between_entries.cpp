#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "proc/program.h"
#include "rqctl/check/findings.h"
#include "rqctl/check/merged_layers.h"

namespace KITE::Rqctl {

namespace {

void CheckForNamesDefinedTwice(const MergedLayers& merged, Findings& findings) {
    std::map<std::pair<const Layer*, std::string>, const JsonValue*> first;
    for (const JsonValue* element : merged.elements) {
        const JsonValue& name = NameOf(*element);
        const auto [found, isNew] = first.try_emplace({element->layer, name.text}, element);
        if (!isNew) {
            findings.Warn(name,
                          fmt::format("{0} is also in line {1}: these rules replace those, but the parent "
                                      "stays that of line {1}",
                                      name.Excerpt(), NameOf(*found->second).Place().line),
                          "each name once in a file");
        }
    }
}

bool IsOnCycle(const Entry& start) {
    std::set<const Entry*> visited;
    const Entry* entry = start.parent;
    while (entry != nullptr && entry != &start && visited.insert(entry).second) {
        entry = entry->parent;
    }
    return entry == &start;
}

// Of an entry that has a parent.
void CheckParent(const Entry& entry, Findings& findings) {
    const JsonValue& parent = InheritOf(*entry.parentFrom);
    if (entry.parent == nullptr) {
        findings.Error(parent, fmt::format("there is no entry {}", parent.Excerpt()),
                       "the name of an entry of any layer");
    } else if (IsOnCycle(entry)) {
        findings.Error(parent, fmt::format("{} inherits from this entry", parent.Excerpt()),
                       "a parent that does not inherit from this entry");
    }
    const JsonValue& written = InheritOf(*entry.rulesFrom);
    if (written.text != parent.text) {
        findings.Warn(
            written,
            fmt::format("{} has no effect: the parent stays {} of {}:{}", written.Excerpt(), parent.Excerpt(),
                        parent.layer->path, NameOf(*entry.parentFrom).Place().line),
            "the same parent as there");
    }
}

// Of an entry that no other one inherits from.
void CheckName(const JsonValue& name, Findings& findings) {
    // The Kelvra manager reads a name of a first argument; the service finds what it sees in the name again.
    if (name.text.empty() || Linux::ProcessNameOf(name.text) != name.text) {
        findings.Warn(
            name,
            fmt::format("no process can have the name {}, and no entry inherits from it", name.Excerpt()),
            "the last component of a process's first argument, without a slash");
    } else if (name.text.find("template") != std::string::npos) {
        findings.Warn(name, fmt::format("no entry inherits from the template {}", name.Excerpt()),
                      "a template that is inherited from, or a process's name");
    }
}

}  // namespace

void CheckEntries(const Layers& layers, Findings& findings) {
    const MergedLayers merged(layers);
    CheckForNamesDefinedTwice(merged, findings);
    std::set<std::string_view> parents;
    for (const auto& [name, entry] : merged.entries) {
        if (entry.parentFrom != nullptr) {
            parents.insert(InheritOf(*entry.parentFrom).text);
            CheckParent(entry, findings);
        }
    }
    for (const auto& [name, entry] : merged.entries) {
        if (!parents.contains(name)) {
            CheckName(NameOf(*entry.rulesFrom), findings);
        }
    }
}

std::vector<Finding> FindingsIn(const Layers& layers) {
    Findings findings;
    for (const Layer& layer : layers) {
        CheckLayer(layer, findings);
    }
    // The templates of a file that cannot be read are unknown, not missing.
    if (std::ranges::all_of(layers, [](const Layer& layer) { return !layer.fault; })) {
        CheckEntries(layers, findings);
    }
    std::ranges::stable_sort(findings.all, {}, [](const Finding& finding) {
        return std::tuple(finding.value->layer->number, finding.offset);
    });
    return std::move(findings.all);
}

}  // namespace KITE::Rqctl
