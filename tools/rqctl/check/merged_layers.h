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
    const Entry* parent = nullptr;          // null also when that one is missing
};

// The layers on top of each other, merged by the service's own code. Elements that no service would read are
// left out, so that the rest of a faulty file can be judged. The layers must outlive it.
struct MergedLayers {
    explicit MergedLayers(const Layers& layers);
    MergedLayers(const MergedLayers&) = delete;
    MergedLayers& operator=(const MergedLayers&) = delete;

    std::vector<const JsonValue*> elements;  // of all layers, in their order
    std::map<std::string, Entry> entries;    // by name
};

}  // namespace KITE::Rqctl
