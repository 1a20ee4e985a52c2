#include "rqctl/plot/page.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "rqctl/plot/figure.h"
#include "rqctl/plot/panel.h"

namespace KITE::Rqctl {

namespace {

using Kind = Treatment::Kind;

constexpr size_t kMostPanels = 100;
constexpr size_t kShortList = 8;

// No scripts, no other resources: whatever a text might smuggle in, nothing runs and nothing is fetched.
constexpr const char* kHead = R"html(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Quota treatments</title>
<style>
:root { color-scheme: light dark; --back: #ffffff; --card: #f6f8fa; --text: #1f2328; --quiet: #59636e;
  --grid: #d1d9e0; --curve: #0969da; --quota: #bc4c00; --suppress: #9a6700; --freeze: #0a7c9e; --kill: #cf222e;
  --end: #1a7f37; --onbadge: #ffffff; }
@media (prefers-color-scheme: dark) { :root { --back: #0d1117; --card: #151b23; --text: #f0f6fc; --quiet: #9198a1;
  --grid: #303842; --curve: #79c0ff; --quota: #ffa657; --suppress: #d4a72c; --freeze: #56c8d8; --kill: #ff7b72;
  --end: #56d364; --onbadge: #0d1117; } }
body { background: var(--back); color: var(--text); font: 15px/1.45 system-ui, sans-serif; margin: 1.5rem auto;
  max-width: 1000px; padding: 0 1rem; }
h1 { font-size: 1.4rem; margin: 0 0 .2rem; }
h2 { font-size: 1.05rem; margin: 0 0 .4rem; overflow-wrap: anywhere; }
h2 small, .quiet, summary { color: var(--quiet); font-weight: normal; }
section { background: var(--card); border: 1px solid var(--grid); border-radius: 8px; margin: 1rem 0;
  padding: .8rem 1rem; }
svg { display: block; width: 100%; height: auto; margin: .2rem 0; }
svg.key { display: inline-block; width: 26px; height: 18px; vertical-align: middle; margin: 0 .3rem 0 0; }
.legend span { display: inline-block; margin: 0 1.1rem .2rem 0; white-space: nowrap; }
.warning { border: 1px solid var(--suppress); border-radius: 8px; padding: .5rem 1rem; }
text { font: 12px system-ui, sans-serif; fill: var(--text); }
text.tick, text.note { fill: var(--quiet); font-size: 11px; }
text.caption { font-size: 13px; }
text.limit { fill: var(--quota); paint-order: stroke; stroke: var(--card); stroke-width: 4px; }
.axis { stroke: var(--quiet); fill: none; }
.grid { stroke: var(--grid); fill: none; stroke-width: .7; }
.curve { stroke: var(--curve); fill: none; stroke-width: 2; stroke-linejoin: round; stroke-linecap: round; }
.quota { stroke: var(--quota); fill: none; stroke-width: 1.5; stroke-dasharray: 7 4; }
rect.suppressed { fill: var(--suppress); opacity: .2; }
rect.frozen { fill: url(#hatch); opacity: .4; }
.moment { stroke-width: 1.2; fill: none; }
g circle { stroke-width: 1.5; }
g text { fill: var(--onbadge); font-weight: 700; font-size: 11px; text-anchor: middle; }
.suppress .moment, .suppress circle { stroke: var(--suppress); } .suppress circle { fill: var(--suppress); }
.freeze .moment, .freeze circle { stroke: var(--freeze); } .freeze circle { fill: var(--freeze); }
.kill .moment, .kill circle { stroke: var(--kill); } .kill circle { fill: var(--kill); }
.end .moment, .end circle { stroke: var(--end); } .end circle { fill: var(--end); }
.failed circle { fill: var(--card); stroke-dasharray: 3 2; } .failed text { fill: var(--text); }
.failed .moment { stroke-dasharray: 2 3; }
ol { list-style: none; margin: .3rem 0 0; padding: 0; font-size: .9rem; }
li { font-variant-numeric: tabular-nums; overflow-wrap: anywhere; }
</style></head><body>
<svg width="0" height="0" style="position:absolute" aria-hidden="true"><defs><pattern id="hatch" width="6" height="6"
 patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><path d="M0 0V6" style="stroke:var(--freeze);stroke-width:5"/>
</pattern></defs></svg>
)html";

std::string KeyOf(const std::string& picture, const std::string& text) {
    return "<span><svg class='key' viewBox='0 0 26 18'>" + picture + "</svg>" + text + "</span>\n";
}

std::string Legend() {
    std::string legend = "<p class='legend'>" +
                         KeyOf("<path class='curve' d='M1 13L9 5L17 11L25 4'/>", "measured") +
                         KeyOf("<path class='quota' d='M1 9H25'/>", "quota") +
                         KeyOf("<rect class='suppressed' width='26' height='18'/>", "while suppressed") +
                         KeyOf("<rect class='frozen' width='26' height='18'/>", "while frozen");
    for (const Kind kind :
         {Kind::kSuppress, Kind::kSuppressEnd, Kind::kFreeze, Kind::kThaw, Kind::kKill, Kind::kRelease}) {
        const Look look = LookOf(kind);
        legend +=
            KeyOf(std::string("<g class='") + look.style +
                      "'><circle cx='13' cy='9' r='8.2'/><text x='13' y='13'>" + look.letter + "</text></g>",
                  look.word);
    }
    return legend +
           KeyOf("<g class='kill failed'><circle cx='13' cy='9' r='8.2'/><text x='13' y='13'>K</text></g>",
                 "tried, but failed") +
           "</p>\n";
}

std::string DateText(int64_t time) {
    const std::time_t seconds = time / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %Z", &local);
    return HtmlEscaped(text.data());
}

std::string Introduction(const RunRecord& record, const std::vector<Panel>& panels, size_t omitted) {
    std::string text = "<h1>What the quotas did</h1>\n";
    if (panels.empty()) {
        return text + "<p class='quiet'>No process was suppressed, frozen or killed.</p>\n";
    }
    const auto begin = std::ranges::min_element(panels, {}, &Panel::begin)->begin;
    const auto end = std::ranges::max_element(panels, {}, &Panel::end)->end;
    text += "<p class='quiet'>" + DateText(begin) + " to " + DateText(end) + "</p>\n";
    if (record.isDryRun) {
        text +=
            "<p class='warning'>This was, at least in part, a dry run: nothing was really done then.</p>\n";
    }
    if (!record.hasSamples) {
        text +=
            "<p class='warning'>No samples were recorded: the parameter kelvra.record_samples turns that "
            "on.</p>\n";
    }
    if (omitted != 0) {
        text += "<p class='warning'>" + std::to_string(omitted) + " earlier ones are left out.</p>\n";
    }
    if (record.skippedLines != 0) {
        text += "<p class='quiet'>" + std::to_string(record.skippedLines) +
                " lines of the files could not be understood.</p>\n";
    }
    return text + Legend();
}

std::string ListOf(const std::vector<Treatment>& treatments) {
    std::string list = std::string("<details") + (treatments.size() <= kShortList ? " open" : "") +
                       "><summary>" + std::to_string(treatments.size()) +
                       (treatments.size() == 1 ? " moment" : " moments") + "</summary><ol>\n";
    for (const Treatment& treatment : treatments) {
        const Look look = LookOf(treatment.kind);
        list += "<li>" + ExactClockText(treatment.time) + " <b>" + look.letter + "</b> " +
                (treatment.error == 0 ? "" : "failed: ") + look.word;
        if (treatment.error != 0) {
            const char* reason = strerrordesc_np(static_cast<int>(treatment.error));
            list += std::string(" (") + (reason == nullptr ? "unknown error" : reason) + ")";
        }
        list += treatment.detail.empty() ? "" : ", <bdi>" + HtmlEscaped(treatment.detail) + "</bdi>";
        list += "</li>\n";
    }
    return list + "</ol></details>\n";
}

std::string SectionOf(const Panel& panel) {
    std::string section = "<section><h2><bdi>" + HtmlEscaped(panel.name) + "</bdi> <small>pid " +
                          std::to_string(panel.pid) + ", first treated " +
                          DateText(panel.treatments.front().time) + "</small></h2>\n";
    std::vector<std::string> figures;
    for (const auto& [resource, quotas] : panel.process->quotas) {
        // What broke its quota comes first.
        const Measured measured = Measure(panel, resource, quotas);
        figures.insert(measured.IsAboveQuota() ? figures.begin() : figures.end(), FigureOf(panel, measured));
    }
    for (const std::string& figure : figures) {
        section += figure;
    }
    if (panel.process->quotas.empty()) {
        section += FigureWithoutSamples(panel);
    }
    return section + ListOf(panel.treatments) + "</section>\n";
}

}  // namespace

std::string PageOf(const RunRecord& record) {
    std::vector<Panel> panels = PanelsOf(record);
    const size_t omitted = panels.size() - std::min(panels.size(), kMostPanels);
    panels.erase(panels.begin(), panels.begin() + static_cast<ptrdiff_t>(omitted));
    std::string page = kHead + Introduction(record, panels, omitted);
    for (const Panel& panel : panels) {
        page += SectionOf(panel);
    }
    return page + "</body></html>\n";
}

}  // namespace KITE::Rqctl
