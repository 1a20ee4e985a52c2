#pragma once

#include <string>

#include "ipc/bus_connection.h"
#include "resource_quota_control_proxy.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

// The connection to the service, for as long as this object lives.
class ServiceConnection {
  public:
    explicit ServiceConnection(const Context& context) : context_(context) {}

    // kDone, or why the service cannot be reached, after telling it.
    ExitStatus Open();
    ResourceQuotaCtl::ResourceQuotaControlProxy* operator->() const { return proxy_.GetRefPtr(); }

    // The exit status for a result of the proxy's that is not ERR_OK, after telling what it means.
    ExitStatus Explain(int32_t result) const;

  private:
    ExitStatus ExplainDenial() const;

    const Context& context_;
    Linux::BusConnection connection_;
    sptr<ResourceQuotaCtl::ResourceQuotaControlProxy> proxy_;
};

// Whether this process can read the file in the etc directory (base/file_names.h).
bool IsReadable(const Context& context, const std::string& file);

// What the access tokens in the etc directory say about the uid of this process.
struct OwnToken {
    bool isKnown = false;  // false: the file cannot be read or is not accepted
    std::string processName;
    bool mayDump = false;
};
OwnToken LookUpOwnToken(const Context& context);

}  // namespace KITE::Rqctl
