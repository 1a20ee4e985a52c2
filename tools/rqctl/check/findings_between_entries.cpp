#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "proc/program.h"
#include "rqctl/check/findings.h"

namespace KITE::Rqctl {

namespace {

using Findings = std::vector<Finding>;

void Add(Findings& findings, Severity severity, const Element& element, const JsonValue& value,
         std::string found, std::string allowed) {
    findings.push_back({severity, element.layer, &value, value.begin, std::move(found), std::move(allowed)});
}

std::string Excerpt(const Element& element, const JsonValue& value) {
    return element.layer->json.Excerpt(value);
}

size_t LineOf(const Element& element) {
    return element.layer->json.PositionOf(element.Name().begin).line;
}

// Whether a process can have the name: the Kelvra manager reads it of a first argument, and the service,
// which cuts it, finds what it sees in the name again.
bool IsProcessName(const std::string& name) {
    return !name.empty() && Linux::ProcessNameOf(name) == name;
}

void CheckForNamesDefinedTwice(const MergedLayers& merged, Findings& findings) {
    std::map<std::pair<const Layer*, std::string>, const Element*> first;
    for (const Element& element : merged.Elements()) {
        const auto [found, isNew] = first.try_emplace({element.layer, element.Name().text}, &element);
        if (!isNew) {
            Add(findings, Severity::kWarning, element, element.Name(),
                fmt::format(
                    "{0} is also in line {1}: these rules replace those, but the parent stays that of "
                    "line {1}",
                    Excerpt(element, element.Name()), LineOf(*found->second)),
                "each name once in a file");
        }
    }
}

bool IsOnCycle(const Entry& start, const MergedLayers& merged) {
    std::set<const Entry*> visited;
    const Entry* entry = merged.ParentOf(start);
    while (entry != nullptr && entry != &start && visited.insert(entry).second) {
        entry = merged.ParentOf(*entry);
    }
    return entry == &start;
}

// Of an entry that has a parent.
void CheckParent(const Entry& entry, const MergedLayers& merged, Findings& findings) {
    const Element& from = *entry.parentFrom;
    const std::string parent = Excerpt(from, from.Parent());
    if (merged.ParentOf(entry) == nullptr) {
        Add(findings, Severity::kError, from, from.Parent(), fmt::format("there is no entry {}", parent),
            "the name of an entry of any layer");
    } else if (IsOnCycle(entry, merged)) {
        Add(findings, Severity::kError, from, from.Parent(),
            fmt::format("{} inherits from this entry", parent),
            "a parent that does not inherit from this entry");
    }
    const JsonValue& written = entry.rulesFrom->Parent();
    if (written.text != from.Parent().text) {
        Add(findings, Severity::kWarning, *entry.rulesFrom, written,
            fmt::format("{} has no effect: the parent stays {} of {}:{}", Excerpt(*entry.rulesFrom, written),
                        parent, from.layer->path, LineOf(from)),
            "the same parent as there");
    }
}

// Of an entry that no other one inherits from.
void CheckName(const Element& element, Findings& findings) {
    const JsonValue& name = element.Name();
    if (!IsProcessName(name.text)) {
        Add(findings, Severity::kWarning, element, name,
            fmt::format("no process can have the name {}, and no entry inherits from it",
                        Excerpt(element, name)),
            "the last component of a process's first argument, without a slash");
    } else if (name.text.find("template") != std::string::npos) {
        Add(findings, Severity::kWarning, element, name,
            fmt::format("no entry inherits from the template {}", Excerpt(element, name)),
            "a template that is inherited from, or a process's name");
    }
}

}  // namespace

void CheckEntries(const std::vector<Layer>& layers, Findings& findings) {
    const MergedLayers merged(layers);
    CheckForNamesDefinedTwice(merged, findings);
    std::set<std::string_view> parents;
    for (const auto& [name, entry] : merged.Entries()) {
        if (entry.parentFrom != nullptr) {
            parents.insert(entry.parentFrom->Parent().text);
            CheckParent(entry, merged, findings);
        }
    }
    for (const auto& [name, entry] : merged.Entries()) {
        if (!parents.contains(name)) {
            CheckName(*entry.rulesFrom, findings);
        }
    }
}

std::vector<Finding> FindingsIn(const std::vector<Layer>& layers) {
    Findings findings;
    for (const Layer& layer : layers) {
        CheckLayer(layer, findings);
    }
    // The templates of a file that cannot be read are unknown, not missing.
    if (std::ranges::all_of(layers, [](const Layer& layer) { return !layer.json.fault; })) {
        CheckEntries(layers, findings);
    }
    std::ranges::stable_sort(
        findings, {}, [](const Finding& finding) { return std::tuple(finding.layer, finding.offset); });
    return findings;
}

}  // namespace KITE::Rqctl
