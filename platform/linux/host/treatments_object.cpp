#include "host/treatments_object.h"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "base/text.h"
#include "ipc/access.h"
#include "ipc/wire.h"
#include "proc/process_stat.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "task_runtime.h"
#include "treatments/treatments.h"

namespace KITE::Linux {

namespace {

std::error_code AnswerList(sd_bus_message* call, const std::vector<TreatedProcess>& treated) {
    const auto append = [](sd_bus_message* reply, const TreatedProcess& process) {
        const BrokenQuota& quota = process.brokenQuota;
        return sd_bus_message_append(reply, "(isxxxsixx)", process.pid, Printable(process.name).c_str(),
                                     process.suppressedSince, process.frozenSince, process.frozenUntil,
                                     Printable(quota.resourceType).c_str(), quota.ruleId, quota.resource,
                                     quota.duration);
    };
    sd_bus_message* reply = nullptr;
    std::error_code error =
        InOrder([&] { return sd_bus_message_new_method_return(call, &reply); },
                [&] { return sd_bus_message_append(reply, "b", GetSettings().isDryRun ? 1 : 0); },
                [&] { return sd_bus_message_open_container(reply, 'a', "(isxxxsixx)"); });
    const MessageHandle handle(reply);
    for (auto process = treated.begin(); !error && process != treated.end(); ++process) {
        error = InOrder([&] { return append(reply, *process); });
    }
    return error ? error
                 : InOrder([&] { return sd_bus_message_close_container(reply); },
                           [&] { return sd_bus_send(nullptr, reply, nullptr); });
}

std::error_code AnswerError(sd_bus_message* call, const char* name, const std::string& text) {
    return InOrder([&] { return sd_bus_reply_method_errorf(call, name, "%s", text.c_str()); });
}

std::error_code AnswerRelease(sd_bus_message* call, pid_t pid, std::optional<std::error_code> error) {
    if (!error && Is(ReadProcessStat(pid).Code(), ESRCH)) {
        return AnswerError(call, TreatmentsObject::kNoSuchProcessError, "There is no such process");
    }
    if (!error) {
        return AnswerError(call, TreatmentsObject::kNotTreatedError, "The process is not treated");
    }
    if (*error) {
        return AnswerError(call, TreatmentsObject::kNotReleasedError,
                           "Not all could be undone yet, it is tried again: " + error->message());
    }
    return InOrder([&] { return sd_bus_reply_method_return(call, nullptr); });
}

}  // namespace

TreatmentsObject::TreatmentsObject(ServingThread& thread, Treatments& treatments)
    : thread_(thread), treatments_(treatments), uids_(thread, [](const std::string&) {}) {}

void TreatmentsObject::Serve() {
    // Unprivileged, so that credentials are not asked for at every call; who may do what is decided here.
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("List", "", "ba(isxxxsixx)", &OnList, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Release", "i", "", &OnRelease, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    thread_.Run([this] {
        sd_bus_slot* slot = nullptr;
        const std::error_code error = InOrder([&] {
            return sd_bus_add_object_vtable(thread_.Connection(), &slot, kTreatmentsPath,
                                            kTreatmentsInterface, vtable, this);
        });
        slot_.reset(slot);
        if (error) {
            PLATFORM_LOGE("%{public}s cannot be served: %{public}s", kTreatmentsPath,
                          error.message().c_str());
        }
    });
}

void TreatmentsObject::Withdraw() {
    thread_.Run([this] {
        slot_.reset();
        uids_.Clear();
        while (!calls_.empty()) {
            Reply(calls_.begin()->first, [](sd_bus_message* call) {
                return AnswerError(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "The object has been withdrawn");
            });
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
        uids_.Find(sender == nullptr ? "" : sender, [this, id, isReading,
                                                     work = std::move(work)](std::optional<uid_t> caller) {
            if (HasPermission(caller, kManagePermission) ||
                (isReading && HasPermission(caller, kReadPermission))) {
                SubmitTask(
                    [this, id, work, uid = *caller] {
                        thread_.Post([this, id, answer = work(uid)] { Reply(id, answer); });
                    },
                    {.name = "treatments", .delay = {}});
            } else {
                Reply(id, [](sd_bus_message* asked) {
                    return AnswerError(asked, SD_BUS_ERROR_ACCESS_DENIED, "The caller lacks the permission");
                });
            }
        });
    });
    return result;
}

void TreatmentsObject::Reply(uint64_t id, const Answer& answer) {
    const auto found = calls_.find(id);
    if (found == calls_.end()) {
        return;
    }
    if (const std::error_code error = answer(found->second.get())) {
        PLATFORM_LOGW("a call about treatments cannot be answered: %{public}s", error.message().c_str());
    }
    calls_.erase(found);
}

}  // namespace KITE::Linux
