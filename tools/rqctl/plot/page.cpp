#include "rqctl/plot/page.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cstddef>

#include "rqctl/plot/figure.h"
#include "rqctl/plot/panel.h"

namespace KITE::Rqctl {

namespace {

using Tools::WordOf;
using Kind = Tools::TreatmentKind;

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

std::string KeyOf(std::string_view picture, std::string_view text) {
    return fmt::format("<span><svg class='key' viewBox='0 0 26 18'>{}</svg>{}</span>\n", picture, text);
}

std::string Legend() {
    std::string legend = "<p class='legend'>" +
                         KeyOf("<path class='curve' d='M1 13L9 5L17 11L25 4'/>", "measured") +
                         KeyOf("<path class='quota' d='M1 9H25'/>", "quota") +
                         KeyOf("<rect class='suppressed' width='26' height='18'/>", "while suppressed") +
                         KeyOf("<rect class='frozen' width='26' height='18'/>", "while frozen");
    for (const Kind kind :
         {Kind::kSuppress, Kind::kSuppressEnd, Kind::kFreeze, Kind::kThaw, Kind::kKill, Kind::kRelease}) {
        const Mark& mark = MarkOf(kind);
        legend += KeyOf(
            fmt::format("<g class='{}'><circle cx='13' cy='9' r='8.2'/><text x='13' y='13'>{}</text></g>",
                        mark.style, mark.letter),
            WordOf(kind));
    }
    return legend +
           KeyOf("<g class='kill failed'><circle cx='13' cy='9' r='8.2'/><text x='13' y='13'>K</text></g>",
                 "tried, but failed") +
           "</p>\n";
}

std::string DateText(int64_t time) {
    return HtmlEscaped(fmt::format("{:%F %T %Z}", fmt::localtime(time / 1000)));
}

std::string Introduction(const RunRecord& record, const std::vector<Panel>& panels, size_t omitted) {
    std::string text = "<h1>What the quotas did</h1>\n";
    if (panels.empty()) {
        return text + "<p class='quiet'>No process was suppressed, frozen or killed.</p>\n";
    }
    const auto begin = std::ranges::min_element(panels, {}, &Panel::begin)->begin;
    const auto end = std::ranges::max_element(panels, {}, &Panel::end)->end;
    text += fmt::format("<p class='quiet'>{} to {}</p>\n", DateText(begin), DateText(end));
    if (record.isDryRun) {
        text += "<p class='warning'>At least a part of this was a dry run, in which nothing is done.</p>\n";
    }
    if (!record.hasSamples) {
        text +=
            "<p class='warning'>No samples were recorded: the parameter kelvra.record_samples turns that "
            "on.</p>\n";
    }
    if (omitted != 0) {
        text += fmt::format("<p class='warning'>{} earlier ones are left out.</p>\n", omitted);
    }
    if (record.skippedLines != 0) {
        text += fmt::format("<p class='quiet'>{} lines of the files could not be understood.</p>\n",
                            record.skippedLines);
    }
    return text + Legend();
}

std::string ListOf(const std::vector<Treatment>& treatments) {
    std::string list = fmt::format("<details{}><summary>{} moment{}</summary><ol>\n",
                                   treatments.size() <= kShortList ? " open" : "", treatments.size(),
                                   treatments.size() == 1 ? "" : "s");
    for (const Treatment& treatment : treatments) {
        list += fmt::format("<li>{} <b>{}</b> {}", ClockText(treatment.time), MarkOf(treatment.kind).letter,
                            TreatmentText(treatment));
        if (treatment.error != 0) {
            list += fmt::format(" ({})", Linux::ErrorOf(static_cast<int>(treatment.error)).message());
        }
        list += treatment.detail.empty() ? "" : fmt::format(", <bdi>{}</bdi>", HtmlEscaped(treatment.detail));
        list += "</li>\n";
    }
    return list + "</ol></details>\n";
}

std::string FiguresOf(const Panel& panel) {
    if (panel.process->quotas.empty()) {
        return FigureWithoutSamples(panel);
    }
    std::vector<MeasuredResource> resources;
    for (const auto& [type, quotas] : panel.process->quotas) {
        resources.push_back(MeasuredOf(panel, *type, quotas));
    }
    // Those whose quota was exceeded come first.
    std::ranges::stable_partition(resources, &MeasuredResource::IsAboveQuota);
    std::string figures;
    for (const MeasuredResource& measured : resources) {
        figures += FigureOf(panel, measured);
    }
    return figures;
}

std::string SectionOf(const Panel& panel) {
    return fmt::format(
        "<section><h2><bdi>{}</bdi> <small>pid {}, first treated {}</small></h2>\n{}{}</section>\n",
        HtmlEscaped(panel.name), panel.pid, DateText(panel.treatments.front().time), FiguresOf(panel),
        ListOf(panel.treatments));
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
