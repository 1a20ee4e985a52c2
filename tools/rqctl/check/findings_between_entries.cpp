#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "proc/command_line.h"
#include "rqctl/check/findings.h"

namespace KITE::Rqctl {

namespace {

// Whether a process can have the name: the Kelvra manager reads it of a first argument, and the service,
// which cuts it, finds what it sees in the name again.
bool IsProcessName(const std::string& name) {
    return !name.empty() && Linux::ProcessNameOf(name) == name;
}

class EntryFindings {
  public:
    EntryFindings(const MergedLayers& merged, std::vector<Finding>& findings)
        : merged_(merged), findings_(findings) {
        for (const auto& [name, entry] : merged.Entries()) {
            if (entry.parentFrom != nullptr) {
                parents_.insert(entry.parentFrom->Parent().text);
            }
        }
    }

    void CheckForNamesDefinedTwice() {
        std::map<std::pair<const Layer*, std::string>, const Element*> first;
        for (const Element& element : merged_.Elements()) {
            const auto [found, isNew] = first.try_emplace({element.layer, element.Name().text}, &element);
            if (!isNew) {
                Add(Severity::kWarning, element, element.Name(),
                    fmt::format(
                        "{} is also in line {}: these rules replace those, but the parent stays that of "
                        "line {}",
                        Excerpt(element, element.Name()), LineOf(*found->second), LineOf(*found->second)),
                    "each name once in a file");
            }
        }
    }

    void CheckParent(const Entry& entry) {
        if (entry.parentFrom == nullptr) {
            return;
        }
        const Element& from = *entry.parentFrom;
        const std::string parent = Excerpt(from, from.Parent());
        if (merged_.ParentOf(entry) == nullptr) {
            Add(Severity::kError, from, from.Parent(), fmt::format("there is no entry {}", parent),
                "the name of an entry of any layer");
        } else if (IsOnCycle(entry)) {
            Add(Severity::kError, from, from.Parent(), fmt::format("{} inherits from this entry", parent),
                "a parent that does not inherit from this entry");
        }
        const JsonValue& written = entry.rulesFrom->Parent();
        if (written.text != from.Parent().text) {
            Add(Severity::kWarning, *entry.rulesFrom, written,
                fmt::format("{} has no effect: the parent stays {} of {}:{}",
                            Excerpt(*entry.rulesFrom, written), parent, from.layer->path, LineOf(from)),
                "the same parent as there");
        }
    }

    void CheckName(const std::string& name, const Entry& entry) {
        if (parents_.contains(name)) {
            return;
        }
        const JsonValue& written = entry.rulesFrom->Name();
        const std::string excerpt = Excerpt(*entry.rulesFrom, written);
        if (!IsProcessName(name)) {
            Add(Severity::kWarning, *entry.rulesFrom, written,
                fmt::format("no process can have the name {}, and no entry inherits from it", excerpt),
                "the last component of a process's first argument, without a slash");
        } else if (name.find("template") != std::string::npos) {
            Add(Severity::kWarning, *entry.rulesFrom, written,
                fmt::format("no entry inherits from the template {}", excerpt),
                "a template that is inherited from, or a process's name");
        }
    }

  private:
    void Add(Severity severity, const Element& element, const JsonValue& member, std::string found,
             std::string allowed) {
        findings_.push_back({severity, element.layer, member.begin,
                             Below(Below("/quotas", element.index), member.key), std::move(found),
                             std::move(allowed)});
    }
    static std::string Excerpt(const Element& element, const JsonValue& member) {
        return element.layer->json.Excerpt(member);
    }
    static size_t LineOf(const Element& element) {
        return element.layer->json.PositionOf(element.Name().begin).line;
    }

    bool IsOnCycle(const Entry& start) const {
        std::set<const Entry*> visited;
        const Entry* entry = merged_.ParentOf(start);
        while (entry != nullptr && entry != &start && visited.insert(entry).second) {
            entry = merged_.ParentOf(*entry);
        }
        return entry == &start;
    }

    const MergedLayers& merged_;
    std::vector<Finding>& findings_;
    std::set<std::string_view> parents_;
};

}  // namespace

void CheckEntries(const std::vector<Layer>& layers, std::vector<Finding>& all) {
    const MergedLayers merged(layers);
    EntryFindings findings(merged, all);
    findings.CheckForNamesDefinedTwice();
    for (const auto& [name, entry] : merged.Entries()) {
        findings.CheckParent(entry);
        findings.CheckName(name, entry);
    }
}

std::vector<Finding> FindingsIn(const std::vector<Layer>& layers) {
    std::vector<Finding> findings;
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
