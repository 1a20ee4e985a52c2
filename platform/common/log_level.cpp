#include "system_log.h"

namespace KITE::Log {

constinit std::atomic<Level> minimumLevel{Level::kInfo};

}  // namespace KITE::Log
