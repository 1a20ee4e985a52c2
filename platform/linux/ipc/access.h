#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "ipc/remote_proxy.h"

// Who sent the request that this thread handles. Where no request is handled there is no caller: the name is
// empty and the uid absent, which means deny. What a caller may do, each object decides by these.
namespace KITE::Linux {

// The sender's unique bus name.
KITE_API std::string CallerName();
// The effective uid that the bus vouches for; absent when the sender has gone or the bus did not tell.
KITE_API std::optional<uid_t> CallerUid();
// Whether the token of that uid has the permission; false without a uid.
bool HasPermission(std::optional<uid_t> caller, const char* permission);
// True when the sender owns the name of that ability now. Only for the quota service, the Kelvra manager and
// an ability that this process listens to (SystemAbility::AddSystemAbilityListener); false for others.
KITE_API bool CallerOwnsAbility(int32_t abilityId);
// An object of the sender, addressed by its unique name; null without a caller.
KITE_API sptr<RemoteProxy> CallerObject(const std::string& path);

struct Caller {
    std::string name;
    std::optional<uid_t> uid;
};

// Makes the caller known on this thread while it lives; the record must live as long.
class CallingScope {
  public:
    explicit CallingScope(const Caller& caller) noexcept;
    ~CallingScope();
    CallingScope(const CallingScope&) = delete;
    CallingScope& operator=(const CallingScope&) = delete;

  private:
    const Caller* const outer_;
};

}  // namespace KITE::Linux
