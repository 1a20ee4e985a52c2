#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app_manager.h"
#include "background_task_manager.h"
#include "kelvra_manager_client.h"
#include "system_ability.h"
#include "system_log.h"

// The platform as a script. It defines every operation of platform/include, so that whatever calls them can
// be linked against it and tested without a bus, a clock or another process.
//
// - Every call is recorded, in order, as text with its arguments; log lines stand between them in the same
//   trace. Maps are written in order of their keys.
// - Every answer is a public field: set it before the code under test asks.
// - Submitted tasks wait until the test runs them; time moves only when the test moves it.
//
// There is one platform in a process, since the code under test reaches it through global functions; it
// exists from the first call on, also when that comes from a load-time initialiser. Values that are read
// while loading come from the environment: KITE_FAKE_PARAMETERS="key=value;key=value". A test that needs a
// clean platform calls Reset, or runs in a process of its own.
//
// Calls may come from any thread; set fields before such threads start, and read the trace through its
// accessors.
namespace KITE::Fake {

// A call, "IsScreenOn()", or a log line without its prefix after the first letter of its level, "I text".
struct Entry {
    bool isLine;
    std::string source;  // what was called, or where the line was written: "unit(function)"
    std::string text;
};

// An application manager that answers from the script.
sptr<IRemoteObject> MakeAppManager();

// The script. What a test does not set is as a device with nothing on it answers.
struct Script {
    bool isTraced = true;  // without it calls are not recorded, and log lines are formatted and dropped

    // --- answers ---
    std::vector<std::optional<std::string>> configDirectories;  // none: no list
    std::map<std::string, std::string> files;                   // what LoadStringFromFile finds, unless
    bool (*loadFile)(const std::string& path, std::string& content) = nullptr;  // answers in its place
    bool canSave = true;                                                        // SaveStringToFd succeeds
    int64_t wallTimeMs = 0;

    std::map<uint32_t, std::string> nativeProcesses;         // process name by token
    std::set<std::pair<uint32_t, std::string>> permissions;  // granted ones
    uint32_t callingToken = 0;
    uint32_t firstToken = 0;

    bool hasRegistry = true;
    sptr<IRemoteObject> appManager = MakeAppManager();  // the object of service 501
    std::vector<RunningProcessInfo> runningProcesses;
    std::vector<RenderProcessInfo> renderProcesses;
    std::vector<AppStateData> foregroundApplications;
    std::vector<int32_t> windowOwners;  // a negative uid stands for a null record
    bool isScreenOn = true;
    int32_t continuousTaskResult = 0;
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>> continuousTasks;
    std::vector<std::shared_ptr<ResourceCallbackInfo>> appResources;
    std::vector<std::shared_ptr<ResourceCallbackInfo>> processResources;

    bool publishResult = true;
    int32_t setQuotaResult = 0;
    int32_t subscribeResult = 0;
    std::function<void()> duringSubscribe;  // called within SubscribeKelvraTask
    std::function<void()> duringListen;     // called within AddSystemAbilityListener, once
    int32_t killResult = 0;
    int32_t freezeResult = 0;
    int32_t eventResult = 0;

    // --- what the code under test handed over ---
    sptr<IRemoteObject> publishedObject;
    std::vector<Kelvra::ResQuotaInfo> quotas;
    std::string saved;  // by SaveStringToFd
};

class Platform : public Script {
  public:
    static Platform& Get();

    // Forgets calls, lines, tasks and answers, but not what was registered.
    void Reset();

    std::vector<Entry> Entries() const;
    // The texts of all entries but those whose source contains one of the words; of the calls; of the lines.
    std::vector<std::string> Trace(std::initializer_list<std::string_view> without = {}) const {
        return Texts(std::nullopt, without);
    }
    std::vector<std::string> Calls() const { return Texts(false); }
    std::vector<std::string> Log() const { return Texts(true); }
    void ClearTrace();

    // Runs what is due, in order of time and then of submission, until nothing due is left; gives the number.
    size_t RunTasks() { return Advance({}); }
    // The same, moving the clock step by step.
    size_t Advance(std::chrono::microseconds time);
    size_t PendingTasks() const;

    // Reports to the subscriber, if it still exists; tells whether it did.
    bool ReportAnomalies(const std::vector<Kelvra::ProcessAnomalyInfo>& infos);

    SystemAbility* registeredAbility = nullptr;

    // --- for the operations of platform/include ---
    void Record(Entry entry);
    void AddTask(std::function<void()> task, std::chrono::microseconds delay);
    void KeepSubscriber(std::weak_ptr<const Kelvra::KelvraManagerTaskSubscriber> subscriber);

  private:
    Platform() { Reset(); }
    std::vector<std::string> Texts(std::optional<bool> areLines,
                                   std::initializer_list<std::string_view> without = {}) const;
    std::function<void()> TakeTask(std::chrono::microseconds until);

    mutable std::mutex mutex_;  // everything below
    std::vector<Entry> trace_;
    std::multimap<std::chrono::microseconds, std::function<void()>> tasks_;  // by the time when they are due
    std::chrono::microseconds now_{0};
    std::weak_ptr<const Kelvra::KelvraManagerTaskSubscriber> subscriber_;
};

}  // namespace KITE::Fake
