#include "demo/disk_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "base/file.h"
#include "private_system/process_view.h"

namespace KITE::Demo {

namespace {

using Linux::UniqueFd;

bool CountsWrites(const UniqueFd& file) {
    const std::string piece(size_t{256} << 10, 'x');
    const Tools::ProcessView self(getpid());
    const int64_t before = self.WrittenBytes();
    return !Linux::WriteAll(file.Get(), piece) && fdatasync(file.Get()) == 0 &&
           self.WrittenBytes() - before >= static_cast<int64_t>(piece.size());
}

}  // namespace

UniqueFd MakeFileOnDisk(const std::filesystem::path& directory) {
    for (const std::filesystem::path& candidate :
         {directory, std::filesystem::path("/var/tmp"), std::filesystem::path("/var/lib"),
          std::filesystem::path("/")}) {
        std::string name = candidate / "kite-run-XXXXXX";
        UniqueFd file(mkostemp(name.data(), O_CLOEXEC));
        unlink(name.c_str());
        if (file && CountsWrites(file)) {
            return file;
        }
    }
    return {};
}

}  // namespace KITE::Demo
