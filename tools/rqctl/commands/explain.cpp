// rqctl explain: the rules that are in force for a process, and where they were written.

#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "base/file.h"
#include "base/resource_types.h"
#include "base/text.h"
#include "proc/process_file.h"
#include "proc/program.h"
#include "rqctl/check/policy_in_force.h"
#include "rqctl/check/rule_words.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;

// The names that the Kelvra manager and the service know a process by.
struct Identity {
    int32_t pid = 0;
    std::string watchedAs;  // by the Kelvra manager; empty: not at all
    std::string seenAs;     // by the service
    bool isAccepted = false;
};

std::optional<int32_t> AsPid(const std::string& subject) {
    const auto pid = Linux::ParseDecimal(subject);
    return pid && *pid > 0 && *pid <= INT32_MAX ? std::optional(static_cast<int32_t>(*pid)) : std::nullopt;
}

std::optional<Identity> IdentityOf(int32_t pid) {
    const auto commandLine = Linux::ReadFile(Linux::ProcessFilePath(pid, "cmdline"));
    if (!commandLine) {
        return std::nullopt;
    }
    const std::string name(Linux::ProcessNameOf(*commandLine));
    const std::string seen(Linux::SeenNameOf(*commandLine));
    return Identity{pid, name, seen, !name.empty() && Linux::IsAcceptedAs(seen, name)};
}

std::string IdentityInWords(const Identity& identity) {
    if (identity.watchedAs.empty()) {
        return fmt::format("pid {} has no name that the Kelvra manager could watch: no rule applies",
                           identity.pid);
    }
    return fmt::format("pid {}: the Kelvra manager watches it as \"{}\"; the service sees \"{}\"{}",
                       identity.pid, Escaped(identity.watchedAs), Escaped(identity.seenAs),
                       identity.isAccepted
                           ? " and accepts reports of it"
                           : ", which follows the last slash in its arguments, and refuses every report of "
                             "it: nothing is done to it");
}

std::string PlaceOf(const JsonValue& value) {
    return fmt::format("{}:{}", Escaped(value.layer->path), value.Place().line);
}

std::string OriginInWords(const EntryInForce& entry, const Origin& origin) {
    const bool isOwn = origin.element == entry.entry->rulesFrom;
    return PlaceOf(*origin.value) +
           (isOwn ? "" : fmt::format(", from template {}", Escaped(NameOf(*origin.element).text)));
}

void PrintText(const EntryInForce& entry, const std::optional<Identity>& identity) {
    if (identity) {
        Say(IdentityInWords(*identity));
    }
    if (entry.entry == nullptr) {
        return;
    }
    for (const Entry* ancestor = entry.entry; ancestor != nullptr; ancestor = ancestor->parent) {
        const JsonValue& written = NameOf(*ancestor->rulesFrom);
        const std::string name = Escaped(written.text);
        Say(fmt::format("{} ({})",
                        ancestor == entry.entry ? Paint(Tone::kNotice, name) : "  inherits from " + name,
                        PlaceOf(written)));
    }
    if (entry.runningTime != 0) {
        Say(fmt::format("  running time {} ({})", entry.runningTime,
                        OriginInWords(entry, entry.runningTimeOrigin)));
    }
    for (const auto& [record, origin] : entry.rules) {
        Say(fmt::format("  {}, rule {} ({})\n    if    {}\n    when  {}\n    then  {}", record.resType,
                        record.id, OriginInWords(entry, origin), QuotaInWords(record),
                        ConditionsInWords(record), ActionInWords(record)));
    }
    if (entry.rules.empty()) {
        Say("  no rules");
    }
}

ordered_json ToJson(const Origin& origin) {
    const Position at = origin.value->Place();
    return {{"entry", NameOf(*origin.element).text},
            {"file", origin.value->layer->path},
            {"line", at.line},
            {"column", at.column}};
}

ordered_json ToJson(const RuleInForce& rule) {
    const Kelvra::ResQuotaInfo& record = rule.record;
    const Linux::ResourceType* type = Linux::FindResourceType(record.resType);
    return {{"resource", record.resType},        {"id", record.id},
            {"resource_quota", record.resource}, {"unit", type == nullptr ? "" : type->unit},
            {"duration", record.duration},       {"conditions", record.conditions},
            {"action", record.action},           {"if", QuotaInWords(record)},
            {"when", ConditionsInWords(record)}, {"then", ActionInWords(record)},
            {"origin", ToJson(rule.origin)}};
}

void PrintJson(const EntryInForce& entry, const std::optional<Identity>& identity) {
    ordered_json document;
    if (identity) {
        document["pid"] = identity->pid;
        document["watched_as"] = identity->watchedAs;
        document["seen_as"] = identity->seenAs;
        document["accepted"] = identity->isAccepted;
    }
    document["entries"] = ordered_json::array();
    for (const Entry* ancestor = entry.entry; ancestor != nullptr; ancestor = ancestor->parent) {
        document["entries"].push_back(ToJson({ancestor->rulesFrom, &NameOf(*ancestor->rulesFrom)}));
    }
    if (entry.runningTime != 0) {
        document["running_time"] = entry.runningTime;
        document["running_time_origin"] = ToJson(entry.runningTimeOrigin);
    }
    document["rules"] = ordered_json::array();
    for (const RuleInForce& rule : entry.rules) {
        document["rules"].push_back(ToJson(rule));
    }
    SayJson(document);
}

ExitStatus Run(const CommandLine& line) {
    const std::optional<int32_t> pid = AsPid(line.subject);
    const std::optional<Identity> identity = pid ? IdentityOf(*pid) : std::nullopt;
    if (pid && !identity) {
        return Fail(kNoSuch, "there is no process " + line.subject);
    }
    const std::vector<std::string> files = QuotaFilesOf(line.paths);
    if (files.empty()) {
        return Fail(kRefused, "there is no quota file in the installed directories");
    }
    const Layers layers = ReadLayers(files);
    const PolicyInForce policy(layers);
    if (!policy.IsAccepted()) {
        return Fail(kRefused, "the service refuses the quota files; \"rqctl check\" says why");
    }
    const auto entry = policy.Find(identity ? identity->watchedAs : line.subject);
    if (!entry) {
        return Fail(kFailed, entry.Why().Text());
    }
    line.wantsJson ? PrintJson(*entry, identity) : PrintText(*entry, identity);
    return entry->entry == nullptr ? Fail(kNoSuch, "there is no entry of that name: no rule applies") : kDone;
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_option("NAME", line.subject, "a process's name, or its pid: digits only")->required();
    command.add_option("PATH", line.paths, std::string(kPathHelp) + "; without any, the installed ones");
}

}  // namespace

const Command kExplain{"explain", "Tells which rules are in force for a process, and where they stand.", Run,
                       AddOptions};

}  // namespace KITE::Rqctl
