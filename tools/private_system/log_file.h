#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "private_system/waiting.h"

namespace KITE::Tools {

// A file that processes append lines to. One thread.
class LogFile {
  public:
    explicit LogFile(std::string path);

    const std::string& Path() const { return path_; }
    int Fd() const { return file_.Get(); }
    // Waits until the text stands in the file, behind what the last wait found.
    bool Await(std::string_view text, milliseconds limit = kPatience);
    bool Contains(std::string_view text) const { return Text().find(text) != std::string::npos; }
    std::string Text() const { return TextFrom(0); }

  private:
    std::string TextFrom(size_t position) const;

    std::string path_;
    Linux::UniqueFd file_;
    size_t position_ = 0;
};

}  // namespace KITE::Tools
