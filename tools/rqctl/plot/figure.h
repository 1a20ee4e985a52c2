#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rqctl/plot/curve.h"
#include "rqctl/plot/panel.h"

namespace KITE::Rqctl {

// Texts of a page, escaped for HTML; control characters and what is not UTF-8 become visible.
std::string HtmlEscaped(std::string_view text);
// "22:31:04" and "22:31:04.120", local time.
std::string ClockText(int64_t time);
std::string ExactClockText(int64_t time);

// The letter, the word and the class of a treatment, as figures and their legend have them.
struct Look {
    const char* letter;
    const char* word;
    const char* style;
};
Look LookOf(Treatment::Kind kind);

// What was measured of one resource of a panel.
struct Measured {
    std::string resource;
    std::vector<Quota> quotas;
    int64_t duration = 0;  // of the shortest one; the curve is that of its window
    std::vector<Point> curve;
    double peak = 0;

    bool IsAboveQuota() const;
};
Measured Measure(const Panel& panel, const std::string& resource, const std::vector<Quota>& quotas);

// A figure of it, the quotas, and what was done; a flat one where no quota was broken. An SVG element.
std::string FigureOf(const Panel& panel, const Measured& measured);

// A figure of nothing but what was done.
std::string FigureWithoutSamples(const Panel& panel);

}  // namespace KITE::Rqctl
