#pragma once

#include <sys/types.h>

#include <cstdint>

#include "base/result.h"
#include "visibility.h"

namespace KITE::Linux {

// Reads the token table, <etc>/tokens.json:
//
//     {"tokens": [{"uid": 0, "process_name": "svcdb", "permissions": ["kite.permission.DUMP"]},
//                 {"user": "faultd", "process_name": "faultd"}]}
//
// Each entry gives one uid a native process name and permissions. Fails, and leaves the table as it was, when
// the file cannot be read, does not belong to root, may be written by others, is malformed, or names a uid
// twice or a user that does not exist. A missing file is an empty table. Until the first success no uid has a
// token. The table is read without a lock, so the host loads it before it starts a thread that may do so.
KITE_API Result<void> LoadAccessTokens();

// The token id of the processes that run under the uid; 0 when the table has none. Any thread.
KITE_API uint32_t TokenOfUid(uid_t uid);

}  // namespace KITE::Linux
