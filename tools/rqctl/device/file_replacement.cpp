#include "rqctl/device/file_replacement.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "base/file.h"

namespace KITE::Rqctl {

using Linux::Failure;
using Linux::LastError;
using Linux::Result;
using Linux::UniqueFd;

Result<FileReplacement> FileReplacement::Open(const std::filesystem::path& path) {
    FileReplacement file(path);
    file.directory_ = UniqueFd(open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int directory = file.directory_.Get();
    if (directory < 0 || fstat(directory, &file.attributes_) != 0 || flock(directory, LOCK_EX) != 0) {
        return Failure(path.parent_path(), LastError());
    }
    file.attributes_.st_mode = 0644;
    if (const Result<void> read = file.ReadOld(); !read) {
        return read.Why().In(path);
    }
    return file;
}

Result<void> FileReplacement::ReadOld() {
    const UniqueFd file(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file && errno == ENOENT) {
        return {};
    }
    if (!file && errno == ELOOP) {
        return Failure("is a symbolic link, which is not replaced");
    }
    if (!file || fstat(file.Get(), &attributes_) != 0) {
        return LastError();
    }
    if (!S_ISREG(attributes_.st_mode)) {
        return Failure("is not a regular file");
    }
    Result<std::string> content = Linux::ReadFile(file.Get());
    if (!content) {
        return content.Why();
    }
    content_ = std::move(*content);
    return {};
}

Result<void> FileReplacement::Replace(std::string_view content) {
    const std::string newPath = path_.parent_path() / ("." + path_.filename().string() + ".new");
    // A killed process may have left one; the lock says that it is not being written now.
    unlink(newPath.c_str());
    const UniqueFd file(open(newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    std::error_code error = file ? Linux::WriteAll(file.Get(), content) : LastError();
    // The mode comes last: a change of owner takes bits away.
    if (!error && (fchown(file.Get(), attributes_.st_uid, attributes_.st_gid) != 0 ||
                   fchmod(file.Get(), attributes_.st_mode & 07777) != 0 || fsync(file.Get()) != 0 ||
                   rename(newPath.c_str(), path_.c_str()) != 0 || fsync(directory_.Get()) != 0)) {
        error = LastError();
    }
    if (error) {
        unlink(newPath.c_str());
        return Failure(path_, error);
    }
    return {};
}

}  // namespace KITE::Rqctl
