#include "rqctl/plot/figure.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <utility>

#include "rqctl/plot/curve.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using Linux::ResourceType;
using Tools::ClockText;

// In the units of the picture, which is as wide as the page has room for.
constexpr double kWidth = 960;
constexpr double kLeft = 76;
constexpr double kRight = kWidth - 16;
constexpr double kCaption = 22;
constexpr double kBadgeRow = 20;
constexpr double kBadgeWidth = 19;
constexpr double kPlotHeight = 150;
constexpr double kFlatHeight = 70;
constexpr double kAxis = 24;

// An amount of the resource, in the unit that suits it.
std::string AmountText(const ResourceType& type, double value) {
    if (type.bytes != 0) {
        return Tools::BytesText(value * static_cast<double>(type.bytes));
    }
    const std::string_view unit = type.measure.substr(0, type.measure.find(' '));
    return value < 100 ? fmt::format("{:.3g} {}", value, unit) : fmt::format("{:.0f} {}", value, unit);
}

// The distance of lines that are round numbers, at most `most` of them.
double RoundStep(double range, int most) {
    const double least = range / most;
    const double power = std::pow(10, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (power * factor >= least) {
            return power * factor;
        }
    }
    return power * 10;
}

// Likewise for amounts of the resource: round in the unit that suits the largest one.
double AmountStep(const ResourceType& type, double largest, int most) {
    const auto bytes = static_cast<double>(type.bytes);
    const double unit = bytes == 0 ? 1 : std::pow(1024, std::floor(std::log2(largest * bytes) / 10)) / bytes;
    return unit * RoundStep(largest / unit, most);
}

int64_t TimeStep(int64_t range) {
    static constexpr int64_t kSeconds[] = {1, 2, 5, 10, 15, 30, 60, 90, 120, 300, 600, 1800};
    constexpr int64_t kMostLines = 9;
    const auto* step = std::ranges::find_if(
        kSeconds, [&](int64_t seconds) { return range / (seconds * 1000) <= kMostLines; });
    return (step == std::end(kSeconds) ? 3600 : *step) * 1000;
}

// One picture while it grows. `largest` is the value at its upper end.
class Figure {
  public:
    Figure(const Panel& panel, double plotHeight, double largest)
        : panel_(panel), plotHeight_(plotHeight), largest_(largest) {
        if (HasBadges()) {
            PlaceBadges();
        }
        DrawBands();
        DrawTimeAxis();
    }

    void DrawAmountAxis(const ResourceType& type) {
        const double step = AmountStep(type, largest_, HasBadges() ? 4 : 2);
        for (double value = 0; value <= largest_; value += step) {
            AddHorizontal("grid", Y(value));
            AddText("tick", kLeft - 6, Y(value) + 4, "end", AmountText(type, value));
        }
    }

    void DrawQuotas(const ResourceType& type, const std::set<Quota>& quotas) {
        constexpr double kLabelHeight = 13;
        double lastLabel = 0;
        for (const Quota& quota : quotas) {
            const auto limit = static_cast<double>(quota.limit);
            const double y = Y(limit);
            AddHorizontal("quota", y);
            const double labelY = y - 4 < Top() + kLabelHeight ? y + kLabelHeight : y - 4;
            if (std::abs(labelY - lastLabel) >= kLabelHeight) {
                AddText("limit", kRight - 4, labelY, "end",
                        fmt::format("quota {}, {} s", AmountText(type, limit), quota.duration));
                lastLabel = labelY;
            }
        }
    }

    void DrawCurve(const std::vector<Point>& curve) {
        Add("<path class='curve' d='");
        for (const Point& point : curve) {
            Add("{}{:.1f} {:.1f}", content_.ends_with('\'') || point.beginsPiece ? "M" : "L", X(point.time),
                Y(point.value));
        }
        Add("'/>\n");
    }

    void DrawTreatments() {
        for (size_t i = 0; i < panel_.treatments.size(); ++i) {
            const Treatment& treatment = panel_.treatments[i];
            const double x = X(treatment.time);
            Add("<g class='{}{}'>", treatment.kind->style, treatment.error == 0 ? "" : " failed");
            if (HasBadges()) {
                const double y = kCaption + kBadgeRow * static_cast<double>(rowOfBadge_[i]) + 8;
                AddVertical("moment", x, y);
                Add("<circle cx='{0:.1f}' cy='{1:.1f}' r='8.5'/><text x='{0:.1f}' y='{2:.1f}'>{3}</text>"
                    "<title>{4}, {5}</title>",
                    x, y, y + 4, treatment.kind->letter, treatment.Text(), ClockText(treatment.time));
            } else {
                AddVertical("moment", x, Top());
            }
            Add("</g>\n");
        }
    }

    void DrawNote(std::string_view text) {
        AddText("note", (kLeft + kRight) / 2, (Top() + Bottom()) / 2 + 4, "middle", text);
    }

    std::string Take(std::string_view caption) const {
        return fmt::format(
            "<svg viewBox='0 0 {:.0f} {:.0f}' role='img'>\n<text class='caption' x='4' y='14'>{}</text>\n{}"
            "</svg>\n",
            kWidth, Bottom() + kAxis, caption, content_);
    }

  private:
    double X(int64_t time) const {
        const auto part =
            static_cast<double>(time - panel_.begin) / static_cast<double>(panel_.end - panel_.begin);
        return kLeft + part * (kRight - kLeft);
    }
    double Y(double value) const { return Bottom() - value / largest_ * plotHeight_; }
    double Top() const { return kCaption + kBadgeRow * static_cast<double>(badgeRows_); }
    double Bottom() const { return Top() + plotHeight_; }
    // A flat one shows the moments, but not again what they were.
    bool HasBadges() const { return plotHeight_ != kFlatHeight; }
    // Each badge stands in the first row where it does not cover another one.
    void PlaceBadges() {
        constexpr size_t kMostRows = 6;
        std::vector<double> freeFrom;
        for (const Treatment& treatment : panel_.treatments) {
            const double x = X(treatment.time);
            size_t row = 0;
            while (row < freeFrom.size() && freeFrom[row] > x && row + 1 < kMostRows) {
                ++row;
            }
            freeFrom.resize(std::max(freeFrom.size(), row + 1));
            freeFrom[row] = x + kBadgeWidth;
            rowOfBadge_.push_back(row);
        }
        badgeRows_ = std::max<size_t>(1, freeFrom.size());
    }

    void DrawBands() {
        for (const Band& band : panel_.bands) {
            Add("<rect class='{0}' x='{1:.1f}' y='{2:.1f}' width='{3:.1f}' height='{4:.1f}'>"
                "<title>{0} from {5} to {6}</title></rect>\n",
                band.kind->word, X(band.from), Top(), std::max(1.0, X(band.to) - X(band.from)), plotHeight_,
                ClockText(band.from), ClockText(band.to));
        }
    }

    void DrawTimeAxis() {
        AddHorizontal("axis", Bottom());
        const int64_t step = TimeStep(panel_.end - panel_.begin);
        for (int64_t time = (panel_.begin + step - 1) / step * step; time <= panel_.end; time += step) {
            AddVertical("grid", X(time), Top());
            AddText("tick", std::clamp(X(time), kLeft, kRight - 20), Bottom() + 16, "middle",
                    fmt::format("{:%T}", fmt::localtime(time / 1000)));
        }
    }

    template <typename... Values>
    void Add(fmt::format_string<Values...> format, Values&&... values) {
        fmt::format_to(std::back_inserter(content_), format, std::forward<Values>(values)...);
    }
    void AddHorizontal(std::string_view style, double y) {
        Add("<path class='{}' d='M{:.1f} {:.1f}H{:.1f}'/>\n", style, kLeft, y, kRight);
    }
    void AddVertical(std::string_view style, double x, double top) {
        Add("<path class='{}' d='M{:.1f} {:.1f}V{:.1f}'/>\n", style, x, top, Bottom());
    }
    void AddText(std::string_view style, double x, double y, std::string_view anchor, std::string_view text) {
        Add("<text class='{}' x='{:.1f}' y='{:.1f}' text-anchor='{}'>{}</text>\n", style, x, y, anchor, text);
    }

    const Panel& panel_;
    const double plotHeight_;
    const double largest_;
    std::vector<size_t> rowOfBadge_;
    size_t badgeRows_ = 0;
    std::string content_;
};

// What was measured of a resource.
struct Measured {
    const ResourceType& type;
    const std::set<Quota>& quotas;  // at least one
    int64_t duration = 0;           // of the shortest quota; the curve is that of its window
    std::vector<Point> curve;
    double peak = 0;

    bool IsAboveQuota() const { return peak > static_cast<double>(quotas.begin()->limit); }
};

Measured MeasuredOf(const Panel& panel, const ResourceType& type, const std::set<Quota>& quotas) {
    const int64_t shortest = std::ranges::min_element(quotas, {}, &Quota::duration)->duration;
    Measured measured{type, quotas, shortest, {}, 0};
    for (const Point& point : CurveOf(type, measured.duration, panel.process->second.samples)) {
        if (point.time >= panel.begin && point.time <= panel.end) {
            measured.curve.push_back(point);
            measured.peak = std::max(measured.peak, point.value);
        }
    }
    return measured;
}

std::string CaptionOf(const Measured& measured) {
    const ResourceType& type = measured.type;
    return fmt::format(
        "{}: {}{}{}", type.name, type.quantity,
        type.judged == Linux::Judged::kAmount ? "" : fmt::format(" {} {} s", type.span, measured.duration),
        measured.curve.empty() ? "" : "; peak " + AmountText(type, measured.peak));
}

std::string FigureOf(const Panel& panel, const Measured& measured) {
    const auto highestQuota = static_cast<double>(measured.quotas.rbegin()->limit);
    Figure figure(panel, measured.IsAboveQuota() ? kPlotHeight : kFlatHeight,
                  std::max({1.0, measured.peak, highestQuota}) * 1.12);
    figure.DrawAmountAxis(measured.type);
    figure.DrawQuotas(measured.type, measured.quotas);
    figure.DrawCurve(measured.curve);
    figure.DrawTreatments();
    if (measured.curve.empty()) {
        figure.DrawNote("nothing was measured");
    }
    return figure.Take(CaptionOf(measured));
}

std::string FigureWithoutSamples(const Panel& panel) {
    Figure figure(panel, kFlatHeight / 2, 1);
    figure.DrawTreatments();
    return figure.Take("no samples were recorded of this process");
}

}  // namespace

std::string FiguresOf(const Panel& panel) {
    const Quotas& quotasOf = panel.process->second.quotas;
    // Those whose quota was exceeded come first.
    std::string exceeded;
    std::string others;
    for (const auto& [type, quotas] : quotasOf) {
        const Measured measured = MeasuredOf(panel, *type, quotas);
        (measured.IsAboveQuota() ? exceeded : others) += FigureOf(panel, measured);
    }
    return quotasOf.empty() ? FigureWithoutSamples(panel) : exceeded + others;
}

}  // namespace KITE::Rqctl
