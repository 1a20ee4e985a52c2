#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "rqctl/check/layers.h"

namespace KITE::Rqctl {

enum class Severity { kWarning, kError };

// Something wrong in a layer: an error where the service refuses it, else what does nothing or surprises.
struct Finding {
    Severity severity;
    const Layer* layer;
    const JsonValue* value;
    size_t offset;  // where, in the layer's text
    std::string found;
    std::string allowed;
};

// What is wrong within each layer by itself.
void CheckLayer(const Layer& layer, std::vector<Finding>& findings);

// What is wrong between elements: names, templates and parents.
void CheckEntries(const std::vector<Layer>& layers, std::vector<Finding>& findings);

// Everything, in the order of the layers and of their texts. The layers must outlive the findings.
std::vector<Finding> FindingsIn(const std::vector<Layer>& layers);

}  // namespace KITE::Rqctl
