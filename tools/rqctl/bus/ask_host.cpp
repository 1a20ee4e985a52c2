#include "rqctl/bus/ask_host.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string_view>

#include "base/result.h"
#include "host/treatments_object.h"
#include "ipc/bus.h"
#include "ipc/bus_connection.h"
#include "ipc/outgoing_call.h"
#include "ipc/wire.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using Linux::TreatmentsObject;

// The errors of the bus itself that mean: the host does not run, or is too busy to answer.
constexpr std::string_view kUnreachableErrors[] = {SD_BUS_ERROR_SERVICE_UNKNOWN,
                                                   SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_NO_REPLY,
                                                   SD_BUS_ERROR_TIMEOUT, SD_BUS_ERROR_UNKNOWN_OBJECT};

ExitStatus Explain(const sd_bus_error& error) {
    const std::string_view name = error.name;
    if (name == SD_BUS_ERROR_ACCESS_DENIED) {
        return Fail(
            kDenied,
            fmt::format("uid {} may not do that: its entry in tokens.json needs the permission "
                        "{} ({} is enough for \"treated\")",
                        geteuid(), TreatmentsObject::kManagePermission, TreatmentsObject::kReadPermission));
    }
    if (name == TreatmentsObject::kNotTreatedError) {
        return Fail(kNotTreated, "the process is neither suppressed nor frozen");
    }
    if (name == TreatmentsObject::kNoSuchProcessError) {
        return Fail(kNoSuch, "there is no such process");
    }
    if (std::ranges::find(kUnreachableErrors, name) != std::end(kUnreachableErrors)) {
        return Fail(kUnreachable, "the quota host does not run or does not answer");
    }
    return Fail(kFailed, error.message == nullptr ? "" : Escaped(error.message));
}

// On the serving thread, which has nothing else to do.
ExitStatus Call(const std::string& method, const MessageWork& writeArguments, const MessageWork& readAnswer) {
    sd_bus* connection = Linux::Bus::Instance().Thread().Connection();
    const Linux::MessageHandle call =
        Linux::NewCall(connection, Linux::AbilityBusName(Linux::kQuotaServiceId), Linux::kTreatmentsPath,
                       Linux::kTreatmentsInterface, method);
    sd_bus_error error{};
    sd_bus_message* answer = nullptr;
    int result = call ? writeArguments(call.get()) : -ENOMEM;
    if (result >= 0) {
        const std::chrono::microseconds timeout = Linux::kCallTimeout;
        result = sd_bus_call(connection, call.get(), timeout.count(), &error, &answer);
    }
    const Linux::MessageHandle handle(answer);
    result = result < 0 ? result : readAnswer(answer);
    ExitStatus status = kDone;
    if (sd_bus_error_is_set(&error) != 0) {
        status = Explain(error);
    } else if (result < 0) {
        status = Fail(
            kFailed, Linux::Failure("the quota host's answer cannot be used", Linux::ErrorOf(result)).Text());
    }
    sd_bus_error_free(&error);
    return status;
}

}  // namespace

ExitStatus AskHost(const CommandLine& line, const std::string& method, const MessageWork& writeArguments,
                   const MessageWork& readAnswer) {
    Linux::BusConnection connection;
    if (const std::error_code error = connection.Open(line.settings.busAddress)) {
        return Fail(kUnreachable, "cannot connect to the bus: " + error.message());
    }
    ExitStatus status = kFailed;
    Linux::Bus::Instance().Thread().Run([&] { status = Call(method, writeArguments, readAnswer); });
    return status;
}

}  // namespace KITE::Rqctl
