#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "rqctl/check/layer.h"

namespace KITE::Rqctl {

enum class Severity { kWarning, kError };

// Something wrong in a layer: an error where the service refuses it, else what does nothing or surprises.
struct Finding {
    Severity severity;
    const JsonValue* value;
    size_t offset;  // where, in the layer's text
    std::string found;
    std::string allowed;
};

// Those that have been collected.
struct Findings {
    std::vector<Finding> all;

    void Error(const JsonValue& value, std::string found, std::string allowed) {
        all.push_back({Severity::kError, &value, value.begin, std::move(found), std::move(allowed)});
    }
    void Warn(const JsonValue& value, std::string found, std::string allowed) {
        all.push_back({Severity::kWarning, &value, value.begin, std::move(found), std::move(allowed)});
    }
    void WarnAtKey(const JsonValue& value, std::string found, std::string allowed) {
        all.push_back({Severity::kWarning, &value, value.keyBegin, std::move(found), std::move(allowed)});
    }
};

// What is wrong within each layer by itself.
void CheckLayer(const Layer& layer, Findings& findings);

// What is wrong between elements: names, templates and parents.
void CheckEntries(const Layers& layers, Findings& findings);

// Everything, in the order of the layers and of their texts. The layers must outlive the findings.
std::vector<Finding> FindingsIn(const Layers& layers);

}  // namespace KITE::Rqctl
