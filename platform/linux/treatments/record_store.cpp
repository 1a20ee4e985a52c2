#include "treatments/record_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "base/file.h"
#include "base/file_names.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

constexpr size_t kLargestRecord = size_t{16} << 20;
constexpr const char* kUnfinishedName = ".unfinished";

std::string FileNameOf(const TreatmentRecord& record) {
    return record.Key() + ".json";
}

// The folder of the records, which stays the one that was checked whatever its path comes to mean.
class Folder {
  public:
    // Made when it is not there. EPERM when it belongs to another user, EACCES when others may write to it.
    static Result<Folder> Open(const std::string& path) {
        if (mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            return LastError();
        }
        UniqueFd folder(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status {};
        if (!folder || fstat(folder.Get(), &status) != 0) {
            return LastError();
        }
        if (geteuid() != 0 && status.st_uid != geteuid()) {
            return ErrorOf(EPERM);
        }
        const bool isSafe = (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
        return isSafe ? Result(Folder(std::move(folder))) : ErrorOf(EACCES);
    }

    // Neither follows a link: the folder may belong to a user who has fewer rights than this process.
    Result<std::string> Read(const std::string& name) const {
        const UniqueFd file(
            openat(folder_.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        return file ? ReadFile(file.Get(), kLargestRecord) : LastError();
    }
    std::error_code Write(const std::string& name, const std::string& text) const {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
        const UniqueFd file(openat(folder_.Get(), name.c_str(), kFlags, S_IRUSR | S_IWUSR));
        return file ? WriteAll(file.Get(), text) : LastError();
    }
    std::error_code Rename(const std::string& from, const std::string& to) const {
        const int folder = folder_.Get();
        return renameat(folder, from.c_str(), folder, to.c_str()) == 0 ? std::error_code() : LastError();
    }
    std::error_code Remove(const std::string& name) const {
        const bool isGone = unlinkat(folder_.Get(), name.c_str(), 0) == 0 || errno == ENOENT;
        return isGone ? std::error_code() : LastError();
    }
    // Those that begin with a dot are not records: a file that is being written, or one that was set aside.
    std::vector<std::string> ListNames(std::error_code& error) const {
        std::vector<std::string> names;
        std::filesystem::directory_iterator entry("/proc/self/fd/" + std::to_string(folder_.Get()), error);
        for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
            std::string name = entry->path().filename();
            if (!name.starts_with('.')) {
                names.push_back(std::move(name));
            }
        }
        return names;
    }

  private:
    explicit Folder(UniqueFd folder) : folder_(std::move(folder)) {}

    UniqueFd folder_;
};

// EBADMSG for a file that holds no record.
Result<TreatmentRecord> ReadNamedRecord(const Folder& folder, const std::string& name,
                                        const Cgroups& cgroups) {
    const Result<std::string> text = folder.Read(name);
    // Too long, a directory, a link, a socket.
    if (Is(text.Code(), EFBIG) || Is(text.Code(), EISDIR) || Is(text.Code(), ELOOP) ||
        Is(text.Code(), ENXIO)) {
        return Failure(text.Why().Text(), ErrorOf(EBADMSG));
    }
    if (!text) {
        return text.Why();
    }
    Result<TreatmentRecord> record = ReadRecord(*text);
    if (!record) {
        return Failure(record.Why().Text(), ErrorOf(EBADMSG));
    }
    if (FileNameOf(*record) != name) {
        return Failure("the name is that of another process's record", ErrorOf(EBADMSG));
    }
    if (record->bootId == CurrentBootId() && !GroupsArePlausible(*record, cgroups)) {
        return Failure("it names groups that are not mounted here", ErrorOf(ENODEV));
    }
    return record;
}

void TellUnusable(const Folder& folder, const std::string& name, const Failure& why) {
    if (!Is(why.Code(), EBADMSG)) {
        PLATFORM_LOGE(
            "the treatment on record in %{public}s cannot be undone now, the file stays: %{public}s",
            Printable(name).c_str(), why.Text().c_str());
        return;
    }
    const std::error_code error = folder.Rename(name, "." + name + ".bad");
    PLATFORM_LOGE(
        "%{public}s is not the record of a treatment and is set aside: %{public}s%{public}s%{public}s",
        Printable(name).c_str(), Printable(why.Text()).c_str(), error ? "; that fails: " : "",
        error ? error.message().c_str() : "");
}

}  // namespace

RecordStore::RecordStore(const std::string& runDirectory) : path_(runDirectory + FileName::kTreatments) {}

std::error_code RecordStore::Plan(TreatmentRecord& record, TreatmentRecord planned) const {
    const std::error_code error = Write(planned);
    if (error) {
        PLATFORM_LOGE(
            "pid %{public}d (%{public}s) is left alone, since its record cannot be written: %{public}s",
            record.pid, Printable(record.processName).c_str(), error.message().c_str());
        return error;
    }
    record = std::move(planned);
    return {};
}

std::error_code RecordStore::Write(const TreatmentRecord& record) const {
    const Result<Folder> folder = Folder::Open(path_);
    if (!folder) {
        return folder.Code();
    }
    const std::error_code error = folder->Write(kUnfinishedName, WriteRecord(record));
    if (error) {
        static_cast<void>(folder->Remove(kUnfinishedName));
        return error;
    }
    return folder->Rename(kUnfinishedName, FileNameOf(record));
}

std::error_code RecordStore::Remove(const TreatmentRecord& record) const {
    const Result<Folder> folder = Folder::Open(path_);
    return folder ? folder->Remove(FileNameOf(record)) : folder.Code();
}

RecordStore::Left RecordStore::ReadAll(const Cgroups& cgroups) const {
    Left left;
    if (access(path_.c_str(), F_OK) != 0 && errno == ENOENT) {
        return left;
    }
    const Result<Folder> folder = Folder::Open(path_);
    // The hosts of a system may share the run directory, and only one of them treats processes.
    if (Is(folder.Code(), EPERM)) {
        return left;
    }
    std::error_code error = folder.Code();
    for (const std::string& name : error ? std::vector<std::string>() : folder->ListNames(error)) {
        Result<TreatmentRecord> record = ReadNamedRecord(*folder, name, cgroups);
        if (record) {
            left.records.push_back(std::move(*record));
        } else {
            left.areAll = false;
            TellUnusable(*folder, name, record.Why());
        }
    }
    if (error) {
        PLATFORM_LOGE("the records of treatments cannot be read: %{public}s", error.message().c_str());
    }
    left.areAll = left.areAll && !error;
    return left;
}

}  // namespace KITE::Linux
