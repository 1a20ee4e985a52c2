#include "rqctl/bus/ask_service.h"

#include <fmt/format.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "access_token.h"
#include "base/file_names.h"
#include "ipc/bus_connection.h"
#include "parameters.h"
#include "resource_quota_control_errors.h"
#include "rqctl/output.h"
#include "runtime/access_tokens.h"

namespace KITE::Rqctl {

namespace {

using namespace ResourceQuotaCtl;

bool IsReadable(const CommandLine& line, const char* fileName) {
    return access((line.settings.etcDirectory + fileName).c_str(), R_OK) == 0;
}

// What the access tokens in the etc directory say about the uid of this process.
struct OwnToken {
    std::string processName;
    bool mayDump = false;
};

// Absent when the file cannot be read or is not accepted.
std::optional<OwnToken> FindOwnToken(const CommandLine& line) {
    if (!IsReadable(line, Linux::FileName::kTokens) || !Linux::LoadAccessTokens()) {
        return std::nullopt;
    }
    const uint32_t token = Linux::TokenOfUid(geteuid());
    NativeTokenInfo info;
    AccessTokenKit::GetNativeTokenInfo(token, info);
    return OwnToken{info.processName,
                    AccessTokenKit::VerifyAccessToken(token, "kite.permission.DUMP") == PERMISSION_GRANTED};
}

ExitStatus ExplainDenial(const CommandLine& line) {
    std::string text =
        "the service does not answer this user. It answers resource_schedule_service, faultd and svcdb.";
    if (const auto self = FindOwnToken(line)) {
        text += fmt::format(
            "\nIn the tokens of {}, uid {} is {}.", line.settings.etcDirectory, geteuid(),
            self->processName.empty() ? "not listed" : fmt::format("\"{}\"", Escaped(self->processName)));
    }
    return Fail(kDenied, text);
}

std::string_view BuildText(const CommandLine& line) {
    if (!IsReadable(line, Linux::FileName::kParameters)) {
        return "whether the build is debuggable is unknown: parameters.json cannot be read";
    }
    return GetIntParameter("const.debuggable", 0) == 0
               ? "the build is not debuggable: const.debuggable in parameters.json is 0 or missing"
               : "the build is debuggable";
}

// The service answers every refused dump alike. Which of its two conditions is missing can be told from the
// files that its host reads, if those are the ones that we see.
ExitStatus ExplainRefusedDump(const CommandLine& line) {
    const auto self = FindOwnToken(line);
    return Fail(kDenied,
                fmt::format("the service refuses the dump, or could not write it (0x261000C). According to "
                            "the files in {}:\n  {}\n  {}",
                            line.settings.etcDirectory, BuildText(line),
                            self ? fmt::format("uid {} {} the permission kite.permission.DUMP in tokens.json",
                                               geteuid(), self->mayDump ? "has" : "lacks")
                                 : "permissions are unknown: tokens.json cannot be read or is not accepted"));
}

ExitStatus Explain(int32_t result, const CommandLine& line) {
    if (result == ERR_OK) {
        return kDone;
    }
    if (result == ERR_RQC_PERMISSION_DENIED) {
        return ExplainDenial(line);
    }
    if (result == ERR_RQC_DUMP_FAILED) {
        return ExplainRefusedDump(line);
    }
    static const std::map<int32_t, std::pair<ExitStatus, std::string>> kOthers{
        {ERR_DEAD_OBJECT, {kUnreachable, "the service went away"}},
        {ERR_TIMED_OUT, {kUnreachable, "the service does not answer within 5 s"}},
        {ERR_REFUSED, {kDenied, "the bus does not let the request through"}},
        {ERR_RQC_INVALID_PARAM, {kFailed, "the service does not take that list of pids"}},
        {ERR_RQC_READ_PARCEL_FAILED, {kFailed, "the service's answer cannot be understood"}},
        {ERR_RQC_TOO_MANY_ITEMS,
         {kFailed,
          fmt::format("there are more than {} running times, which is the most that an answer holds; "
                      "\"rqctl dump DumpRunningTime\" lists them all",
                      MAX_RUNNING_TIMES)}}};
    if (const auto other = kOthers.find(result); other != kOthers.end()) {
        return Fail(other->second.first, other->second.second);
    }
    return Fail(kFailed, fmt::format("the service answers with 0x{:X}", static_cast<uint32_t>(result)));
}

}  // namespace

ExitStatus AskService(const CommandLine& line,
                      const std::function<int32_t(ResourceQuotaControlProxy&)>& ask) {
    Linux::BusConnection connection;
    if (const std::error_code error = connection.Open(line.settings.busAddress)) {
        return Fail(kUnreachable, "cannot connect to the bus: " + error.message());
    }
    const sptr<ResourceQuotaControlProxy> service = ResourceQuotaControlProxy::Find();
    return service
               ? Explain(ask(*service), line)
               : Fail(kUnreachable,
                      "the service is not on the bus: its host or that of the Kelvra manager does not run");
}

}  // namespace KITE::Rqctl
