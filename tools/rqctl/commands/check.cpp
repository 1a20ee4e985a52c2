// rqctl check: what is wrong in quota files.

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "rqctl/check/findings.h"
#include "rqctl/check/layers.h"
#include "rqctl/check/policy_in_force.h"
#include "rqctl/check/quiet_log.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

struct Options {
    std::vector<std::string> paths;
    bool isStrict = false;
};

struct Verdict {
    std::vector<Finding> findings;
    bool isAccepted = false;

    size_t Count(Severity severity) const {
        return static_cast<size_t>(std::ranges::count(findings, severity, &Finding::severity));
    }
};

Verdict Check(const std::vector<Layer>& layers) {
    Verdict verdict{FindingsIn(layers), PolicyInForce(layers).IsAccepted()};
    if (!verdict.isAccepted && verdict.Count(Severity::kError) == 0) {
        verdict.findings.push_back({Severity::kError, &layers.front(), 0, "",
                                    "refused by the service for a reason that is not found here",
                                    "what its log says"});
    }
    return verdict;
}

std::string SeverityText(const Finding& finding) {
    return finding.severity == Severity::kError ? "error" : "warning";
}

void PrintFinding(const Finding& finding) {
    const Position at = finding.layer->json.PositionOf(finding.offset);
    const std::string where = fmt::format("{}:{}:{}: {}: ", finding.layer->path, at.line, at.column,
                                          finding.pointer.empty() ? "(document)" : finding.pointer);
    const Tone tone = finding.severity == Severity::kError ? Tone::kBad : Tone::kWarning;
    Say(Escaped(where) + Paint(tone, SeverityText(finding) + ": ") +
        Escaped(fmt::format("{}, allowed: {}", finding.found, finding.allowed)));
}

std::string Counted(size_t count, std::string_view noun) {
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
        const Position at = finding.layer->json.PositionOf(finding.offset);
        findings.push_back({{"file", finding.layer->path},
                            {"line", at.line},
                            {"column", at.column},
                            {"pointer", finding.pointer},
                            {"severity", SeverityText(finding)},
                            {"found", finding.found},
                            {"allowed", finding.allowed}});
    }
    SayJson({{"accepted", verdict.isAccepted},
             {"errors", verdict.Count(Severity::kError)},
             {"warnings", verdict.Count(Severity::kWarning)},
             {"findings", std::move(findings)}});
}

ExitStatus Run(const Context& context, const Options& options) {
    const QuietLog quiet;
    const std::vector<Layer> layers = ReadLayers(QuotaFilesOf(options.paths));
    const Verdict verdict = Check(layers);
    context.wantsJson ? PrintJson(verdict) : PrintText(verdict);
    if (!verdict.isAccepted) {
        return kRefused;
    }
    return options.isStrict && !verdict.findings.empty() ? kWarnings : kDone;
}

}  // namespace

void AddCheck(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = AddCommand(app, context, "check", "Tells what is wrong in quota files, and where.",
                                   [&context, options] { return Run(context, *options); });
    command
        .add_option(
            "PATH", options->paths,
            "quota files, or directories with one below etc/efficiency_manager, in the order of merging")
        ->required();
    command.add_flag("--strict", options->isStrict, "exit status 1 when there are warnings");
    AddJsonOption(command, context);
}

}  // namespace KITE::Rqctl
