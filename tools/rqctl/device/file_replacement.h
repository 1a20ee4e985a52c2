#pragma once

#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace KITE::Rqctl {

// A file that is read, changed and replaced as a whole: whoever reads it finds the old content or the new
// one, also after a crash. Between Open and the end of this object no other such replacement takes place in
// the same directory. The last component of the path must not be a symbolic link.
class FileReplacement {
  public:
    explicit FileReplacement(std::string path);

    // Reads the content that is there now; empty, with Exists() false, when there is no file. False with the
    // reason in `error`.
    bool Open(std::string& error);
    bool Exists() const { return exists_; }
    const std::string& Content() const { return content_; }

    // The new file has the old one's owner and mode; without an old one the directory's owner and 0644.
    bool Replace(std::string_view content, std::string& error);

  private:
    bool Fail(const std::string& what, std::string& error) const;
    bool ReadOld(std::string& error);
    bool WriteNew(int fd, std::string_view content) const;

    const std::string path_;
    const std::string directoryPath_;
    const std::string name_;
    Linux::UniqueFd directory_;  // locked
    bool exists_ = false;
    std::string content_;
    uid_t owner_ = 0;
    gid_t group_ = 0;
    mode_t mode_ = 0644;
};

}  // namespace KITE::Rqctl
