#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

struct Point {
    int64_t time = 0;  // ms since the epoch
    double value = 0;
    bool beginsPiece = false;  // not to be joined with the point before it
};

// What is measured of a resource, as the Kelvra manager judges it: memory in KiB at each sample, processor
// time in percent of a core and written bytes over the last `duration` seconds. While less has been seen,
// over what has been. Pieces are those of one process without a gap.
std::vector<Point> CurveOf(std::string_view resource, int64_t duration, const std::vector<Sample>& samples);

}  // namespace KITE::Rqctl
