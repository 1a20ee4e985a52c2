#include "rqctl/bus/ask_service.h"

#include <fmt/format.h>

#include <unistd.h>

#include "access_token.h"
#include "base/file_names.h"
#include "resource_quota_control_errors.h"
#include "rqctl/output.h"
#include "runtime/access_tokens.h"

namespace KITE::Rqctl {

using namespace ResourceQuotaCtl;

ExitStatus ServiceConnection::Open() {
    if (const std::error_code error = connection_.Open(context_.settings.busAddress)) {
        return Fail(kUnreachable, "cannot connect to the bus: " + error.message());
    }
    proxy_ = ResourceQuotaControlProxy::Find();
    return proxy_
               ? kDone
               : Fail(kUnreachable,
                      "the service is not on the bus: its host or that of the Kelvra manager does not run");
}

ExitStatus ServiceConnection::Explain(int32_t result) const {
    switch (result) {
        case ERR_DEAD_OBJECT:
            return Fail(kUnreachable, "the service went away");
        case ERR_TIMED_OUT:
            return Fail(kUnreachable, "the service does not answer within 5 s");
        case ERR_REFUSED:
            return Fail(kDenied, "the bus does not let the request through");
        case ERR_RQC_PERMISSION_DENIED:
            return ExplainDenial();
        case ERR_RQC_INVALID_PARAM:
            return Fail(kFailed, "the service does not take that list of pids");
        case ERR_RQC_READ_PARCEL_FAILED:
            return Fail(kFailed, "the service's answer cannot be understood");
        case ERR_RQC_TOO_MANY_ITEMS:
            return Fail(
                kFailed,
                fmt::format("there are more than {} running times, which is the most that an answer holds; "
                            "\"rqctl dump DumpRunningTime\" lists them all",
                            MAX_RUNNING_TIMES));
        default:
            return Fail(kFailed,
                        fmt::format("the service answers with 0x{:X}", static_cast<uint32_t>(result)));
    }
}

ExitStatus ServiceConnection::ExplainDenial() const {
    std::string text =
        "the service does not answer this user. It answers resource_schedule_service, faultd and svcdb.";
    const OwnToken self = LookUpOwnToken(context_);
    if (self.isKnown) {
        text += fmt::format(
            "\nIn the tokens of {}, uid {} is {}.", context_.settings.etcDirectory, geteuid(),
            self.processName.empty() ? "not listed" : fmt::format("\"{}\"", Escaped(self.processName)));
    }
    return Fail(kDenied, text);
}

bool IsReadable(const Context& context, const std::string& file) {
    return access((context.settings.etcDirectory + file).c_str(), R_OK) == 0;
}

OwnToken LookUpOwnToken(const Context& context) {
    if (!IsReadable(context, Linux::FileName::kTokens) || !Linux::LoadAccessTokens()) {
        return {};
    }
    const uint32_t token = Linux::TokenOfUid(geteuid());
    NativeTokenInfo info;
    AccessTokenKit::GetNativeTokenInfo(token, info);
    return {true, info.processName,
            AccessTokenKit::VerifyAccessToken(token, "kite.permission.DUMP") == PERMISSION_GRANTED};
}

}  // namespace KITE::Rqctl
