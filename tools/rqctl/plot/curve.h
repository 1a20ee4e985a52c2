#pragma once

#include <cstdint>
#include <vector>

#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

struct Point {
    int64_t time = 0;  // ms since the epoch
    double value = 0;
    bool beginsPiece = false;  // not to be joined with the point before it
};

// What is measured of a resource, as the Kelvra manager judges it, in the type's unit; of a counter over the
// last `duration` seconds, or what has been seen of them. A piece is that of one process without a gap.
std::vector<Point> CurveOf(const Linux::ResourceType& type, int64_t duration,
                           const std::vector<Sample>& samples);

}  // namespace KITE::Rqctl
