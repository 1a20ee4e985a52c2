// rqctl check: what is wrong in quota files.

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

struct Result {
    std::vector<Finding> findings;
    bool isAccepted = false;

    size_t Count(Severity severity) const {
        return static_cast<size_t>(std::ranges::count(findings, severity, &Finding::severity));
    }
};

Result Check(const std::vector<Layer>& layers) {
    Result result{Lint(layers), ExplainedPolicy(layers).IsAccepted()};
    if (!result.isAccepted && result.Count(Severity::kError) == 0) {
        result.findings.push_back({Severity::kError, &layers.front(), 0, "",
                                   "refused by the service for a reason not found here",
                                   "what its log says"});
    }
    return result;
}

std::string SeverityText(const Finding& finding) {
    return finding.severity == Severity::kError ? "error" : "warning";
}

void PrintFinding(const Finding& finding) {
    const Position at = finding.layer->json.PositionOf(finding.offset);
    const std::string where = finding.layer->path + ':' + std::to_string(at.line) + ':' +
                              std::to_string(at.column) + ": " +
                              (finding.pointer.empty() ? "(document)" : finding.pointer) + ": ";
    const Tone tone = finding.severity == Severity::kError ? Tone::kBad : Tone::kWarning;
    Say(Escaped(where) + Paint(tone, SeverityText(finding) + ": ") +
        Escaped(finding.found + ", allowed: " + finding.allowed));
}

std::string Counted(size_t count, const std::string& noun) {
    return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

void PrintText(const Result& result) {
    for (const Finding& finding : result.findings) {
        PrintFinding(finding);
    }
    const std::string verdict =
        result.isAccepted ? Paint(Tone::kGood, "accepted") : Paint(Tone::kBad, "refused");
    Say(verdict + " by the service: " + Counted(result.Count(Severity::kError), "error") + ", " +
        Counted(result.Count(Severity::kWarning), "warning"));
}

void PrintJson(const Result& result) {
    auto findings = nlohmann::ordered_json::array();
    for (const Finding& finding : result.findings) {
        const Position at = finding.layer->json.PositionOf(finding.offset);
        findings.push_back({{"file", finding.layer->path},
                            {"line", at.line},
                            {"column", at.column},
                            {"pointer", finding.pointer},
                            {"severity", SeverityText(finding)},
                            {"found", finding.found},
                            {"allowed", finding.allowed}});
    }
    SayJson({{"accepted", result.isAccepted},
             {"errors", result.Count(Severity::kError)},
             {"warnings", result.Count(Severity::kWarning)},
             {"findings", std::move(findings)}});
}

ExitStatus Run(const Context& context, const Options& options) {
    const QuietLog quiet;
    const std::vector<Layer> layers = ReadLayers(QuotaFilesOf(options.paths));
    const Result result = Check(layers);
    context.wantsJson ? PrintJson(result) : PrintText(result);
    if (!result.isAccepted) {
        return kRefused;
    }
    return options.isStrict && !result.findings.empty() ? kWarnings : kDone;
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
