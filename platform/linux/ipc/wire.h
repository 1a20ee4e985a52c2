#pragma once

#include <cstdint>
#include <string>

#include "system_ability.h"  // the ids of the other abilities

// The names and numbers that both ends of a call agree on.
//
// Ability N owns the bus name kite.ability.SA<N> and serves the object /kite/ability/SA<N>, which has
//   Transact(u code, ay request) -> (i status, ay reply)
//   Dump(as arguments, h descriptor) -> (i status)
// in the interface kite.Ability. The byte arrays are parcels. The codes of the requests to the Kelvra manager
// and to its subscribers, and the path of a subscriber, stand in kelvra_manager/protocol.h.
namespace KITE::Linux {

inline constexpr int32_t kQuotaServiceId = 1913;

inline constexpr const char* kAbilityInterface = "kite.Ability";
inline constexpr const char* kTransactMethod = "Transact";
inline constexpr const char* kDumpMethod = "Dump";

// The quota host's object for administrators (host/treatments_object.h).
inline constexpr const char* kTreatmentsPath = "/kite/treatments";
inline constexpr const char* kTreatmentsInterface = "kite.Treatments";

inline constexpr const char* kDaemonName = "org.freedesktop.DBus";
inline constexpr const char* kDaemonPath = "/org/freedesktop/DBus";

inline std::string AbilityBusName(int32_t abilityId) {
    return "kite.ability.SA" + std::to_string(abilityId);
}

inline std::string AbilityPath(int32_t abilityId) {
    return "/kite/ability/SA" + std::to_string(abilityId);
}

}  // namespace KITE::Linux
