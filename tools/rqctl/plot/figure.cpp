#include "rqctl/plot/figure.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <map>

#include "shared/terminal.h"

namespace KITE::Rqctl {

using namespace Tools;

namespace {

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

constexpr size_t kMostPoints = 900;

// A number as people write it, of at most three digits behind the point.
std::string Plain(double value) {
    return fmt::format("{:.{}f}", value,
                       value >= 100 || value == std::floor(value) ? 0
                       : value >= 10                              ? 1
                                                                  : 2);
}

// The unit of an axis.
struct Scale {
    double size = 1;  // how many of the resource type's own units
    std::string name;

    std::string TextOf(double value) const { return fmt::format("{} {}", Plain(value / size), name); }
};

Scale ScaleFor(const Linux::ResourceType& type, double largest) {
    if (type.bytes == 0) {
        return {1, std::string(type.measure.substr(0, type.measure.find(' ')))};
    }
    static constexpr std::array<const char*, 5> kNames{"B", "KiB", "MiB", "GiB", "TiB"};
    const auto bytes = static_cast<double>(type.bytes);
    size_t name = 0;
    double size = 1;
    for (; largest * bytes / size >= 1024 && name + 1 < kNames.size(); ++name) {
        size *= 1024;
    }
    return {size / bytes, kNames.at(name)};
}

std::string CaptionOf(const Linux::ResourceType& type, int64_t duration) {
    return type.judged == Linux::Judged::kAmount
               ? fmt::format("{}: {}", type.name, type.quantity)
               : fmt::format("{}: {} {} {} s", type.name, type.quantity, type.span, duration);
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

int64_t TimeStep(int64_t range) {
    static constexpr std::array<int64_t, 13> kSeconds{1, 2, 5, 10, 15, 30, 60, 90, 120, 300, 600, 1800, 3600};
    constexpr int64_t kMostLines = 9;
    for (const int64_t seconds : kSeconds) {
        if (range / (seconds * 1000) <= kMostLines) {
            return seconds * 1000;
        }
    }
    return kSeconds.back() * 1000;
}

// At most so many points as can be seen: of each stretch the highest.
std::vector<Point> Thinned(const std::vector<Point>& curve) {
    if (curve.size() <= kMostPoints) {
        return curve;
    }
    const size_t stretch = (curve.size() + kMostPoints - 1) / kMostPoints;
    std::vector<Point> thinned;
    for (size_t at = 0; at < curve.size(); at += stretch) {
        const auto first = curve.begin() + static_cast<ptrdiff_t>(at);
        const auto last = curve.begin() + static_cast<ptrdiff_t>(std::min(at + stretch, curve.size()));
        Point highest = *std::ranges::max_element(first, last, {}, &Point::value);
        highest.beginsPiece = std::any_of(first, last, [](const Point& point) { return point.beginsPiece; });
        thinned.push_back(highest);
    }
    return thinned;
}

// One picture while it grows.
class Figure {
  public:
    explicit Figure(const Panel& panel, double plotHeight) : panel_(panel), plotHeight_(plotHeight) {
        if (HasBadges()) {
            PlaceBadges();
        }
    }

    std::string Take(const std::string& caption) const {
        const double height = Bottom() + kAxis;
        return fmt::format("<svg viewBox='0 0 {:.0f} {:.0f}' role='img'>\n", kWidth, height) +
               "<text class='caption' x='4' y='14'>" + caption + "</text>\n" + content_ + "</svg>\n";
    }

    void SetScale(double largest) { largest_ = largest; }
    void DrawTimeAxis();
    void DrawValueAxis(const Scale& scale);
    void DrawBands();
    void DrawCurve(const std::vector<Point>& curve);
    void DrawQuotas(const std::vector<Quota>& quotas, const Scale& scale);
    void DrawTreatments();
    void DrawNote(const char* text);

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
    void PlaceBadges();

    const Panel& panel_;
    const double plotHeight_;
    double largest_ = 1;
    std::vector<size_t> rowOfBadge_;
    size_t badgeRows_ = 0;
    std::string content_;
};

// Each badge stands in the first row where it does not cover another one.
void Figure::PlaceBadges() {
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

void Figure::DrawTimeAxis() {
    content_ += fmt::format("<path class='axis' d='M{:.1f} {:.1f}H{:.1f}'/>\n", kLeft, Bottom(), kRight);
    const int64_t step = TimeStep(panel_.end - panel_.begin);
    for (int64_t time = (panel_.begin + step - 1) / step * step; time <= panel_.end; time += step) {
        content_ += fmt::format(
            "<path class='grid' d='M{:.1f} {:.1f}V{:.1f}'/><text class='tick' x='{:.1f}' y='{:.1f}' "
            "text-anchor='middle'>{}</text>\n",
            X(time), Top(), Bottom(), std::clamp(X(time), kLeft, kRight - 20), Bottom() + 16,
            fmt::format("{:%T}", fmt::localtime(time / 1000)));
    }
}

void Figure::DrawValueAxis(const Scale& scale) {
    const double step = scale.size * RoundStep(largest_ / scale.size, plotHeight_ < kPlotHeight ? 2 : 4);
    for (double value = 0; value <= largest_; value += step) {
        const double y = Y(value);
        content_ += fmt::format(
            "<path class='grid' d='M{:.1f} {:.1f}H{:.1f}'/><text class='tick' x='{:.1f}' y='{:.1f}' "
            "text-anchor='end'>{}</text>\n",
            kLeft, y, kRight, kLeft - 6, y + 4, scale.TextOf(value));
    }
}

void Figure::DrawBands() {
    for (const Band& band : panel_.bands) {
        const std::string_view word = WordOf(band.kind);
        content_ += fmt::format(
            "<rect class='{}' x='{:.1f}' y='{:.1f}' width='{:.1f}' height='{:.1f}'><title>{} from {} to "
            "{}</title></rect>\n",
            word, X(band.from), Top(), std::max(1.0, X(band.to) - X(band.from)), plotHeight_, word,
            ClockText(band.from), ClockText(band.to));
    }
}

void Figure::DrawCurve(const std::vector<Point>& curve) {
    std::string path;
    for (const Point& point : Thinned(curve)) {
        path += fmt::format("{}{:.1f} {:.1f}", point.beginsPiece || path.empty() ? "M" : "L", X(point.time),
                            Y(point.value));
    }
    content_ += "<path class='curve' d='" + path + "'/>\n";
}

void Figure::DrawQuotas(const std::vector<Quota>& quotas, const Scale& scale) {
    constexpr double kLabelHeight = 13;
    double lastLabel = 0;
    for (const Quota& quota : quotas) {
        const auto limit = static_cast<double>(quota.limit);
        const double y = Y(limit);
        content_ += fmt::format("<path class='quota' d='M{:.1f} {:.1f}H{:.1f}'/>\n", kLeft, y, kRight);
        const double labelY = y - 4 < Top() + kLabelHeight ? y + kLabelHeight : y - 4;
        if (std::abs(labelY - lastLabel) >= kLabelHeight) {
            content_ += fmt::format(
                "<text class='limit' x='{:.1f}' y='{:.1f}' text-anchor='end'>quota {}, {} s</text>\n",
                kRight - 4, labelY, scale.TextOf(limit), quota.duration);
            lastLabel = labelY;
        }
    }
}

void Figure::DrawTreatments() {
    for (size_t i = 0; i < panel_.treatments.size(); ++i) {
        const Treatment& treatment = panel_.treatments[i];
        const Mark& mark = MarkOf(treatment.kind);
        const double x = X(treatment.time);
        if (!HasBadges()) {
            content_ += fmt::format("<g class='{}'><path class='moment' d='M{:.1f} {:.1f}V{:.1f}'/></g>\n",
                                    mark.style, x, Top(), Bottom());
            continue;
        }
        const double y = kCaption + kBadgeRow * static_cast<double>(rowOfBadge_[i]);
        content_ += fmt::format(
            "<g class='{}{}'><path class='moment' d='M{:.1f} {:.1f}V{:.1f}'/><circle cx='{:.1f}' "
            "cy='{:.1f}' r='8.5'/><text x='{:.1f}' y='{:.1f}'>{}</text><title>{}, {}</title></g>\n",
            mark.style, treatment.error == 0 ? "" : " failed", x, y + 8, Bottom(), x, y + 8, x, y + 12,
            mark.letter, TreatmentText(treatment), ClockText(treatment.time));
    }
}

void Figure::DrawNote(const char* text) {
    content_ += fmt::format("<text class='note' x='{:.1f}' y='{:.1f}' text-anchor='middle'>{}</text>\n",
                            (kLeft + kRight) / 2, (Top() + Bottom()) / 2 + 4, text);
}

}  // namespace

std::string HtmlEscaped(std::string_view text) {
    static const std::map<char, const char*> kEntities{
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
    std::string escaped;
    for (const char character : Escaped(text)) {
        const auto entity = kEntities.find(character);
        escaped += entity == kEntities.end() ? std::string(1, character) : entity->second;
    }
    return escaped;
}

std::string ClockText(int64_t time) {
    return fmt::format("{:%T}.{:03}", fmt::localtime(time / 1000), time % 1000);
}

const Mark& MarkOf(TreatmentKind kind) {
    // In the order of the kinds.
    static constexpr std::array<Mark, 6> kMarks{
        {{"S", "suppress"}, {"E", "end"}, {"F", "freeze"}, {"T", "end"}, {"K", "kill"}, {"R", "end"}}};
    return kMarks.at(static_cast<size_t>(kind));
}

std::string TreatmentText(const Treatment& treatment) {
    return fmt::format("{}{}", treatment.error == 0 ? "" : "failed: ", WordOf(treatment.kind));
}

bool MeasuredResource::IsAboveQuota() const {
    return std::ranges::any_of(
        quotas, [this](const Quota& quota) { return peak > static_cast<double>(quota.limit); });
}

MeasuredResource MeasuredOf(const Panel& panel, const Linux::ResourceType& type,
                            const std::vector<Quota>& quotas) {
    MeasuredResource measured{&type, quotas, 0, {}, 0};
    if (!quotas.empty()) {
        measured.duration = std::ranges::min_element(quotas, {}, &Quota::duration)->duration;
    }
    measured.curve = CurveOf(type, measured.duration, panel.process->samples);
    std::erase_if(measured.curve,
                  [&](const Point& point) { return point.time < panel.begin || point.time > panel.end; });
    for (const Point& point : measured.curve) {
        measured.peak = std::max(measured.peak, point.value);
    }
    return measured;
}

std::string FigureOf(const Panel& panel, const MeasuredResource& measured) {
    double largest = std::max(1.0, measured.peak);
    for (const Quota& quota : measured.quotas) {
        largest = std::max(largest, static_cast<double>(quota.limit));
    }
    const Scale scale = ScaleFor(*measured.type, largest);
    const std::string caption = CaptionOf(*measured.type, measured.duration);
    Figure figure(panel, measured.IsAboveQuota() ? kPlotHeight : kFlatHeight);
    figure.SetScale(largest * 1.12);
    figure.DrawBands();
    figure.DrawTimeAxis();
    figure.DrawValueAxis(scale);
    figure.DrawQuotas(measured.quotas, scale);
    figure.DrawCurve(measured.curve);
    figure.DrawTreatments();
    if (measured.curve.empty()) {
        figure.DrawNote("nothing was measured");
        return figure.Take(caption);
    }
    return figure.Take(caption + "; peak " + scale.TextOf(measured.peak));
}

std::string FigureWithoutSamples(const Panel& panel) {
    Figure figure(panel, kFlatHeight / 2);
    figure.DrawBands();
    figure.DrawTimeAxis();
    figure.DrawTreatments();
    return figure.Take("no samples were recorded of this process");
}

}  // namespace KITE::Rqctl
