#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rqctl/plot/curve.h"
#include "rqctl/plot/panel.h"

namespace KITE::Rqctl {

// A text in HTML; control characters and what is not UTF-8 become visible.
std::string HtmlEscaped(std::string_view text);
// A moment in ms since the epoch: "22:31:04.120", local time.
std::string ClockText(int64_t time);

// How figures and their legend mark a kind of treatment.
struct Mark {
    std::string_view letter;
    std::string_view style;  // the class in the style sheet
};
const Mark& MarkOf(Tools::TreatmentKind kind);
// "frozen", or "failed: frozen".
std::string TreatmentText(const Treatment& treatment);

// What was measured of one resource of a panel.
struct MeasuredResource {
    const Linux::ResourceType* type;
    std::vector<Quota> quotas;
    int64_t duration = 0;  // of the shortest one; the curve is that of its window
    std::vector<Point> curve;
    double peak = 0;

    bool IsAboveQuota() const;
};
MeasuredResource MeasuredOf(const Panel& panel, const Linux::ResourceType& type,
                            const std::vector<Quota>& quotas);

// A figure of it, the quotas, and what was done; a flat one where no quota was broken. An SVG element.
std::string FigureOf(const Panel& panel, const MeasuredResource& measured);

// A figure of nothing but what was done.
std::string FigureWithoutSamples(const Panel& panel);

}  // namespace KITE::Rqctl
