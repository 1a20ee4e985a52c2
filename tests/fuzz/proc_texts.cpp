// Texts of /proc through everything that reads them: those of kNames, with 0xFF between them, and a second
// series that the files hold later. Rooms that read the same thing must agree.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include "fuzz.h"
#include "kelvra_manager/manager/watched_process.h"
#include "native_process_checker.h"
#include "proc/process_file.h"
#include "proc/process_stat.h"
#include "proc/program.h"
#include "resource_quota_control_io_helper.h"
#include "runtime/settings.h"
#include "visibility.h"

using namespace KITE;
using namespace KITE::Fuzz;
using namespace KITE::Linux;
using namespace KITE::Linux::Sampling;

namespace {

constexpr pid_t kPid = 4194304;  // the kernel's limit: no process has it
constexpr std::string_view kFolder = "/proc/4194304/";
constexpr std::array<std::string_view, 6> kNames{"cmdline", "stat", "statm", "io", "smaps_rollup", "status"};

std::array<int, kNames.size()> files;  // in memory; 0 before the first input

void Put(size_t place, std::string_view text) {
    if (files[place] == 0) {
        files[place] = memfd_create("text", MFD_CLOEXEC);
    }
    Require(ftruncate(files[place], 0) == 0);
    Require(pwrite(files[place], text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
}

// In the kernel's own text the process chooses nothing but its command name.
void CheckStartTime(const std::string& command) {
    const std::string stat = "7 (" + command.substr(0, 15) +
                             ") S 1 2 3 0 -1 64 0 0 0 0 0 0 0 0 20 0 1 0 4711 0 0 18446744073709551615 0 0\n";
    const auto parsed = ParseProcessStat(stat);
    Require(parsed && parsed->startTime == 4711);
}

void CheckNames(std::string_view cmdline) {
    const std::string name(ProcessNameOf(cmdline));
    Require(cmdline.size() >= kCommandLineBuffer - 1 || Linux::ReadProcessName(kPid) == name);
    Require(ResourceQuotaCtl::NatvieProcessChecker().VerifyPidAndProcessName(kPid, name) ==
            IsAcceptedAs(SeenNameOf(cmdline), name));
}

void CheckWrittenBytes(std::string_view io) {
    uint64_t counted = 0;
    const bool isCounted = ResourceQuotaCtl::ResourceQuotaControlIoHelper::GetWriteBytesByPid(kPid, counted);
    const auto sampled = NumberOfLine(io, "write_bytes:");
    Require(!sampled || (isCounted && counted == static_cast<uint64_t>(*sampled)));
}

RuleBook Rules() {
    std::vector<Kelvra::ResQuotaInfo> quotas(2);
    quotas[0].resType = "mem";
    quotas[1].resType = "io";
    quotas[0].processName = quotas[1].processName = "daemon";
    return RuleBook(quotas);
}

void Watch(const std::vector<std::string>& texts) {
    static const RuleBook rules = Rules();
    const Reporter reporter;
    WatchedProcess process(kPid, ReadProcessStat(kPid).ValueOr({}).startTime,
                           std::move(*OpenProcessFile(kPid, "cmdline")), ProcessNameOf(texts[0]),
                           rules.RulesFor("daemon"));
    for (int second = 0; second < 3; ++second) {
        process.Sample(TimePoint(std::chrono::seconds(second)));
        for (const Report& report : process.TakeReports(reporter)) {
            Require(report.resource > 0 && report.pid == kPid);
        }
        for (size_t i = kNames.size(); i < texts.size(); ++i) {
            Put(i - kNames.size(), texts[i]);
        }
    }
}

// Where whoever opens one of that process's files finds its text; any other path is itself.
std::string RealPathOf(std::string_view path) {
    const auto known = std::ranges::find(kNames, path.substr(std::min(kFolder.size(), path.size())));
    if (!path.starts_with(kFolder) || known == kNames.end()) {
        return std::string(path);
    }
    return "/proc/self/fd/" + std::to_string(files[static_cast<size_t>(known - kNames.begin())]);
}

}  // namespace

// The two ways to open a file: the platform's, and that of the service's streams.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, RealPathOf(path).c_str(), flags, mode));
}

// Exported, since the streams call it from the standard library.
extern "C" KITE_API FILE* fopen64(const char* path, const char* mode) {
    static const auto real = reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"));
    return real(RealPathOf(path).c_str(), mode);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Linux::SetSettings({".", ".", ""});
    auto texts = Fuzz::Split({reinterpret_cast<const char*>(data), size}, '\xff', 2 * kNames.size());
    texts.resize(std::max(texts.size(), kNames.size()));
    for (size_t place = 0; place < kNames.size(); ++place) {
        Put(place, texts[place]);
    }
    CheckStartTime(texts[0]);
    CheckNames(texts[0]);
    CheckWrittenBytes(texts[3]);
    Watch(texts);
    return 0;
}
