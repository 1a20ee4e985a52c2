#pragma once

#include <cstdint>
#include <vector>

#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

// A stretch of time in which a process was suppressed or frozen.
struct Band {
    const TreatmentKind* kind;  // that began it
    int64_t from;
    int64_t to;
};

// Treatments of one process that lie close to each other, and the time around them.
struct Panel {
    const RunRecord::Process* process;
    int64_t begin;
    int64_t end;
    std::vector<Treatment> treatments;
    std::vector<Band> bands;
};

// In the order of their first treatments. They refer to the record.
std::vector<Panel> PanelsOf(const RunRecord& record);

}  // namespace KITE::Rqctl
