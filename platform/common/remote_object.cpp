#include "remote_object.h"

namespace KITE {

int32_t IPCObjectStub::OnRemoteRequest(uint32_t /*code*/, MessageParcel& /*data*/, MessageParcel& /*reply*/,
                                       MessageOption& /*option*/) {
    return ERR_UNKNOWN_CODE;
}

int32_t IPCObjectStub::Dump(int /*fd*/, const std::vector<std::u16string>& /*args*/) {
    return ERR_NONE;
}

}  // namespace KITE
