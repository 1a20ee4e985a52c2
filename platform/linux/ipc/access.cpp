#include "ipc/access.h"

#include <utility>

#include "access_token.h"
#include "ipc/bus.h"
#include "runtime/access_tokens.h"

namespace KITE {

namespace Linux {

namespace {

thread_local const Caller* current = nullptr;

}  // namespace

CallingScope::CallingScope(const Caller& caller) noexcept : outer_(std::exchange(current, &caller)) {}

CallingScope::~CallingScope() {
    current = outer_;
}

std::string CallerName() {
    return current == nullptr ? std::string() : current->name;
}

std::optional<uid_t> CallerUid() {
    return current == nullptr ? std::nullopt : current->uid;
}

bool HasPermission(std::optional<uid_t> caller, const char* permission) {
    const uint32_t token = caller ? TokenOfUid(*caller) : 0;
    return AccessTokenKit::VerifyAccessToken(token, permission) == PERMISSION_GRANTED;
}

bool CallerOwnsAbility(int32_t abilityId) {
    const std::string caller = CallerName();
    return !caller.empty() && Bus::Instance().Abilities().OwnerOf(abilityId) == caller;
}

sptr<RemoteProxy> CallerObject(const std::string& path) {
    const std::string caller = CallerName();
    return caller.empty() ? nullptr : MakeSptr<RemoteProxy>(caller, path);
}

}  // namespace Linux

uint32_t IPCSkeleton::GetCallingTokenID() {
    const std::optional<uid_t> uid = Linux::CallerUid();
    return uid ? Linux::TokenOfUid(*uid) : 0;
}

// The bus vouches for the sender alone: a call chain has one link here.
uint32_t IPCSkeleton::GetFirstTokenID() {
    return GetCallingTokenID();
}

}  // namespace KITE
