#include "rqctl/bus/ask_host.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/treatments_object.h"
#include "ipc/bus.h"
#include "ipc/bus_connection.h"
#include "ipc/outgoing_call.h"
#include "ipc/wire.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using Linux::TreatmentsObject;

ExitStatus Explain(std::string_view name, const std::string& text) {
    if (name == SD_BUS_ERROR_ACCESS_DENIED) {
        return Fail(kDenied, "uid " + std::to_string(geteuid()) +
                                 " may not do that: its entry in tokens.json needs the permission " +
                                 TreatmentsObject::kManagePermission + " (" +
                                 TreatmentsObject::kReadPermission + " is enough to look)");
    }
    if (name == TreatmentsObject::kNotTreatedError) {
        return Fail(kNotTreated, "that process is neither suppressed nor frozen");
    }
    if (name == TreatmentsObject::kNoSuchProcessError) {
        return Fail(kNoSuch, "there is no such process");
    }
    if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER ||
        name == SD_BUS_ERROR_NO_REPLY || name == SD_BUS_ERROR_TIMEOUT ||
        name == SD_BUS_ERROR_UNKNOWN_OBJECT) {
        return Fail(kUnreachable, "the quota host does not run or does not answer");
    }
    return Fail(kFailed, Escaped(text));
}

// On the serving thread, which has nothing else to do.
ExitStatus Call(const std::string& member, const std::function<int(sd_bus_message*)>& fill,
                const std::function<int(sd_bus_message*)>& read) {
    sd_bus* connection = Linux::Bus::Instance().Thread().Connection();
    const Linux::MessageHandle call =
        Linux::NewCall(connection, Linux::AbilityBusName(Linux::kQuotaServiceId), Linux::kTreatmentsPath,
                       Linux::kTreatmentsInterface, member);
    sd_bus_error error{};
    sd_bus_message* answer = nullptr;
    int result = call ? fill(call.get()) : -ENOMEM;
    if (result >= 0) {
        constexpr std::chrono::microseconds kTimeout = Linux::kCallTimeout;
        result = sd_bus_call(connection, call.get(), kTimeout.count(), &error, &answer);
    }
    const Linux::MessageHandle handle(answer);
    ExitStatus status = kDone;
    if (sd_bus_error_is_set(&error) != 0) {
        status = Explain(error.name, error.message == nullptr ? "" : error.message);
    } else if (result < 0 || (result = read(answer)) < 0) {
        status = Fail(kFailed, std::string("no usable answer: ") + strerrordesc_np(-result));
    }
    sd_bus_error_free(&error);
    return status;
}

}  // namespace

ExitStatus AskTreatments(const Context& context, const std::string& member,
                         const std::function<int(sd_bus_message*)>& fill,
                         const std::function<int(sd_bus_message*)>& read) {
    Linux::BusConnection connection;
    if (const std::error_code error = connection.Open(context.settings.busAddress)) {
        return Fail(kUnreachable, "cannot connect to the bus: " + error.message());
    }
    ExitStatus status = kFailed;
    Linux::Bus::Instance().Thread().Run([&] { status = Call(member, fill, read); });
    return status;
}

}  // namespace KITE::Rqctl
