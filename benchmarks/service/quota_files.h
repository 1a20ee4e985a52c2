// Quota files as large systems would have them.
#pragma once

#include <filesystem>
#include <string>

namespace KITE::Benchmarks {

struct PolicyShape {
    size_t processes = 0;
    size_t resourceTypes = 0;  // per process, 1 to 4
    size_t rules = 0;          // per resource type
    size_t chain = 1;          // so many processes inherit one from another, then the next chain begins
};

// The text of a quota file of that shape, indented as people write it.
std::string QuotaText(const PolicyShape& shape);

// A configuration directory that holds one quota file, as long as the object lives.
class QuotaLayer {
  public:
    explicit QuotaLayer(const std::string& text);
    QuotaLayer(const QuotaLayer&) = delete;
    QuotaLayer& operator=(const QuotaLayer&) = delete;
    ~QuotaLayer();

    const std::string& Directory() const { return directory_; }

  private:
    std::string directory_;
};

// The quota file below a configuration directory.
std::filesystem::path QuotaFileBelow(const std::string& directory);

}  // namespace KITE::Benchmarks
