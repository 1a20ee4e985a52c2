#pragma once

#include <cstdint>
#include <string>

namespace KITE::ResourceQuotaCtl {

// Tells whether a pid still belongs to the process that a report names, from its command line. Reached
// through its DelayedSingleton; without state; any thread.
class NatvieProcessChecker {
  public:
    virtual ~NatvieProcessChecker() = default;

    // True when the process's present name, cut to 15 bytes, is not empty and occurs in the given name. A
    // process that is gone gives false.
    bool VerifyPidAndProcessName(int32_t pid, const std::string& processName) const;
    // The process's present name, cut to 15 bytes. False, with the name untouched, when it is gone.
    bool GetProcessNameByPid(int32_t pid, std::string& name) const;

  private:
    void ParseProcessName(const std::string& cmdline, std::string& name) const;
};

}  // namespace KITE::ResourceQuotaCtl
