#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Tools {

// The lines of <state>/events.jsonl as they come, also when the file is rotated, or is not there yet. A line
// is lost only when the file is rotated twice between two looks at it. One thread.
class EventFollower {
  public:
    using Take = std::function<void(std::string_view line)>;

    // Begins with what the file and its predecessor hold already, or with what comes from now on. Fails when
    // the directory cannot be watched or the file cannot be read.
    static Linux::Result<EventFollower> Open(const std::string& stateDirectory, bool withHistory);

    // Becomes readable when there may be more to read.
    int Descriptor() const { return changes_.Get(); }
    // Hands over each whole line that has come. False when the directory has been removed.
    bool Read(const Take& take);

  private:
    bool Watch() const;
    void ReadToEnd(const Take& take);
    // Goes on to the next file; false when there is none yet.
    bool Advance(const Take& take);
    void Begin(Linux::UniqueFd file);

    std::string directory_;
    std::string path_;
    Linux::UniqueFd changes_;
    Linux::UniqueFd file_;
    off_t position_ = 0;
    std::string unfinished_;
};

}  // namespace KITE::Tools
