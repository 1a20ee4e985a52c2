#pragma once

#include <chrono>
#include <cstddef>

// How large a message may be, how much may wait, and for how long.
namespace KITE::Linux {

// The daemon ends the connection of a client that sends a message of more than 32 MiB (its max_message_size),
// so a larger parcel is not sent. 64 KiB are far more than a header takes.
inline constexpr size_t kMaxParcelSize = (size_t{32} << 20) - (size_t{64} << 10);

// How long a caller waits for an answer.
inline constexpr std::chrono::seconds kCallTimeout{5};

// Requests of all senders that are not answered. Beyond either number a request is refused.
inline constexpr size_t kMaxRequests = 256;
inline constexpr size_t kMaxRequestBytes = size_t{64} << 20;

// A dump's arguments are words that an operator typed.
inline constexpr size_t kMaxDumpArguments = 64;
inline constexpr size_t kMaxDumpArgumentBytes = size_t{64} << 10;

// Senders whose uid is kept.
inline constexpr size_t kMaxKeptUids = 256;

}  // namespace KITE::Linux
