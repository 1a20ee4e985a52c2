#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

// What both ends of a remote call agree on.
//
// Ability N owns the bus name kite.ability.SA<N> and serves the object /kite/ability/SA<N>, which has
//   Transact(u code, ay request) -> (i status, ay reply)
//   Dump(as arguments, h descriptor) -> (i status)
// in the interface kite.Ability. The byte arrays are parcels.
namespace KITE::Linux {

inline constexpr const char* kAbilityInterface = "kite.Ability";
inline constexpr const char* kDaemonName = "org.freedesktop.DBus";
inline constexpr const char* kDaemonPath = "/org/freedesktop/DBus";

inline constexpr std::chrono::seconds kCallTimeout{5};

// The daemon ends the connection of a client that sends a message of more than 32 MiB (its max_message_size),
// so a parcel must be refused before it is sent. A header is far below the 64 KiB left for it: a path and
// five names.
inline constexpr size_t kMaxParcelSize = (size_t{32} << 20) - (size_t{64} << 10);

inline std::string AbilityBusName(int32_t abilityId) {
    return "kite.ability.SA" + std::to_string(abilityId);
}

inline std::string AbilityPath(int32_t abilityId) {
    return "/kite/ability/SA" + std::to_string(abilityId);
}

}  // namespace KITE::Linux
