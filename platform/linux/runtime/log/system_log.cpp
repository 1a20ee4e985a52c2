#include "system_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>

#include "base/immortal.h"
#include "runtime/log/journal_log.h"
#include "runtime/log/log_line.h"
#include "runtime/log/stderr_log.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE {

namespace {

struct SystemLog {
    Linux::JournalLog journal{"/run/systemd/journal/socket"};
    Linux::StderrLog standardError{STDERR_FILENO};
};

SystemLog& Instance() {
    static Linux::Immortal<SystemLog> log;
    return log.value;
}

// A program that just returns from main gets its last lines written too.
[[maybe_unused]] const int stopsAtExit = std::atexit(Linux::StopLog);

}  // namespace

void Log::Write(Level level, const Label& label, const Site& site, const char* format, ...) {
    const int errorBefore = errno;
    char buffer[Linux::kMaxLogText];
    va_list arguments;
    va_start(arguments, format);
    const Linux::LogLine line{level, label, site, Linux::FormatLogText(buffer, site, format, arguments)};
    va_end(arguments);
    SystemLog& log = Instance();
    if (Linux::GetSettings().logsToStandardError || log.journal.Send(line)) {
        try {
            log.standardError.Write(line);
        } catch (const std::exception&) {
            // Without memory the line is lost, and there is no place to say so.
        }
    }
    errno = errorBefore;
}

void Linux::StopLog() {
    Instance().standardError.Stop();
}

}  // namespace KITE
