#pragma once

#include <map>
#include <string>
#include <vector>

#include "rqctl/check/layer.h"

namespace KITE::Rqctl {

// Of an element of "quotas" that a service would read.
inline const JsonValue& NameOf(const JsonValue& element) {
    return *element.Find("process_name");
}
inline const JsonValue& InheritOf(const JsonValue& element) {
    return *element.Find("inherit");
}

// One name of the merged layers: its rules and its parent may come from different elements of that name.
struct Entry {
    const JsonValue* rulesFrom = nullptr;
    const JsonValue* parentFrom = nullptr;  // null when it has no parent
};

// The layers on top of each other, merged by the service's own code. Elements that no service would read are
// left out, so that the rest of a faulty file can be judged. The layers must outlive it.
class MergedLayers {
  public:
    explicit MergedLayers(const Layers& layers);
    MergedLayers(const MergedLayers&) = delete;
    MergedLayers& operator=(const MergedLayers&) = delete;

    // Of all layers, in their order.
    const std::vector<const JsonValue*>& Elements() const { return elements_; }
    const std::map<std::string, Entry>& Entries() const { return entries_; }
    // Null when there is no such entry.
    const Entry* Find(const std::string& name) const;
    // The entry that an entry inherits from; null when it has no parent or that one is missing.
    const Entry* ParentOf(const Entry& entry) const;

  private:
    std::vector<const JsonValue*> elements_;
    std::map<std::string, Entry> entries_;
};

}  // namespace KITE::Rqctl
