#pragma once

#include <string>

#include "ipc/bus_connection.h"
#include "resource_quota_control_proxy.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

// The way to the service, for as long as this object lives.
class Service {
  public:
    explicit Service(const Context& context) : context_(context) {}

    // kDone, or why there is no way, having said so.
    ExitStatus Connect();
    ResourceQuotaCtl::ResourceQuotaControlProxy& operator*() const { return *proxy_; }
    ResourceQuotaCtl::ResourceQuotaControlProxy* operator->() const { return proxy_.GetRefPtr(); }

    // The exit status of a result of the proxy's that is not ERR_OK, having said what it means.
    ExitStatus Explain(int32_t result) const;

  private:
    ExitStatus ExplainDenial() const;

    const Context& context_;
    Linux::BusConnection connection_;
    sptr<ResourceQuotaCtl::ResourceQuotaControlProxy> proxy_;
};

// Whether the file in the etc directory can be read by us, so that it tells something.
bool IsTold(const Context& context, const std::string& file);

// What the service's own user table, as far as the etc directory tells, makes of whoever runs us.
struct Self {
    bool isKnown = false;  // false: the table cannot be read
    std::string processName;
    bool mayDump = false;
};
Self LookUpSelf(const Context& context);

}  // namespace KITE::Rqctl
