#include <sched.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "integration/tested_system.h"
#include "ipc/bus.h"
#include "ipc/echo.h"
#include "ipc/rows.h"
#include "kelvra_manager/protocol.h"
#include "ratio_table.h"
#include "runtime/settings.h"
#include "turns.h"

namespace KITE::Benchmarks {

namespace {

using Integration::BusClient;
using Integration::TestedSystem;
using Records = std::vector<Kelvra::ResQuotaInfo>;

constexpr size_t kRecords = 80'000;
constexpr int kExtensions = 10;

// Four resource types of two rules each for a process, with names as they are borne.
Records ManyRecords() {
    constexpr const char* kTypes[] = {"mem", "cpu", "cpu_ext", "io"};
    Records records(kRecords);
    for (size_t i = 0; i < kRecords; ++i) {
        Kelvra::ResQuotaInfo& record = records[i];
        record.duration = 60;
        record.resource = static_cast<int64_t>(100'000 + i);
        record.id = static_cast<int32_t>(i);
        record.action = "warning";
        record.processName = "com.example.process" + std::to_string(i / 8);
        record.resType = kTypes[i / 2 % 4];
        record.conditions = {8, 16};
    }
    return records;
}

// Keeps this thread and its children on one processor. Which processors the kernel chooses for two processes
// that wait for each other changes the figure more than their work does.
class OnOneProcessor {
  public:
    OnOneProcessor() {
        sched_getaffinity(0, sizeof(before_), &before_);
        size_t first = 0;
        while (first < CPU_SETSIZE && !CPU_ISSET(first, &before_)) {
            ++first;
        }
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(first, &one);
        sched_setaffinity(0, sizeof(one), &one);
    }
    OnOneProcessor(const OnOneProcessor&) = delete;
    OnOneProcessor& operator=(const OnOneProcessor&) = delete;
    ~OnOneProcessor() { sched_setaffinity(0, sizeof(before_), &before_); }

  private:
    cpu_set_t before_{};
};

struct QuotaExport {
    QuotaExport()
        : echo(system.Address(), system.Directory(), 0), client(system.Connect(Integration::kKelvraUid)) {
        // This process is who may set quotas.
        system.SetTokens(R"({"tokens": [{"uid": 0, "process_name": "resource_quota_control"}]})");
        system.StartKelvraHost();
        Linux::Settings settings;
        settings.logsToStandardError = true;
        Linux::SetSettings(settings);
        if (const std::error_code error = Linux::Bus::Instance().Start(system.Address())) {
            throw std::system_error(error, "cannot connect to the bus");
        }
        message.WriteInt32(0);
        Linux::KelvraProtocol::WriteRecordList(records, message);
        if (!Integration::Eventually([this] { return Send(); })) {
            throw std::runtime_error("the Kelvra manager does not answer");
        }
        AwaitIdleManager();
    }
    QuotaExport(const QuotaExport&) = delete;
    QuotaExport& operator=(const QuotaExport&) = delete;
    ~QuotaExport() { Linux::Bus::Instance().Stop(); }

    bool Send() { return Kelvra::KelvraManagerClient::GetInstance().SetProcessQuota(0, records) == 0; }

    // Waits until the manager has nothing more to do.
    void AwaitIdleManager() {
        const Integration::Process& manager = system.KelvraHost().process;
        std::chrono::nanoseconds before{-1};
        Integration::Eventually(
            [&] { return std::exchange(before, manager.CpuTime()) == manager.CpuTime(); });
    }

    Records records = ManyRecords();
    MessageParcel message;
    TestedSystem system;
    Echo echo;
    BusClient client;
};

struct Queries {
    Queries() {
        std::vector<std::string> rules;
        rules.reserve(kExtensions);
        for (int i = 0; i < kExtensions; ++i) {
            rules.push_back(
                TestedSystem::Rule("com.example.extension" + std::to_string(i), "cpu", 50, "warning", 60));
        }
        system.SetPolicy(rules);
        system.SetParameters(R"({"kelvra.sample_period_ms": 60000})");
        system.Parts().logOptions.clear();
        system.StartKelvraHost();
        system.StartQuotaHost();
        client.emplace(system.Connect(Integration::kTrustedUid));
        if (!Integration::Eventually([this] { return Ask() > 2 * sizeof(int32_t); })) {
            throw std::runtime_error("the service does not answer");
        }
        replySize = Ask();
        echo.emplace(system.Address(), system.Directory(), replySize);
        echoClient.emplace(system.Connect(Integration::kKelvraUid));
    }

    size_t Ask() { return client->AskRunningTimes().reply.Bytes().size(); }

    TestedSystem system;
    size_t replySize = 0;
    std::optional<BusClient> client;
    std::optional<BusClient> echoClient;
    std::optional<Echo> echo;
};

using SteadyClock = std::chrono::steady_clock;

// Of a call that must succeed.
template <typename Call>
SteadyClock::duration TimeOf(const Call& call) {
    const SteadyClock::time_point begin = SteadyClock::now();
    if (!call()) {
        throw std::runtime_error("a call failed");
    }
    return SteadyClock::now() - begin;
}

std::vector<Figure> MeasureQuotaExport() {
    constexpr size_t kRuns = 61;
    QuotaExport data;
    const auto send = [&data] {
        data.AwaitIdleManager();
        return TimeOf([&data] { return data.Send(); });
    };
    const auto echo = [&data] {
        data.AwaitIdleManager();
        return TimeOf([&data] { return data.echo.Call(data.client, data.message); });
    };
    return {{"80,000 records to the Kelvra manager in one call : one bus message of that size and its answer",
             RatioInTurns(kRuns, send, echo), 1.3, ""}};
}

// Times a call that must succeed and logs a line.
template <typename Call>
Loop Repeat(JournalStandIn& journal, Call call) {
    constexpr int kBatch = JournalStandIn::kBatch;
    return [&journal, call](benchmark::State& state) {
        const OnOneProcessor here;
        while (state.KeepRunningBatch(kBatch)) {
            for (int i = 0; i < kBatch; ++i) {
                if (!call()) {
                    state.SkipWithError("a call failed");
                    return;
                }
            }
            state.PauseTiming();
            journal.Drain();
            state.ResumeTiming();
        }
    };
}

}  // namespace

// Row 5, its second half: the call of the client library with all records until the Kelvra manager has
// answered, against a message of as many bytes to the echo. The manager puts the records into force after its
// answer; each call waits for that, so that it begins where nothing else runs.
void AddQuotaExport() {
    AddFigures(5, MeasureQuotaExport);
}

// Row 6. Client, daemon, service and echo share a processor, so that all that the service does counts.
Keeper AddQueries(JournalStandIn& journal) {
    const OnOneProcessor here;
    const auto owner = std::make_shared<Queries>();
    Queries* data = owner.get();
    AddRatio({6, "the running times of 10 extensions, asked over the bus", "an sd-bus echo of the same sizes",
              1.1},
             Repeat(journal, [data] { return data->Ask() == data->replySize; }), Repeat(journal, [data] {
                 return data->echo->Call(*data->echoClient, Integration::QuotaRequest());
             }));
    return owner;
}

}  // namespace KITE::Benchmarks
