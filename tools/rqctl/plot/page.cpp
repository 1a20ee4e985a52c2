#include "rqctl/plot/page.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cstddef>
#include <functional>

#include "rqctl/plot/figure.h"
#include "rqctl/plot/page_head.h"
#include "rqctl/plot/panel.h"

namespace KITE::Rqctl {

namespace {

using Tools::WordOf;
using Kind = Tools::TreatmentKind;

constexpr size_t kMostPanels = 100;
constexpr size_t kShortList = 8;

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
    std::stable_partition(resources.begin(), resources.end(), std::mem_fn(&MeasuredResource::IsAboveQuota));
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
    std::string page = kPageHead + Introduction(record, panels, omitted);
    for (const Panel& panel : panels) {
        page += SectionOf(panel);
    }
    return page + "</body></html>\n";
}

}  // namespace KITE::Rqctl
