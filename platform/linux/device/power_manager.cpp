#include "power_manager.h"

#include "device/device_state.h"

namespace KITE {

PowerMgrClient& PowerMgrClient::GetInstance() {
    static PowerMgrClient instance;
    return instance;
}

bool PowerMgrClient::IsScreenOn() const {
    return Linux::CurrentDeviceState()->screenOn;
}

}  // namespace KITE
