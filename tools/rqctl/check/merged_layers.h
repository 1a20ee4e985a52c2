#pragma once

#include <map>
#include <string>
#include <vector>

#include "rqctl/check/json_text.h"

namespace KITE::Rqctl {

// A quota file, read.
struct Layer {
    std::string path;
    JsonText json;  // with a fault also where the file cannot be read
};

// The quota files that paths mean: a directory stands for the quota file of that configuration directory.
// Without paths: those of the installed directories, as the service finds them.
std::vector<std::string> QuotaFilesOf(const std::vector<std::string>& paths);
std::vector<Layer> ReadLayers(const std::vector<std::string>& files);

// An element of a layer's "quotas" that has a name and says whom it inherits from.
struct Element {
    const Layer* layer;
    const JsonValue* value;

    const JsonValue& Name() const { return *value->Find("process_name"); }
    const JsonValue& Parent() const { return *value->Find("inherit"); }
};

// One name of the merged layers: its rules and its parent may come from different elements of that name.
struct Entry {
    const Element* rulesFrom = nullptr;
    const Element* parentFrom = nullptr;  // null when it has no parent
};

// The layers on top of each other, merged by the service's own code. Elements that no service would read are
// left out, so that the rest of a faulty file can be judged. The layers must outlive it.
class MergedLayers {
  public:
    explicit MergedLayers(const std::vector<Layer>& layers);
    MergedLayers(const MergedLayers&) = delete;
    MergedLayers& operator=(const MergedLayers&) = delete;

    // Of all layers, in their order.
    const std::vector<Element>& Elements() const { return elements_; }
    const std::map<std::string, Entry>& Entries() const { return entries_; }
    // Null when there is no such entry.
    const Entry* Find(const std::string& name) const;
    // The entry that an entry inherits from; null when it has no parent or that one is missing.
    const Entry* ParentOf(const Entry& entry) const;

  private:
    std::vector<Element> elements_;
    std::map<std::string, Entry> entries_;
};

}  // namespace KITE::Rqctl
