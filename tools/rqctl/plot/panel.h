#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

// A stretch of time in which a process was suppressed or frozen.
struct Band {
    Tools::TreatmentKind kind{};  // kSuppress or kFreeze
    int64_t from = 0;
    int64_t to = 0;
};

// What is shown together of one process: its treatments that lie close to each other, and the time around
// them.
struct Panel {
    int64_t pid = 0;
    std::string name;
    int64_t begin = 0;
    int64_t end = 0;
    std::vector<Treatment> treatments;
    std::vector<Band> bands;
    const TreatedProcess* process = nullptr;  // all that is known of it
};

// In the order of their first treatments. They refer to the record.
std::vector<Panel> PanelsOf(const RunRecord& record);

}  // namespace KITE::Rqctl
