#include "rqctl/plot/figure.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "rqctl/output.h"

namespace KITE::Rqctl {

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

template <typename... Args>
std::string Format(const char* format, Args... args) {
    std::array<char, 512> text{};
    std::snprintf(text.data(), text.size(), format, args...);
    return text.data();
}

// A number as people write it, of at most three digits behind the point.
std::string Plain(double value) {
    return Format("%.*f", value >= 100 || value == std::floor(value) ? 0 : value >= 10 ? 1 : 2, value);
}

struct Unit {
    double size;  // how many of the resource's own units
    const char* name;
};

// Memory is counted in KiB, io in bytes.
Unit UnitFor(const std::string& resource, double largest) {
    static constexpr std::array<const char*, 5> kNames{"B", "KiB", "MiB", "GiB", "TiB"};
    if (resource != "mem" && resource != "io") {
        return {1, "%"};
    }
    size_t name = resource == "mem" ? 1 : 0;
    double size = 1;
    for (; largest / size >= 1024 && name + 1 < kNames.size(); ++name) {
        size *= 1024;
    }
    return {size, kNames.at(name)};
}

std::string CaptionOf(const std::string& resource, int64_t duration) {
    const std::string over = std::to_string(duration) + " s";
    if (resource == "mem") {
        return "mem: memory, proportional set size";
    }
    if (resource == "io") {
        return "io: written to storage in the last " + over;
    }
    return HtmlEscaped(resource) + ": processor time, percent of one core over the last " + over;
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
        return Format("<svg viewBox='0 0 %.0f %.0f' role='img'>\n", kWidth, height) +
               "<text class='caption' x='4' y='14'>" + caption + "</text>\n" + content_ + "</svg>\n";
    }

    void SetScale(double largest) { largest_ = largest; }
    void DrawTimeAxis();
    void DrawValueAxis(const Unit& unit);
    void DrawBands();
    void DrawCurve(const std::vector<Point>& curve);
    void DrawQuotas(const std::vector<Quota>& quotas, const Unit& unit);
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
    content_ += Format("<path class='axis' d='M%.1f %.1fH%.1f'/>\n", kLeft, Bottom(), kRight);
    const int64_t step = TimeStep(panel_.end - panel_.begin);
    for (int64_t time = (panel_.begin + step - 1) / step * step; time <= panel_.end; time += step) {
        content_ += Format(
            "<path class='grid' d='M%.1f %.1fV%.1f'/><text class='tick' x='%.1f' y='%.1f' "
            "text-anchor='middle'>%s</text>\n",
            X(time), Top(), Bottom(), std::clamp(X(time), kLeft, kRight - 20), Bottom() + 16,
            ClockText(time).c_str());
    }
}

void Figure::DrawValueAxis(const Unit& unit) {
    const double step = RoundStep(largest_ / unit.size, plotHeight_ < kPlotHeight ? 2 : 4);
    for (double value = 0; value * unit.size <= largest_; value += step) {
        const double y = Y(value * unit.size);
        content_ += Format(
            "<path class='grid' d='M%.1f %.1fH%.1f'/><text class='tick' x='%.1f' y='%.1f' "
            "text-anchor='end'>%s %s</text>\n",
            kLeft, y, kRight, kLeft - 6, y + 4, Plain(value).c_str(), unit.name);
    }
}

void Figure::DrawBands() {
    for (const Band& band : panel_.bands) {
        const bool isFreeze = band.kind == Treatment::Kind::kFreeze;
        content_ += Format(
            "<rect class='%s' x='%.1f' y='%.1f' width='%.1f' height='%.1f'><title>%s from %s to "
            "%s</title></rect>\n",
            isFreeze ? "frozen" : "suppressed", X(band.from), Top(), std::max(1.0, X(band.to) - X(band.from)),
            plotHeight_, isFreeze ? "frozen" : "suppressed", ExactClockText(band.from).c_str(),
            ExactClockText(band.to).c_str());
    }
}

void Figure::DrawCurve(const std::vector<Point>& curve) {
    std::string path;
    for (const Point& point : Thinned(curve)) {
        path += Format("%s%.1f %.1f", point.beginsPiece || path.empty() ? "M" : "L", X(point.time),
                       Y(point.value));
    }
    content_ += "<path class='curve' d='" + path + "'/>\n";
}

void Figure::DrawQuotas(const std::vector<Quota>& quotas, const Unit& unit) {
    constexpr double kLabelHeight = 13;
    double lastLabel = 0;
    for (const Quota& quota : quotas) {
        const auto limit = static_cast<double>(quota.limit);
        const double y = Y(limit);
        content_ += Format("<path class='quota' d='M%.1f %.1fH%.1f'/>\n", kLeft, y, kRight);
        const double labelY = y - 4 < Top() + kLabelHeight ? y + kLabelHeight : y - 4;
        if (std::abs(labelY - lastLabel) >= kLabelHeight) {
            content_ +=
                Format("<text class='limit' x='%.1f' y='%.1f' text-anchor='end'>quota %s %s, %ld s</text>\n",
                       kRight - 4, labelY, Plain(limit / unit.size).c_str(), unit.name, quota.duration);
            lastLabel = labelY;
        }
    }
}

void Figure::DrawTreatments() {
    for (size_t i = 0; i < panel_.treatments.size(); ++i) {
        const Treatment& treatment = panel_.treatments[i];
        const Look look = LookOf(treatment.kind);
        const double x = X(treatment.time);
        if (!HasBadges()) {
            content_ += Format("<g class='%s'><path class='moment' d='M%.1f %.1fV%.1f'/></g>\n", look.style,
                               x, Top(), Bottom());
            continue;
        }
        const double y = kCaption + kBadgeRow * static_cast<double>(rowOfBadge_[i]);
        content_ += Format("<g class='%s%s'><path class='moment' d='M%.1f %.1fV%.1f'/>", look.style,
                           treatment.error == 0 ? "" : " failed", x, y + 8, Bottom());
        content_ += Format("<circle cx='%.1f' cy='%.1f' r='8.5'/><text x='%.1f' y='%.1f'>%s</text>", x, y + 8,
                           x, y + 12, look.letter);
        content_ += std::string("<title>") + (treatment.error == 0 ? "" : "failed: ") + look.word + ", " +
                    ExactClockText(treatment.time) + "</title></g>\n";
    }
}

void Figure::DrawNote(const char* text) {
    content_ += Format("<text class='note' x='%.1f' y='%.1f' text-anchor='middle'>%s</text>\n",
                       (kLeft + kRight) / 2, (Top() + Bottom()) / 2 + 4, text);
}

}  // namespace

std::string HtmlEscaped(std::string_view text) {
    std::string escaped;
    for (const char character : Escaped(text)) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

std::string ClockText(int64_t time) {
    const std::time_t seconds = time / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    return Format("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
}

std::string ExactClockText(int64_t time) {
    return ClockText(time) + Format(".%03d", static_cast<int>(time % 1000));
}

Look LookOf(Treatment::Kind kind) {
    switch (kind) {
        case Treatment::Kind::kSuppress:
            return {"S", "suppressed", "suppress"};
        case Treatment::Kind::kSuppressEnd:
            return {"E", "end of the suppression", "end"};
        case Treatment::Kind::kFreeze:
            return {"F", "frozen", "freeze"};
        case Treatment::Kind::kThaw:
            return {"T", "thawed", "end"};
        case Treatment::Kind::kKill:
            return {"K", "killed", "kill"};
        case Treatment::Kind::kRelease:
            break;
    }
    return {"R", "released by an administrator", "end"};
}

bool Measured::IsAboveQuota() const {
    return std::ranges::any_of(
        quotas, [this](const Quota& quota) { return peak > static_cast<double>(quota.limit); });
}

Measured Measure(const Panel& panel, const std::string& resource, const std::vector<Quota>& quotas) {
    Measured measured{resource, quotas, 0, {}, 0};
    if (!quotas.empty()) {
        measured.duration = std::ranges::min_element(quotas, {}, &Quota::duration)->duration;
    }
    measured.curve = CurveOf(resource, measured.duration, panel.process->samples);
    std::erase_if(measured.curve,
                  [&](const Point& point) { return point.time < panel.begin || point.time > panel.end; });
    for (const Point& point : measured.curve) {
        measured.peak = std::max(measured.peak, point.value);
    }
    return measured;
}

std::string FigureOf(const Panel& panel, const Measured& measured) {
    double largest = std::max(1.0, measured.peak);
    for (const Quota& quota : measured.quotas) {
        largest = std::max(largest, static_cast<double>(quota.limit));
    }
    const Unit unit = UnitFor(measured.resource, largest);
    const std::string caption = CaptionOf(measured.resource, measured.duration);
    Figure figure(panel, measured.IsAboveQuota() ? kPlotHeight : kFlatHeight);
    figure.SetScale(largest * 1.12);
    figure.DrawBands();
    figure.DrawTimeAxis();
    figure.DrawValueAxis(unit);
    figure.DrawQuotas(measured.quotas, unit);
    figure.DrawCurve(measured.curve);
    figure.DrawTreatments();
    if (measured.curve.empty()) {
        figure.DrawNote("nothing was measured");
        return figure.Take(caption);
    }
    return figure.Take(caption + "; peak " + Plain(measured.peak / unit.size) + " " + unit.name);
}

std::string FigureWithoutSamples(const Panel& panel) {
    Figure figure(panel, kFlatHeight / 2);
    figure.DrawBands();
    figure.DrawTimeAxis();
    figure.DrawTreatments();
    return figure.Take("no samples were recorded of it");
}

}  // namespace KITE::Rqctl
