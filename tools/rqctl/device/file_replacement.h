#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Rqctl {

// A file that is read, changed and replaced as a whole: a reader finds the old content or the new one, also
// after a crash. While this object lives, no other such replacement takes place in the same directory. The
// last component of the path must not be a symbolic link.
class FileReplacement {
  public:
    // Reads the content that is there now.
    static Linux::Result<FileReplacement> Open(const std::filesystem::path& path);

    // Absent when there is no file.
    const std::optional<std::string>& Content() const { return content_; }

    // The new file has the old one's owner and mode; without an old one the directory's owner and 0644.
    Linux::Result<void> Replace(std::string_view content);

  private:
    explicit FileReplacement(std::filesystem::path path) : path_(std::move(path)) {}
    Linux::Result<void> ReadOld();

    std::filesystem::path path_;
    Linux::UniqueFd directory_;  // locked
    std::optional<std::string> content_;
    struct stat attributes_ {};  // of the new file: owner, group and mode
};

}  // namespace KITE::Rqctl
