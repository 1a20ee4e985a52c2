#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

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
std::string ReadWholeFile(const std::string& path);
// The name appears with the whole content.
void WriteWholeFile(const std::string& path, std::string_view text, mode_t mode = 0644);

struct Pipe : Tools::Pipe {
    // Writes until no more fits.
    void Fill() const;
    // What has been written; the write end is closed first.
    std::string Text();
};

}  // namespace KITE::Integration
