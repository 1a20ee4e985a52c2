#pragma once

#include <cstdint>
#include <vector>

#include "remote_object.h"

namespace KITE {

// A process of an application, a process that renders for one, and an application with a state.
struct RunningProcessInfo {
    int32_t pid = 0;
    int32_t uid = 0;
};

struct RenderProcessInfo {
    int32_t renderPid = 0;
    int32_t uid = 0;
};

struct AppStateData {
    int32_t uid = 0;
};

// The application manager, system service APP_MGR_SERVICE_ID. Each query appends to the list and returns 0,
// or returns an error and may have appended some. Any thread but the one that serves requests.
class KITE_API IAppMgr : public IRemoteBroker {
  public:
    static constexpr const char16_t* GetDescriptor() { return u"KITE.ApplicationManager"; }

    virtual int32_t GetAllRunningProcesses(std::vector<RunningProcessInfo>& infos) = 0;
    virtual int32_t GetAllRenderProcesses(std::vector<RenderProcessInfo>& infos) = 0;
    virtual int32_t GetForegroundApplications(std::vector<AppStateData>& infos) = 0;
};

}  // namespace KITE
