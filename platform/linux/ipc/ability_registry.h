#pragma once

#include <vector>

#include "system_ability.h"

namespace KITE::Linux {

// The abilities that the loaded libraries have registered, in that order. Host's thread, after loading.
KITE_API std::vector<SystemAbility*> RegisteredAbilities();

// Gives back the names of the published abilities, and the references to their objects. Called by the host
// when it begins to stop, while the bus is still there.
KITE_API void WithdrawAbilities();

}  // namespace KITE::Linux
