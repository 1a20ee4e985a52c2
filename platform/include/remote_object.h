#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "parcel.h"
#include "refbase.h"

namespace KITE {

// Status of a remote call itself, as opposed to the result that an operation puts into its reply. Negative
// values below are the transport's; an object may return others.
inline constexpr int32_t ERR_NONE = 0;
inline constexpr int32_t ERR_INVALID_TOKEN = -1;
inline constexpr int32_t ERR_UNKNOWN_CODE = -1010;
inline constexpr int32_t ERR_DEAD_OBJECT = -1011;
inline constexpr int32_t ERR_TIMED_OUT = -1012;
inline constexpr int32_t ERR_TOO_LARGE = -1013;
inline constexpr int32_t ERR_REFUSED = -1014;

// An object that can be called from another process: either the local stub or a proxy of a remote one.
class KITE_API IRemoteObject : public virtual RefBase {
  public:
    // Calls the object and waits for its reply (Mode::kSync) or only hands the call over (kAsync). What the
    // request holds afterwards is not defined. Any thread but the one that serves requests. Returns the
    // call's status.
    virtual int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                MessageOption& option) = 0;
    // Writes a report of the object's state to the descriptor, which stays the caller's.
    virtual int32_t Dump(int fd, const std::vector<std::u16string>& args) = 0;
};

// Root of every remote interface.
class KITE_API IRemoteBroker : public virtual RefBase {
  public:
    // The remote object behind the interface.
    virtual sptr<IRemoteObject> AsObject() = 0;
};

// The side of a remote object that is served in this process.
//
// The transport calls OnRemoteRequest on an IPC thread, having set the caller's identity (IPCSkeleton). With
// serialInvoke an object's requests, dumps included, come one at a time.
class KITE_API IPCObjectStub : public IRemoteObject {
  public:
    IPCObjectStub(std::u16string descriptor, bool serialInvoke)
        : descriptor_(std::move(descriptor)), serialInvoke_(serialInvoke) {}

    const std::u16string& GetObjectDescriptor() const noexcept { return descriptor_; }
    bool IsSerialInvoke() const noexcept { return serialInvoke_; }

    // The default handling, for codes that an interface does not know: ERR_UNKNOWN_CODE, nothing written.
    virtual int32_t OnRemoteRequest(uint32_t /*code*/, MessageParcel& /*data*/, MessageParcel& /*reply*/,
                                    MessageOption& /*option*/) {
        return ERR_UNKNOWN_CODE;
    }

    // A call from within the process goes straight to OnRemoteRequest.
    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                        MessageOption& option) override {
        return OnRemoteRequest(code, data, reply, option);
    }
    // Writes nothing unless overridden.
    int32_t Dump(int /*fd*/, const std::vector<std::u16string>& /*args*/) override { return ERR_NONE; }

  private:
    const std::u16string descriptor_;
    const bool serialInvoke_;
};

// A stub of one interface: INTERFACE declares `static const char16_t* GetDescriptor()`.
template <typename INTERFACE>
class IRemoteStub : public IPCObjectStub, public INTERFACE {
  public:
    explicit IRemoteStub(bool serialInvoke = false)
        : IPCObjectStub(INTERFACE::GetDescriptor(), serialInvoke) {}

    sptr<IRemoteObject> AsObject() override { return sptr<IRemoteObject>(this); }
};

// The interface that an object of this process implements; null for a null object and for one that does not
// implement it.
template <typename INTERFACE>
sptr<INTERFACE> iface_cast(const sptr<IRemoteObject>& object) {
    return sptr<INTERFACE>(dynamic_cast<INTERFACE*>(object.GetRefPtr()));
}

// Who is calling, on the thread that handles a remote request; on other threads 0, which belongs to no
// process.
class KITE_API IPCSkeleton {
  public:
    IPCSkeleton() = delete;

    // Access-token id of the process that sent the request; 0 when it has none.
    static uint32_t GetCallingTokenID();
    // Access-token id of the first process of the call chain; 0 when it has none.
    static uint32_t GetFirstTokenID();
};

}  // namespace KITE
