#include "rqctl/plot/page.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cstddef>
#include <map>

#include "rqctl/plot/figure.h"
#include "rqctl/plot/page_head.h"
#include "rqctl/plot/panel.h"
#include "shared/terminal.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

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
    constexpr std::string_view kBadge =
        "<g class='{}'><circle cx='13' cy='9' r='8.2'/><text x='13' y='13'>{}</text></g>";
    for (const TreatmentKind& kind : kTreatmentKinds) {
        legend += KeyOf(fmt::format(kBadge, kind.style, kind.letter), kind.word);
    }
    return legend + KeyOf(fmt::format(kBadge, "kill failed", "K"), "tried, but failed") + "</p>\n";
}

// A text in HTML; control characters and what is not UTF-8 become visible.
std::string HtmlEscaped(std::string_view text) {
    static const std::map<char, const char*> kEntities{
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
    std::string escaped;
    for (const char character : Tools::Escaped(text)) {
        const auto entity = kEntities.find(character);
        escaped += entity == kEntities.end() ? std::string(1, character) : entity->second;
    }
    return escaped;
}

std::string Notice(std::string_view style, std::string_view text) {
    return fmt::format("<p class='{}'>{}</p>\n", style, text);
}

std::string DateText(int64_t time) {
    return HtmlEscaped(fmt::format("{:%F %T %Z}", fmt::localtime(time / 1000)));
}

std::string Introduction(const RunRecord& record, const std::vector<Panel>& panels, size_t omitted) {
    std::string text = "<h1>What the quotas did</h1>\n";
    if (panels.empty()) {
        return text + Notice("quiet", "No process was suppressed, frozen or killed.");
    }
    const auto begin = std::ranges::min_element(panels, {}, &Panel::begin)->begin;
    const auto end = std::ranges::max_element(panels, {}, &Panel::end)->end;
    text += Notice("quiet", fmt::format("{} to {}", DateText(begin), DateText(end)));
    if (record.isDryRun) {
        text += Notice("warning", "At least a part of this was a dry run, in which nothing is done.");
    }
    if (!record.hasSamples) {
        text +=
            Notice("warning", "No samples were recorded: the parameter kelvra.record_samples turns that on.");
    }
    if (omitted != 0) {
        text += Notice("warning", fmt::format("{} earlier ones are left out.", omitted));
    }
    if (record.skippedLines != 0) {
        text += Notice("quiet",
                       fmt::format("{} lines of the files could not be understood.", record.skippedLines));
    }
    return text + Legend();
}

std::string ListOf(const std::vector<Treatment>& treatments) {
    std::string list = fmt::format("<details{}><summary>{} moment{}</summary><ol>\n",
                                   treatments.size() <= kShortList ? " open" : "", treatments.size(),
                                   treatments.size() == 1 ? "" : "s");
    for (const auto& treatment : treatments) {
        const auto& [time, kind, error, detail] = treatment;
        list += fmt::format(
            "<li>{} <b>{}</b> {}{}{}</li>\n", Tools::ClockText(time), kind->letter, treatment.Text(),
            error == 0 ? "" : fmt::format(" ({})", Linux::ErrorOf(static_cast<int>(error)).message()),
            detail.empty() ? "" : fmt::format(", <bdi>{}</bdi>", HtmlEscaped(detail)));
    }
    return list + "</ol></details>\n";
}

std::string SectionOf(const Panel& panel) {
    const auto& [pid, name] = panel.process->first;
    return fmt::format(
        "<section><h2><bdi>{}</bdi> <small>pid {}, first treated {}</small></h2>\n{}{}</section>\n",
        HtmlEscaped(name), pid, DateText(panel.treatments.front().time), FiguresOf(panel),
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
