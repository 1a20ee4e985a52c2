#include "process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>

#include "base/file.h"

namespace KITE::Integration {

std::string ReadWholeFile(const std::string& path) {
    return Linux::ReadFile(path, SIZE_MAX - 1).ValueOr("");
}

void WriteWholeFile(const std::string& path, std::string_view text, mode_t mode) {
    const std::string fresh = path + ".new";
    std::ofstream(fresh) << text;
    chmod(fresh.c_str(), mode);
    std::filesystem::rename(fresh, path);
}

void Pipe::Fill() const {
    const std::string block(4096, ' ');
    fcntl(writeEnd.Get(), F_SETFL, O_NONBLOCK);
    while (write(writeEnd.Get(), block.data(), block.size()) > 0) {
    }
    fcntl(writeEnd.Get(), F_SETFL, 0);
}

std::string Pipe::Text() {
    writeEnd = Linux::UniqueFd();
    std::string text(65536, '\0');
    const ssize_t count = read(readEnd.Get(), text.data(), text.size());
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

}  // namespace KITE::Integration
