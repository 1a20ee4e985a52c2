#include "bus_client.h"

#include <sys/syscall.h>

#include "kelvra_manager/protocol.h"

namespace KITE::Integration {

namespace {

namespace Protocol = Linux::KelvraProtocol;
using ResourceQuotaCtl::IResourceQuotaControl;

// Empty when the message has no parcel (any more).
MessageParcel ParcelFrom(sd_bus_message* message) {
    const void* bytes = nullptr;
    size_t size = 0;
    sd_bus_message_read_array(message, 'y', &bytes, &size);
    const auto* first = static_cast<const std::byte*>(bytes);
    return MessageParcel(std::vector<std::byte>(first, first + size));
}

}  // namespace

BusClient::BusClient(const std::string& address, uid_t uid) {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    bus_.reset(bus);
    sd_bus_set_address(bus, address.c_str());
    sd_bus_set_bus_client(bus, 1);
    // This thread's effective user, as the raw system call sets it, which leaves the other threads alone.
    syscall(SYS_setresuid, -1, uid, -1);
    const char* name = nullptr;
    if (sd_bus_start(bus) >= 0) {
        sd_bus_get_unique_name(bus, &name);  // once it has been told, which ends what the user matters for
    }
    syscall(SYS_setresuid, -1, 0, -1);
}

Linux::MessageHandle BusClient::NewCall(const std::string& name, const std::string& path,
                                        const char* member) const {
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(bus_.get(), &call, name.c_str(), path.c_str(), Linux::kAbilityInterface,
                                   member);
    return Linux::MessageHandle(call);
}

Linux::MessageHandle BusClient::NewTransaction(const std::string& name, const std::string& path,
                                               uint32_t code, const MessageParcel& request) const {
    Linux::MessageHandle call = NewCall(name, path, Linux::kTransactMethod);
    sd_bus_message_append(call.get(), "u", code);
    sd_bus_message_append_array(call.get(), 'y', request.Bytes().data(), request.Bytes().size());
    return call;
}

Answer BusClient::Call(const Linux::MessageHandle& call) {
    constexpr uint64_t kLimitUs = 8'000'000;
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    Answer answer;
    const int result = sd_bus_call(bus_.get(), call.get(), kLimitUs, &error, &reply);
    const Linux::MessageHandle handle(reply);
    if (result < 0) {
        answer.error = error.name == nullptr ? std::to_string(result) : error.name;
    } else {
        sd_bus_message_read(reply, "i", &answer.status);
        answer.reply = ParcelFrom(reply);
    }
    sd_bus_error_free(&error);
    return answer;
}

Answer BusClient::Transact(const std::string& name, const std::string& path, uint32_t code,
                           const MessageParcel& request) {
    return Call(NewTransaction(name, path, code, request));
}

Answer BusClient::Dump(const std::string& argument, int fd) {
    const Linux::MessageHandle call = NewCall(kQuotaName, kQuotaPath, Linux::kDumpMethod);
    sd_bus_message_append(call.get(), "ash", 1, argument.c_str(), fd);
    return Call(call);
}

void BusClient::Send(uint32_t code, const MessageParcel& request) {
    sd_bus_send(bus_.get(), NewTransaction(kQuotaName, kQuotaPath, code, request).get(), nullptr);
    sd_bus_flush(bus_.get());
}

Answer BusClient::AskWrittenBytes(const std::vector<int32_t>& pids) {
    return Transact(kQuotaName, kQuotaPath, IResourceQuotaControl::GET_IO_WRITE_BYTES, QuotaRequest(pids));
}

Answer BusClient::AskRunningTimes() {
    return Transact(kQuotaName, kQuotaPath, IResourceQuotaControl::GET_EXTENSION_RUNNING_TIME,
                    QuotaRequest());
}

MessageParcel QuotaRequest(const std::vector<int32_t>& pids) {
    MessageParcel request;
    request.WriteInterfaceToken(IResourceQuotaControl::GetDescriptor());
    if (!pids.empty()) {
        request.WriteInt32Vector(pids);
    }
    return request;
}

std::vector<uint64_t> WrittenBytesOf(Answer answer) {
    std::vector<uint64_t> bytes{7};
    answer.reply.ReadUInt64Vector(&bytes);
    return bytes;
}

FakeManager::FakeManager(const std::string& address) : client_(address, kKelvraUid) {
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD(Linux::kTransactMethod, "uay", "iay", &OnTransact, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    sd_bus_slot* slot = nullptr;
    sd_bus_add_object_vtable(client_.Bus(), &slot, kKelvraPath.c_str(), Linux::kAbilityInterface, vtable,
                             this);
    object_.reset(slot);
    Return();
}

int FakeManager::OnTransact(sd_bus_message* message, void* manager, sd_bus_error* /*error*/) {
    uint32_t code = 0;
    sd_bus_message_read(message, "u", &code);
    static_cast<FakeManager*>(manager)->Take(code, ParcelFrom(message), sd_bus_message_get_sender(message));
    return sd_bus_reply_method_return(message, "iay", 0, 0);
}

void FakeManager::Take(uint32_t code, MessageParcel request, const char* sender) {
    int32_t reserved = 0;
    if (request.ReadInterfaceToken() != Protocol::kManagerDescriptor) {
        return;
    }
    if (code == Protocol::kSubscribe) {
        subscriber_ = sender;
        hasSubscribed_ = true;
    } else if (code == Protocol::kSetProcessQuota && request.ReadInt32(reserved)) {
        hasQuotas_ = static_cast<bool>(Linux::KelvraProtocol::ReadRecordList<Kelvra::ResQuotaInfo>(request));
    }
}

bool FakeManager::AwaitSubscription(milliseconds limit) {
    hasSubscribed_ = hasQuotas_ = false;
    return Eventually(
        [this] {
            while (sd_bus_process(client_.Bus(), nullptr) > 0) {
            }
            return hasSubscribed_ && hasQuotas_;
        },
        limit);
}

int32_t FakeManager::Report(const std::vector<Kelvra::ProcessAnomalyInfo>& batch) {
    const Answer answer =
        client_.Transact(subscriber_, Protocol::kSubscriberPath, Protocol::kReport, ReportOf(batch));
    return answer.error.empty() ? answer.status : ERR_DEAD_OBJECT;
}

Kelvra::ProcessAnomalyInfo Anomaly(const Process& process, const std::string& resourceType,
                                   const std::string& action) {
    Kelvra::ProcessAnomalyInfo info;
    info.duration = 1;
    info.uid = static_cast<int32_t>(kUntrustedUid);
    info.pid = process.Pid();
    info.processName = process.Name();
    info.resType = resourceType;
    info.action = action;
    info.startTime = process.StartTime();
    return info;
}

MessageParcel ReportOf(const std::vector<Kelvra::ProcessAnomalyInfo>& batch) {
    MessageParcel report;
    Linux::KelvraProtocol::WriteRecordList(batch, report);
    return report;
}

}  // namespace KITE::Integration
