// The one instance of each of the platform's clients. They have no state of their own: a backend's state is
// behind their other operations.

#include "kelvra_manager_client.h"
#include "power_manager.h"
#include "resource_schedule.h"
#include "suspend_manager.h"
#include "system_ability.h"
#include "time_service.h"
#include "window_manager.h"

namespace KITE {

namespace {

template <typename Client>
Client& TheOne() {
    static Client client;
    return client;
}

}  // namespace

PowerMgrClient& PowerMgrClient::GetInstance() {
    return TheOne<PowerMgrClient>();
}

ResSchedClient& ResSchedClient::GetInstance() {
    return TheOne<ResSchedClient>();
}

SuspendManagerClient& SuspendManagerClient::GetInstance() {
    return TheOne<SuspendManagerClient>();
}

SystemAbilityManagerClient& SystemAbilityManagerClient::GetInstance() {
    return TheOne<SystemAbilityManagerClient>();
}

TimeServiceClient& TimeServiceClient::GetInstance() {
    return TheOne<TimeServiceClient>();
}

WindowManager& WindowManager::GetInstance() {
    return TheOne<WindowManager>();
}

Kelvra::KelvraManagerClient& Kelvra::KelvraManagerClient::GetInstance() {
    return TheOne<Kelvra::KelvraManagerClient>();
}

}  // namespace KITE
