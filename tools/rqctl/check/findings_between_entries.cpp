#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "proc/command_line.h"
#include "rqctl/check/findings.h"

namespace KITE::Rqctl {

namespace {

// Whether a process can bear the name: what the Kelvra manager reads of a first argument, and the service,
// which cuts it, finds in the name again.
bool CanBeBorne(const std::string& name) {
    return !name.empty() && Linux::ProcessNameOf(name) == name;
}

class MergeLint {
  public:
    MergeLint(const MergedLayers& merged, std::vector<Finding>& findings)
        : merged_(merged), findings_(findings) {
        for (const auto& [name, entry] : merged.Entries()) {
            if (entry.heir != nullptr) {
                parents_.insert(entry.heir->Parent().text);
            }
        }
    }

    void Run() {
        FindNamesDefinedTwice();
        for (const auto& [name, entry] : merged_.Entries()) {
            CheckParent(name, entry);
            CheckName(name, entry);
        }
    }

  private:
    void Add(Severity severity, const Element& element, const JsonValue& member, std::string found,
             std::string allowed) {
        const std::string pointer = Below(Below("/quotas", element.index), member.key);
        findings_.push_back(
            {severity, element.layer, member.begin, pointer, std::move(found), std::move(allowed)});
    }
    static std::string Shown(const Element& element, const JsonValue& member) {
        return element.layer->json.Shown(member);
    }
    static std::string LineOf(const Element& element) {
        return std::to_string(element.layer->json.PositionOf(element.Name().begin).line);
    }

    void FindNamesDefinedTwice() {
        std::map<std::pair<const Layer*, std::string>, const Element*> first;
        for (const Element& element : merged_.Elements()) {
            const auto [found, isNew] = first.try_emplace({element.layer, element.Name().text}, &element);
            if (!isNew) {
                Add(Severity::kWarning, element, element.Name(),
                    Shown(element, element.Name()) + " is also in line " + LineOf(*found->second) +
                        ": these rules replace those, the parent stays that one's",
                    "each name once in a file");
            }
        }
    }

    void CheckParent(const std::string& name, const Entry& entry) {
        if (entry.heir == nullptr) {
            return;
        }
        const Element& heir = *entry.heir;
        const std::string parent = Shown(heir, heir.Parent());
        if (merged_.ParentOf(entry) == nullptr) {
            Add(Severity::kError, heir, heir.Parent(), "there is no entry " + parent,
                "the name of an entry of any layer");
        } else if (IsOnCycle(name)) {
            Add(Severity::kError, heir, heir.Parent(), parent + " inherits from this entry",
                "a parent that does not");
        }
        const JsonValue& written = entry.record->Parent();
        if (written.text != heir.Parent().text) {
            Add(Severity::kWarning, *entry.record, written,
                Shown(*entry.record, written) + " has no effect: the parent stays " + parent + " of " +
                    heir.layer->path + ':' + LineOf(heir),
                "the same parent as there");
        }
    }

    bool IsOnCycle(const std::string& name) const {
        std::set<const Entry*> visited;
        const Entry* start = merged_.Find(name);
        for (const Entry* entry = merged_.ParentOf(*start); entry != nullptr && visited.insert(entry).second;
             entry = merged_.ParentOf(*entry)) {
            if (entry == start) {
                return true;
            }
        }
        return false;
    }

    void CheckName(const std::string& name, const Entry& entry) {
        if (parents_.contains(name)) {
            return;
        }
        constexpr const char* kAllowed = "the last component of a process's first argument, without a slash";
        const JsonValue& written = entry.record->Name();
        if (!CanBeBorne(name)) {
            Add(Severity::kWarning, *entry.record, written,
                Shown(*entry.record, written) + " is borne by no process and inherited by no entry",
                kAllowed);
        } else if (name.find("template") != std::string::npos) {
            Add(Severity::kWarning, *entry.record, written,
                "no entry inherits from the template " + Shown(*entry.record, written),
                "a template that is inherited from, or a process's name");
        }
    }

    const MergedLayers& merged_;
    std::vector<Finding>& findings_;
    std::set<std::string_view> parents_;
};

}  // namespace

void LintMerge(const std::vector<Layer>& layers, std::vector<Finding>& findings) {
    const MergedLayers merged(layers);
    MergeLint(merged, findings).Run();
}

std::vector<Finding> Lint(const std::vector<Layer>& layers) {
    std::vector<Finding> findings;
    for (const Layer& layer : layers) {
        LintLayer(layer, findings);
    }
    // What a file that cannot be read defines is not known; nobody should look for it in the others.
    const auto isReadable = [](const Layer& layer) { return !layer.json.fault; };
    if (std::ranges::all_of(layers, isReadable)) {
        LintMerge(layers, findings);
    }
    const auto inOrder = [](const Finding& finding) { return std::tuple(finding.layer, finding.offset); };
    std::ranges::stable_sort(findings, {}, inOrder);
    return findings;
}

}  // namespace KITE::Rqctl
