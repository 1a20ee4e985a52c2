#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "remote_object.h"
#include "visibility.h"

namespace KITE::Linux {

// What the platform's integrator tells about the device, in <state>/device_state.json:
//
//     {"screen_on": true,
//      "applications": [{"uid": 20001, "processes": [1234], "render_processes": [1235],
//                        "foreground": true, "visible_window": false}],
//      "extensions": [{"uid": 20002, "pid": 1300}],
//      "continuous_tasks": [{"uid": 20001, "pid": 1234, "types": [1]}],
//      "efficiency_resources": {"applications": [{"uid": 20001, "pid": 1234, "resources": 1}],
//                               "processes": [{"uid": 20001, "pid": 1234, "resources": 1}]}}
//
// Every key may be left out, but "uid" and "pid" of an entry; a key that is not known here is refused. The
// file is to be replaced atomically.
struct DeviceState {
    struct Application {
        int32_t uid = 0;
        std::vector<int32_t> processes;
        std::vector<int32_t> renderProcesses;
        bool foreground = false;
        bool visibleWindow = false;
    };
    struct Extension {
        int32_t uid = 0;
        int32_t pid = 0;
    };
    struct ContinuousTask {
        int32_t uid = 0;
        int32_t pid = 0;
        std::vector<uint32_t> types;
    };
    struct EfficiencyResource {
        int32_t uid = 0;
        int32_t pid = 0;
        uint32_t resources = 0;  // a bit set
    };

    bool screenOn = true;
    std::vector<Application> applications;
    std::vector<Extension> extensions;
    std::vector<ContinuousTask> continuousTasks;
    std::vector<EfficiencyResource> applicationResources;
    std::vector<EfficiencyResource> processResources;
};

// Reads a state from its JSON text. The failure names the first faulty place. Any thread.
KITE_API Result<DeviceState> ReadDeviceState(std::string_view text);

// The state as the file has it now; never null. Without a file the screen is on and there is nothing else.
// While the file cannot be used the last good state stays, and the log tells each new fault once. Any thread.
KITE_API std::shared_ptr<const DeviceState> CurrentDeviceState();

// 1 for a process of an application of that uid, 2 for an extension, else 0. Any thread.
KITE_API int32_t GeneralTypeOf(int32_t uid, int32_t pid);

// The application manager: an IAppMgr within this process, always the same one. Its running processes are
// those of the applications and the extensions. Any thread.
KITE_API sptr<IRemoteObject> AppManagerObject();

}  // namespace KITE::Linux
