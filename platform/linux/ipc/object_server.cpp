#include "ipc/object_server.h"

#include <cerrno>
#include <utility>

#include "ipc/limits.h"
#include "ipc/wire.h"
#include "runtime/guard.h"

namespace KITE::Linux {

ObjectServer::ObjectServer(ServingThread& thread)
    : thread_(thread), uids_(thread, [this](const std::string& sender) {
          for (const auto& [path, served] : served_) {
              served.queue->DropDumpsOf(sender);
          }
      }) {}

void ObjectServer::Begin() {
    dumps_.emplace(1);
    isServing_ = true;
}

bool ObjectServer::Export(const std::string& path, sptr<IPCObjectStub> object) {
    // Without the unprivileged mark sd-bus asks the daemon for the caller's credentials at every call, which
    // doubles the call's cost. Who may do what is for the objects to decide.
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD(kTransactMethod, "uay", "iay", OnCall, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD(kDumpMethod, "ash", "i", OnCall, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    if (!isServing_ || !object) {
        return false;
    }
    const auto found = served_.find(path);
    if (found != served_.end() && found->second.queue->Object() == object) {
        return true;
    }
    Unexport(path);
    auto queue = std::make_shared<RequestQueue>(thread_, *dumps_, std::move(object));
    Served& served = served_.emplace(path, Served{*this, std::move(queue), nullptr}).first->second;
    sd_bus_slot* slot = nullptr;
    sd_bus_add_object_vtable(thread_.Connection(), &slot, path.c_str(), kAbilityInterface, vtable, &served);
    served.slot.reset(slot);
    if (slot == nullptr) {
        served_.erase(path);
    }
    return slot != nullptr;
}

// Nothing may be thrown through the library that delivers the message.
int ObjectServer::OnCall(sd_bus_message* message, void* served, sd_bus_error* error) {
    int result = -ENOMEM;
    RunGuarded("the delivery of a request", [&] {
        const auto& [server, queue, slot] = *static_cast<Served*>(served);
        auto request = std::make_shared<Request>(message, server.load_);
        result = request->Read() ? server.Accept(std::move(request), queue, error)
                                 : sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                                                    "A request is a code and its bytes, a dump few words and "
                                                    "a descriptor");
    });
    return result;
}

int ObjectServer::Accept(RequestPtr request, const std::shared_ptr<RequestQueue>& queue,
                         sd_bus_error* error) {
    if (load_.requests > kMaxRequests || load_.bytes > kMaxRequestBytes) {
        return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "Too many requests wait");
    }
    const std::string sender = request->caller.name;
    uids_.Find(sender, [queue, request = std::move(request)](std::optional<uid_t> uid) {
        request->caller.uid = uid;
        queue->Add(request);
    });
    return 1;
}

void ObjectServer::Unexport(const std::string& path) {
    if (const auto served = served_.extract(path)) {
        served.mapped().slot.reset();
        served.mapped().queue->Withdraw();
        withdrawn_.push_back(served.mapped().queue);
    }
}

void ObjectServer::Withdraw() {
    isServing_ = false;
    while (!served_.empty()) {
        Unexport(std::string(served_.begin()->first));
    }
}

void ObjectServer::StopDumps() {
    if (dumps_) {
        dumps_->stop();
        dumps_->join();
    }
}

void ObjectServer::Clear() {
    Withdraw();
    uids_.Clear();
    withdrawn_.clear();
}

}  // namespace KITE::Linux
