#include "host/treatments_object.h"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "access_token.h"
#include "base/text.h"
#include "ipc/serving_thread.h"
#include "ipc/wire.h"
#include "proc/process_stat.h"
#include "runtime/access_tokens.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "task_runtime.h"
#include "treatments/treatments.h"

namespace KITE::Linux {

namespace {

bool Has(uint32_t token, const char* permission) {
    return AccessTokenKit::VerifyAccessToken(token, permission) == PERMISSION_GRANTED;
}

bool IsPermitted(std::optional<uid_t> caller, bool isReading) {
    const uint32_t token = caller ? TokenOfUid(*caller) : 0;
    return Has(token, TreatmentsObject::kManagePermission) ||
           (isReading && Has(token, TreatmentsObject::kReadPermission));
}

int Append(sd_bus_message* reply, const TreatedProcess& process) {
    const BrokenQuota& quota = process.brokenQuota;
    return sd_bus_message_append(reply, "(isxxxsixx)", process.pid, Printable(process.name).c_str(),
                                 process.suppressedSince, process.frozenSince, process.frozenUntil,
                                 Printable(quota.resourceType).c_str(), quota.ruleId, quota.resource,
                                 quota.duration);
}

int AnswerList(sd_bus_message* call, const std::vector<TreatedProcess>& treated) {
    sd_bus_message* reply = nullptr;
    int result = sd_bus_message_new_method_return(call, &reply);
    const MessageHandle handle(reply);
    result = result < 0 ? result : sd_bus_message_append(reply, "b", GetSettings().isDryRun ? 1 : 0);
    result = result < 0 ? result : sd_bus_message_open_container(reply, 'a', "(isxxxsixx)");
    for (const TreatedProcess& process : treated) {
        result = result < 0 ? result : Append(reply, process);
    }
    result = result < 0 ? result : sd_bus_message_close_container(reply);
    return result < 0 ? result : sd_bus_send(nullptr, reply, nullptr);
}

int AnswerRelease(sd_bus_message* call, pid_t pid, std::optional<std::error_code> error) {
    if (!error) {
        const bool isThere = !Is(ReadProcessStat(pid).Code(), ESRCH);
        return isThere ? sd_bus_reply_method_errorf(call, TreatmentsObject::kNotTreatedError,
                                                    "The process is not treated")
                       : sd_bus_reply_method_errorf(call, TreatmentsObject::kNoSuchProcessError,
                                                    "There is no such process");
    }
    return !*error ? sd_bus_reply_method_return(call, nullptr)
                   : sd_bus_reply_method_errorf(call, TreatmentsObject::kNotReleasedError,
                                                "Not all could be undone yet, it is tried again: %s",
                                                error->message().c_str());
}

int Deny(sd_bus_message* call) {
    return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "The caller lacks the permission");
}

int Decline(sd_bus_message* call) {
    return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "The object has been withdrawn");
}

}  // namespace

TreatmentsObject::TreatmentsObject(ServingThread& thread, Treatments& treatments)
    : thread_(thread), treatments_(treatments), uids_(thread, [](const std::string&) {}) {}

const sd_bus_vtable* TreatmentsObject::Vtable() {
    // Unprivileged, so that credentials are not asked for at every call; who may do what is decided here.
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("List", "", "ba(isxxxsixx)", &OnList, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Release", "i", "", &OnRelease, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    return vtable;
}

void TreatmentsObject::Serve() {
    thread_.Run([this] {
        sd_bus_slot* slot = nullptr;
        const int result = sd_bus_add_object_vtable(thread_.Connection(), &slot, kTreatmentsPath,
                                                    kTreatmentsInterface, Vtable(), this);
        slot_.reset(slot);
        if (result < 0) {
            PLATFORM_LOGE("%{public}s cannot be served: %{public}s", kTreatmentsPath,
                          ErrorOf(-result).message().c_str());
        }
    });
}

void TreatmentsObject::Withdraw() {
    thread_.Run([this] {
        slot_.reset();
        uids_.Clear();
        while (!calls_.empty()) {
            Reply(calls_.begin()->first, Decline);
        }
    });
}

int TreatmentsObject::OnList(sd_bus_message* call, void* self, sd_bus_error* error) {
    auto* object = static_cast<TreatmentsObject*>(self);
    return object->Accept(call, error, true, [object](uid_t) -> Answer {
        return [treated = object->treatments_.List()](sd_bus_message* asked) {
            return AnswerList(asked, treated);
        };
    });
}

int TreatmentsObject::OnRelease(sd_bus_message* call, void* self, sd_bus_error* error) {
    int32_t pid = 0;
    const int result = sd_bus_message_read(call, "i", &pid);
    if (result < 0) {
        return result;
    }
    auto* object = static_cast<TreatmentsObject*>(self);
    return object->Accept(call, error, false, [object, pid](uid_t caller) -> Answer {
        return [pid, failure = object->treatments_.Release(pid, caller)](sd_bus_message* asked) {
            return AnswerRelease(asked, pid, failure);
        };
    });
}

// Nothing may be thrown through the library that delivers the call.
int TreatmentsObject::Accept(sd_bus_message* call, sd_bus_error* error, bool isReading, Work work) {
    if (calls_.size() >= kMostCalls) {
        return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "Too many calls wait");
    }
    int result = -ENOMEM;
    RunGuarded("the delivery of a call", [&] {
        const char* sender = sd_bus_message_get_sender(call);
        const uint64_t id = ++lastCall_;
        calls_.emplace(id, sd_bus_message_ref(call));
        result = 1;
        uids_.Find(sender == nullptr ? "" : sender,
                   [this, id, isReading, work = std::move(work)](std::optional<uid_t> caller) {
                       if (IsPermitted(caller, isReading)) {
                           Begin(id, work, *caller);
                       } else {
                           Reply(id, Deny);
                       }
                   });
    });
    return result;
}

void TreatmentsObject::Begin(uint64_t id, Work work, uid_t caller) {
    SubmitTask([this, id, work = std::move(work),
                caller] { thread_.Post([this, id, answer = work(caller)] { Reply(id, answer); }); },
               {.name = "treatments", .delay = {}});
}

void TreatmentsObject::Reply(uint64_t id, const Answer& answer) {
    const auto found = calls_.find(id);
    if (found == calls_.end()) {
        return;
    }
    const MessageHandle call = std::move(found->second);
    calls_.erase(found);
    if (const int result = answer(call.get()); result < 0) {
        PLATFORM_LOGW("no answer about treatments: %{public}s", ErrorOf(-result).message().c_str());
    }
}

}  // namespace KITE::Linux
