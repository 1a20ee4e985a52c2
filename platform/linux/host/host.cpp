#include "host/host.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>

#include <atomic>
#include <csignal>

#include "host/treatments_object.h"
#include "ipc/ability_registry.h"
#include "ipc/bus.h"
#include "runtime/access_tokens.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"
#include "runtime/task_runtime.h"
#include "treatments/recovery.h"
#include "treatments/treatments.h"

namespace KITE::Linux {

namespace {

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

// Threads inherit the mask, so that a stop signal waits until the host asks for it.
void PrepareSignals() {
    const sigset_t signals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

// The quota host keeps a pidfd for each reported process and the Kelvra manager three files for each watched
// one, which the usual soft limit of 1024 is too small for.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

class Host {
  public:
    explicit Host(const HostOptions& options) : options_(options) {}

    int Run() {
        if (!Start()) {
            Stop();
            return kExitFailed;
        }
        sd_notify(0, "READY=1");
        const int exitStatus = Wait();
        sd_notify(0, "STOPPING=1");
        Stop();
        return exitStatus;
    }

  private:
    bool Start() {
        if (const Result<void> tokens = LoadAccessTokens(); !tokens) {
            PLATFORM_LOGE("the host does not start: %{public}s", tokens.Why().Text().c_str());
            return false;
        }
        if (options_.settings.isDryRun) {
            PLATFORM_LOGW("dry run: no process is touched, and what an earlier host left treated stays so");
        } else if (!ReleaseLeftTreatments()) {
            PLATFORM_LOGE("not everything that an earlier host left treated could be released");
        }
        if (!StartBus() || !LoadLibraries()) {
            return false;
        }
        treatments_.Serve();
        StartAbilities();
        return true;
    }

    bool StartBus() {
        const std::error_code error = Bus::Instance().Start(options_.settings.busAddress, [this] {
            isBusLost_ = true;
            // The main thread has blocked the signal and waits for it.
            // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
            pthread_kill(thread_, SIGTERM);
        });
        if (error) {
            PLATFORM_LOGE("the host does not start: it cannot connect to the bus: %{public}s",
                          error.message().c_str());
        }
        return !error;
    }

    // The handles are never closed: code of the libraries may run until the process ends.
    bool LoadLibraries() {
        for (const std::string& library : options_.libraries) {
            if (dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
                const char* reason = dlerror();  // NOLINT(concurrency-mt-unsafe): glibc keeps it per thread
                PLATFORM_LOGE("the host does not start: %{public}s does not load: %{public}s",
                              library.c_str(), reason == nullptr ? "no reason given" : reason);
                return false;
            }
        }
        return true;
    }

    void StartAbilities() {
        for (SystemAbility* ability : RegisteredAbilities()) {
            if (ability->IsRunOnCreate()) {
                started_.push_back(ability);
                RunGuarded("an ability's start", [ability] { ability->OnStart(); });
            }
        }
    }

    // A lost bus ends the wait as a signal does.
    int Wait() {
        const sigset_t signals = StopSignals();
        int signal = 0;
        sigwait(&signals, &signal);
        return isBusLost_ ? kExitBusLost : kExitStopped;
    }

    // First nothing new comes in. Treatments end when no task can begin one any more. The bus goes last but
    // for the log, since abilities may call others while they stop.
    void Stop() {
        WithdrawAbilities();
        Bus::Instance().StopServing();
        for (; !started_.empty(); started_.pop_back()) {
            RunGuarded("an ability's stop", [this] { started_.back()->OnStop(); });
        }
        treatments_.Withdraw();
        TaskRuntime::Instance().Stop();
        Treatments::Instance().ReleaseAll();
        Bus::Instance().Stop();
    }

    const HostOptions& options_;
    const pthread_t thread_ = pthread_self();
    std::atomic<bool> isBusLost_{false};
    std::vector<SystemAbility*> started_;
    TreatmentsObject treatments_{Bus::Instance().Thread(), Treatments::Instance()};
};

}  // namespace

int RunHost(const HostOptions& options) {
    PrepareSignals();
    RaiseDescriptorLimit();
    SetSettings(options.settings);
    Log::minimumLevel = options.logLevel;
    int exitStatus = kExitFailed;
    if (options.release) {
        exitStatus = ReleaseLeftTreatments() ? kExitStopped : kExitFailed;
    } else {
        exitStatus = Host(options).Run();
    }
    StopLog();
    return exitStatus;
}

}  // namespace KITE::Linux
