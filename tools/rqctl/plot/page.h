#pragma once

#include <string>

#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

// One page of HTML that needs nothing but itself: for each treated process a picture of each resource that it
// has a quota of, with what was measured, the quota, and what was done when. A run of up to ten minutes has
// one time axis for all; of a longer one each picture shows the time around the treatments, the latest ones
// if there are very many. Every text of the record is escaped.
std::string PageOf(const RunRecord& record);

}  // namespace KITE::Rqctl
