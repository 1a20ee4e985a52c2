// rqctl check: what is wrong in quota files.

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "rqctl/check/findings.h"
#include "rqctl/check/policy_in_force.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

struct Verdict {
    std::vector<Finding> findings;
    bool isAccepted = false;

    auto Count(Severity severity) const { return std::ranges::count(findings, severity, &Finding::severity); }
};

Verdict Check(const Layers& layers) {
    Verdict verdict{FindingsIn(layers), PolicyInForce(layers).IsAccepted()};
    if (!verdict.isAccepted && verdict.Count(Severity::kError) == 0) {
        verdict.findings.push_back({Severity::kError, &layers.front().root, 0,
                                    "refused by the service for a reason that is not found here",
                                    "what its log says"});
    }
    return verdict;
}

std::string SeverityText(const Finding& finding) {
    return finding.severity == Severity::kError ? "error" : "warning";
}

void PrintFinding(const Finding& finding) {
    const Position at = finding.value->layer->PositionOf(finding.offset);
    const std::string pointer = finding.value->Pointer().to_string();
    const std::string where = fmt::format("{}:{}:{}: {}: ", finding.value->layer->path, at.line, at.column,
                                          pointer.empty() ? "(document)" : pointer);
    const Tone tone = finding.severity == Severity::kError ? Tone::kBad : Tone::kWarning;
    Say(Escaped(where) + Paint(tone, SeverityText(finding) + ": ") +
        Escaped(fmt::format("{}, allowed: {}", finding.found, finding.allowed)));
}

std::string Counted(ptrdiff_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

void PrintText(const Verdict& verdict) {
    std::ranges::for_each(verdict.findings, PrintFinding);
    Say(fmt::format("{} by the service: {}, {}",
                    verdict.isAccepted ? Paint(Tone::kGood, "accepted") : Paint(Tone::kBad, "refused"),
                    Counted(verdict.Count(Severity::kError), "error"),
                    Counted(verdict.Count(Severity::kWarning), "warning")));
}

void PrintJson(const Verdict& verdict) {
    auto findings = nlohmann::ordered_json::array();
    for (const Finding& finding : verdict.findings) {
        const Position at = finding.value->layer->PositionOf(finding.offset);
        findings.push_back({{"file", finding.value->layer->path},
                            {"line", at.line},
                            {"column", at.column},
                            {"pointer", finding.value->Pointer().to_string()},
                            {"severity", SeverityText(finding)},
                            {"found", finding.found},
                            {"allowed", finding.allowed}});
    }
    SayJson({{"accepted", verdict.isAccepted},
             {"errors", verdict.Count(Severity::kError)},
             {"warnings", verdict.Count(Severity::kWarning)},
             {"findings", std::move(findings)}});
}

ExitStatus Run(const CommandLine& line) {
    const Layers layers = ReadLayers(QuotaFilesOf(line.paths));
    const Verdict verdict = Check(layers);
    line.wantsJson ? PrintJson(verdict) : PrintText(verdict);
    if (!verdict.isAccepted) {
        return kRefused;
    }
    return line.isStrict && !verdict.findings.empty() ? kWarnings : kDone;
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_option("PATH", line.paths, kPathHelp)->required();
    command.add_flag("--strict", line.isStrict, "exit status 1 when there are warnings");
}

}  // namespace

const Command kCheck{"check", "Tells what is wrong in quota files, and where.", Run, AddOptions};

}  // namespace KITE::Rqctl
