#pragma once

#include <string>
#include <vector>

#include "kelvra_manager_client.h"

namespace KITE::ResourceQuotaCtl {

// Builds the report that the dump command's words ask for. Without state; any thread.
class ResourceQuotaControlDumper {
  public:
    ResourceQuotaControlDumper() = delete;

    // Replaces the result by the report. The first word selects it; without words, and for a word that is no
    // option, it is the help text.
    static void Dump(const std::vector<std::string>& args, std::string& result);
    // One quota record as a line with its newline.
    static std::string TransitResQuotaToString(const Kelvra::ResQuotaInfo& info);
};

}  // namespace KITE::ResourceQuotaCtl
