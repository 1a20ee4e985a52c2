#pragma once

#include <string>
#include <vector>

#include "kelvra_manager_client.h"

namespace KITE::ResourceQuotaCtl {

// Builds the report that the dump command's words ask for. Without state; any thread.
class ResourceQuotaControlDumper {
  public:
    ResourceQuotaControlDumper() = delete;

    // Replaces the result by the report that the first word selects. Without words, and for an unknown word,
    // that is the help text. Words behind it are ignored, but for the pid of "DumpGetIoWritebytesAbility",
    // whose report goes to the log alone.
    static void Dump(const std::vector<std::string>& args, std::string& result);
    // One quota record as a line with its newline.
    static std::string TransitResQuotaToString(const Kelvra::ResQuotaInfo& info);
};

}  // namespace KITE::ResourceQuotaCtl
