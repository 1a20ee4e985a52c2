#include "rqctl/bus/ask_service.h"

#include <unistd.h>

#include <cstdio>

#include "access_token.h"
#include "resource_quota_control_errors.h"
#include "rqctl/output.h"
#include "runtime/access_tokens.h"

namespace KITE::Rqctl {

using namespace ResourceQuotaCtl;

namespace {

std::string Hex(int32_t result) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(result));
    return text;
}

}  // namespace

ExitStatus Service::Connect() {
    if (const std::error_code error = connection_.Open(context_.settings.busAddress)) {
        return Fail(kUnreachable, "cannot connect to the bus: " + error.message());
    }
    proxy_ = ResourceQuotaControlProxy::Find();
    return proxy_ ? kDone
                  : Fail(kUnreachable,
                         "the service is not there: its host does not run, or the Kelvra manager's does not");
}

ExitStatus Service::Explain(int32_t result) const {
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
            return Fail(kFailed, "there are more than " + std::to_string(MAX_RUNNING_TIMES) +
                                     ", which no answer holds; \"rqctl dump DumpRunningTime\" lists them");
        default:
            return Fail(kFailed, "the service answers with " + Hex(result));
    }
}

ExitStatus Service::ExplainDenial() const {
    std::string text =
        "the service does not answer this user. It answers resource_schedule_service, faultd and svcdb.";
    const Self self = LookUpSelf(context_);
    if (self.isKnown) {
        text += "\nAs far as " + context_.settings.etcDirectory + " tells, uid " + std::to_string(geteuid()) +
                (self.processName.empty() ? " is none of the known processes."
                                          : " is \"" + Escaped(self.processName) + "\".");
    }
    return Fail(kDenied, text);
}

bool IsTold(const Context& context, const std::string& file) {
    return access((context.settings.etcDirectory + "/" + file).c_str(), R_OK) == 0;
}

Self LookUpSelf(const Context& context) {
    if (!IsTold(context, "tokens.json") || !Linux::LoadAccessTokens()) {
        return {};
    }
    const uint32_t token = Linux::TokenOfUid(geteuid());
    NativeTokenInfo info;
    AccessTokenKit::GetNativeTokenInfo(token, info);
    return {true, info.processName,
            AccessTokenKit::VerifyAccessToken(token, "kite.permission.DUMP") == PERMISSION_GRANTED};
}

}  // namespace KITE::Rqctl
