#include "demo/disk_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/file.h"
#include "proc/process_file.h"

namespace KITE::Demo {

namespace {

using Linux::UniqueFd;

int64_t OwnWrittenBytes() {
    const std::string io = Linux::ReadFile("/proc/self/io").ValueOr("");
    return Linux::NumberOfLine(io, "write_bytes:").value_or(0);
}

bool CountsWrites(const UniqueFd& file) {
    const std::string piece(size_t{256} << 10, 'x');
    const int64_t before = OwnWrittenBytes();
    return !Linux::WriteAll(file.Get(), piece) && fdatasync(file.Get()) == 0 &&
           OwnWrittenBytes() - before >= static_cast<int64_t>(piece.size());
}

UniqueFd MakeNamelessFile(const std::filesystem::path& directory) {
    std::string pattern = directory / "kite-run-XXXXXX";
    UniqueFd file(mkostemp(pattern.data(), O_CLOEXEC));
    if (file) {
        unlink(pattern.c_str());
    }
    return file;
}

}  // namespace

UniqueFd MakeFileOnDisk(const std::filesystem::path& directory) {
    for (const std::filesystem::path& candidate :
         {directory, std::filesystem::path("/var/tmp"), std::filesystem::path("/var/lib"),
          std::filesystem::path("/")}) {
        UniqueFd file = MakeNamelessFile(candidate);
        if (file && CountsWrites(file)) {
            return file;
        }
    }
    return {};
}

}  // namespace KITE::Demo
