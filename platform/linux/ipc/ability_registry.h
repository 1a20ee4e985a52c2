#pragma once

#include <vector>

#include "system_ability.h"

namespace KITE::Linux {

// The abilities that the loaded libraries have registered, in that order. Host's thread, after loading.
KITE_API std::vector<SystemAbility*> RegisteredAbilities();

// Gives back the references to published objects. Called by the host once the bus serves no more.
KITE_API void ForgetPublishedObjects();

}  // namespace KITE::Linux
