#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/file.h"
#include "private_system/child_process.h"
#include "private_system/log_file.h"
#include "private_system/pipe.h"
#include "private_system/waiting.h"

// Processes that a test starts, and files that it reads and writes.
namespace KITE::Integration {

using Tools::Eventually;
using Tools::kPatience;
using Tools::Launch;
using Tools::LogFile;
using Tools::milliseconds;
using Process = Tools::ChildProcess;

// Empty when the file cannot be read.
inline std::string ReadWholeFile(const std::string& path) {
    return Linux::ReadFile(path, SIZE_MAX - 1).ValueOr("");
}

// The name appears with the whole content.
inline void WriteWholeFile(const std::string& path, std::string_view text, mode_t mode = 0644) {
    const std::string fresh = path + ".new";
    Linux::WriteFile(fresh, text);
    chmod(fresh.c_str(), mode);
    std::rename(fresh.c_str(), path.c_str());
}

struct Pipe : Tools::Pipe {
    // Writes until no more fits.
    void Fill() const {
        const std::string block(4096, ' ');
        fcntl(writeEnd.Get(), F_SETFL, O_NONBLOCK);
        while (write(writeEnd.Get(), block.data(), block.size()) > 0) {
        }
        fcntl(writeEnd.Get(), F_SETFL, 0);
    }
    // What has been written; the write end is closed first.
    std::string Text() {
        writeEnd = Linux::UniqueFd();
        std::string text(65536, '\0');
        const ssize_t count = read(readEnd.Get(), text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }
};

}  // namespace KITE::Integration
