#pragma once

#include <cstdint>

// What the Kelvra manager and its clients say to each other. A status of 0 is success; the transport's own
// statuses (remote_object.h) and the ones below say what failed. No reply carries content.
namespace KITE::Linux::KelvraProtocol {

// Requests to the manager; each begins with the interface token.
inline constexpr char16_t kManagerDescriptor[] = u"KITE.PowerManager.KelvraManager";
inline constexpr uint32_t kSetProcessQuota = 1;  // int32 reserved, uint32 count, the quota records
inline constexpr uint32_t kSubscribe = 2;        // string: path of the subscriber on the caller's connection

// Requests to a subscriber.
inline constexpr char16_t kSubscriberDescriptor[] = u"KITE.PowerManager.KelvraSubscriber";
inline constexpr char kSubscriberPath[] = "/kite/kelvra/subscriber";
inline constexpr uint32_t kReport = 1;  // uint32 count, the anomaly records

inline constexpr int32_t kBadQuotaList = -1101;
inline constexpr int32_t kBadSubscriberPath = -1102;
inline constexpr int32_t kBadReport = -1103;
inline constexpr int32_t kNotReachable = -1104;  // the client itself: its subscriber cannot be called

}  // namespace KITE::Linux::KelvraProtocol
