// rqctl explain: the rules that are in force for a process, and where they were written.

#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/file.h"
#include "proc/command_line.h"
#include "proc/process_file.h"
#include "rqctl/check/layers.h"
#include "rqctl/check/policy_in_force.h"
#include "rqctl/check/quiet_log.h"
#include "rqctl/check/units.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;

struct Options {
    std::string subject;
    std::vector<std::string> paths;
};

// A process as the two parties see it that a report needs.
struct Identity {
    int32_t pid = 0;
    std::string watchedAs;  // by the Kelvra manager; empty: not at all
    std::string seenAs;     // by the service
    bool isAccepted = false;
};

std::optional<int32_t> AsPid(const std::string& subject) {
    int32_t pid = 0;
    const char* end = subject.data() + subject.size();
    const auto [rest, error] = std::from_chars(subject.data(), end, pid);
    return error == std::errc() && rest == end && pid > 0 ? std::optional(pid) : std::nullopt;
}

std::optional<Identity> IdentityOf(int32_t pid) {
    const auto commandLine = Linux::ReadFile(Linux::ProcessFilePath(pid, "cmdline"));
    if (!commandLine) {
        return std::nullopt;
    }
    const std::string seen(Linux::SeenNameOf(*commandLine));
    const std::string name(Linux::ProcessNameOf(*commandLine));
    return Identity{pid, name, seen, !name.empty() && Linux::IsAcceptedAs(seen, name)};
}

std::string IdentityInWords(const Identity& identity) {
    const std::string pid = "pid " + std::to_string(identity.pid);
    if (identity.watchedAs.empty()) {
        return pid + " has no name that the Kelvra manager could watch: nothing applies";
    }
    return pid + ": the Kelvra manager watches it as \"" + Escaped(identity.watchedAs) +
           "\"; the service sees \"" + Escaped(identity.seenAs) +
           (identity.isAccepted ? "\" and accepts reports of it"
                                : "\", a name that a slash in an argument makes, and accepts no report of "
                                  "it: nothing is done");
}

std::string Place(const Element& element, const JsonValue& value) {
    const Position at = element.layer->json.PositionOf(value.begin);
    return Escaped(element.layer->path) + ':' + std::to_string(at.line);
}

std::string OriginInWords(const Explanation& explanation, const Origin& origin) {
    const bool isOwn = origin.element == explanation.line.front()->record;
    return Place(*origin.element, *origin.value) +
           (isOwn ? "" : ", from template " + Escaped(origin.element->Name().text));
}

void PrintLine(const Explanation& explanation) {
    for (const Entry* entry : explanation.line) {
        const Element& element = *entry->record;
        const std::string name = Escaped(element.Name().text);
        const bool isFirst = entry == explanation.line.front();
        Say((isFirst ? Paint(Tone::kNotice, name) : "  inherits from " + name) + " (" +
            Place(element, element.Name()) + ')');
    }
}

void PrintText(const Explanation& explanation, const std::optional<Identity>& identity) {
    if (identity) {
        Say(IdentityInWords(*identity));
    }
    if (explanation.line.empty()) {
        return;
    }
    PrintLine(explanation);
    if (explanation.runningTime != 0) {
        Say("  running time " + std::to_string(explanation.runningTime) + " (" +
            OriginInWords(explanation, explanation.runningTimeOrigin) + ')');
    }
    for (const EffectiveRule& rule : explanation.rules) {
        Say("  " + rule.record.resType + ", rule " + std::to_string(rule.record.id) + " (" +
            OriginInWords(explanation, rule.origin) + ')');
        Say("    if    " + LimitInWords(rule.record));
        Say("    when  " + ConditionsInWords(rule.record));
        Say("    then  " + ActionInWords(rule.record));
    }
    if (explanation.rules.empty()) {
        Say("  no rules");
    }
}

ordered_json ToJson(const Element& element, const JsonValue& value) {
    const Position at = element.layer->json.PositionOf(value.begin);
    return {{"entry", element.Name().text},
            {"file", element.layer->path},
            {"line", at.line},
            {"column", at.column}};
}

ordered_json ToJson(const EffectiveRule& rule) {
    const Kelvra::ResQuotaInfo& record = rule.record;
    return {{"resource", record.resType},
            {"id", record.id},
            {"resource_quota", record.resource},
            {"unit", UnitOf(record.resType).name},
            {"duration", record.duration},
            {"conditions", record.conditions},
            {"action", record.action},
            {"if", LimitInWords(record)},
            {"when", ConditionsInWords(record)},
            {"then", ActionInWords(record)},
            {"origin", ToJson(*rule.origin.element, *rule.origin.value)}};
}

void PrintJson(const Explanation& explanation, const std::optional<Identity>& identity) {
    ordered_json document;
    if (identity) {
        document["pid"] = identity->pid;
        document["watched_as"] = identity->watchedAs;
        document["seen_as"] = identity->seenAs;
        document["accepted"] = identity->isAccepted;
    }
    document["entries"] = ordered_json::array();
    for (const Entry* entry : explanation.line) {
        document["entries"].push_back(ToJson(*entry->record, entry->record->Name()));
    }
    if (explanation.runningTime != 0) {
        document["running_time"] = explanation.runningTime;
        document["running_time_origin"] =
            ToJson(*explanation.runningTimeOrigin.element, *explanation.runningTimeOrigin.value);
    }
    document["rules"] = ordered_json::array();
    for (const EffectiveRule& rule : explanation.rules) {
        document["rules"].push_back(ToJson(rule));
    }
    SayJson(document);
}

ExitStatus Run(const Context& context, const Options& options) {
    const std::optional<int32_t> pid = AsPid(options.subject);
    const std::optional<Identity> identity = pid ? IdentityOf(*pid) : std::nullopt;
    if (pid && !identity) {
        return Fail(kNoSuch, "there is no process " + options.subject);
    }
    const std::vector<std::string> files = QuotaFilesOf(options.paths);
    if (files.empty()) {
        return Fail(kRefused, "there is no quota file in the installed directories");
    }
    const std::vector<Layer> layers = ReadLayers(files);
    const ExplainedPolicy policy(layers);
    if (!policy.IsAccepted()) {
        return Fail(kRefused, "the service refuses the quota files; rqctl check says why");
    }
    const Explanation explanation = policy.Explain(identity ? identity->watchedAs : options.subject);
    context.wantsJson ? PrintJson(explanation, identity) : PrintText(explanation, identity);
    return explanation.line.empty() ? Fail(kNoSuch, "no entry bears the name: no rule applies") : kDone;
}

}  // namespace

void AddExplain(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = AddCommand(app, context, "explain",
                                   "Tells which rules are in force for a process, and where they stand.",
                                   [&context, options] { return Run(context, *options); });
    command.add_option("NAME", options->subject, "a process's name, or its pid: digits only")->required();
    command.add_option("PATH", options->paths,
                       "quota files, or directories with one below etc/efficiency_manager, in the order of "
                       "merging; without any, the installed ones");
    AddJsonOption(command, context);
}

}  // namespace KITE::Rqctl
