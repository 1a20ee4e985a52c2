#include "dump_info.h"

namespace KITE::ResourceQuotaCtl {

std::string DumpInfo::ToString() const {
    std::string text = "pid_" + std::to_string(pid_);
    text += " uid_" + std::to_string(uid_);
    text += " processname_" + processname_;
    text += " processtype_" + std::to_string(processtype_);
    text += " action_" + action_;
    text += " restype_" + restype_;
    text += " duration_" + std::to_string(duration_);
    text += " condition_";
    for (const uint32_t condition : condition_) {
        text += std::to_string(condition) + '_';
    }
    text += " id_" + std::to_string(id_);
    text += " resource_" + std::to_string(resource_);
    text += " timestamp_" + std::to_string(timestamp_);
    return text;
}

}  // namespace KITE::ResourceQuotaCtl
