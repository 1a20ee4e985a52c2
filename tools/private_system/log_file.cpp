#include "private_system/log_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "base/file.h"

namespace KITE::Tools {

LogFile::LogFile(std::string path)
    : path_(std::move(path)), file_(open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}

bool LogFile::Await(std::string_view text, milliseconds limit) {
    return Eventually(
        [&] {
            const size_t found = TextFrom(position_).find(text);
            position_ += found == std::string::npos ? 0 : found + text.size();
            return found != std::string::npos;
        },
        limit);
}

std::string LogFile::TextFrom(size_t position) const {
    const Linux::UniqueFd file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    lseek(file.Get(), static_cast<off_t>(position), SEEK_SET);
    return Linux::ReadFile(file.Get()).ValueOr("");
}

}  // namespace KITE::Tools
