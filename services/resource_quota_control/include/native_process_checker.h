#pragma once

#include <cstdint>
#include <string>

namespace KITE::ResourceQuotaCtl {

// Tells by the command line whether a pid still belongs to the process that a report names. Reached through
// its DelayedSingleton; without state; any thread. The class is spelt so by contract; do not correct it.
class NatvieProcessChecker {
  public:
    virtual ~NatvieProcessChecker() = default;

    // True when the process's present name, cut to 15 bytes, is not empty and occurs in the given name. A
    // process that is gone gives false.
    bool VerifyPidAndProcessName(int32_t pid, const std::string& processName) const;
    // The process's present name: what stands behind the last slash of its command line, cut to 15 bytes.
    // False, with the name untouched, when the process is gone.
    bool GetProcessNameByPid(int32_t pid, std::string& name) const;

  private:
    void ParseProcessName(const std::string& cmdline, std::string& name) const;
};

}  // namespace KITE::ResourceQuotaCtl
