#include "treatments/record_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "base/file.h"
#include "base/file_names.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

constexpr off_t kLargestRecord = off_t{16} << 20;
constexpr const char* kUnfinishedName = ".unfinished";

std::string FileNameOf(const TreatmentRecord& record) {
    return record.Key() + ".json";
}

// The folder, made when it is not there. EACCES when it belongs to another user or others may write to it.
Result<UniqueFd> OpenFolder(const std::string& path) {
    if (mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return LastError();
    }
    UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!folder || fstat(folder.Get(), &status) != 0) {
        return LastError();
    }
    const bool isOurs = geteuid() == 0 || status.st_uid == geteuid();
    if (!isOurs || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return ErrorOf(EACCES);
    }
    return folder;
}

// The hosts of a system may share the run directory, and only one of them treats processes.
bool IsOfAnotherUser(const std::string& path) {
    struct stat status {};
    return geteuid() != 0 && lstat(path.c_str(), &status) == 0 && status.st_uid != geteuid();
}

std::error_code WriteRecordFile(int folder, const char* name, const TreatmentRecord& record) {
    const UniqueFd file(
        openat(folder, name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return file ? WriteAll(file.Get(), WriteRecord(record)) : LastError();
}

std::error_code Rename(int folder, const char* from, const std::string& to) {
    return renameat(folder, from, folder, to.c_str()) == 0 ? std::error_code() : LastError();
}

// EBADMSG for a file that cannot hold a record.
Result<std::string> ReadRecordFile(int folder, const char* name) {
    const UniqueFd file(openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        const bool isOfOtherKind = errno == ELOOP || errno == ENXIO;
        return isOfOtherKind ? ErrorOf(EBADMSG) : LastError();
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kLargestRecord) {
        return ErrorOf(EBADMSG);
    }
    return ReadFile(file.Get());
}

// Those that begin with a dot are not records: a file that is being written, or one that was set aside.
std::vector<std::string> ListNames(const std::string& path, std::error_code& error) {
    std::vector<std::string> names;
    std::filesystem::directory_iterator entry(path, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::string name = entry->path().filename();
        if (!name.starts_with('.')) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

// EBADMSG for what is no record at all.
Result<TreatmentRecord> ReadNamedRecord(int folder, const std::string& name, const Cgroups& cgroups) {
    const Result<std::string> text = ReadRecordFile(folder, name.c_str());
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

void SetAside(int folder, const std::string& name, const Failure& why) {
    const std::error_code error = Rename(folder, name.c_str(), "." + name + ".bad");
    PLATFORM_LOGE(
        "%{public}s is not the record of a treatment and is set aside: %{public}s%{public}s%{public}s",
        Printable(name).c_str(), Printable(why.Text()).c_str(), error ? "; that fails: " : "",
        error ? error.message().c_str() : "");
}

}  // namespace

std::string RecordStore::Folder() const {
    return runDirectory_ + FileName::kTreatments;
}

std::error_code RecordStore::Write(const TreatmentRecord& record) const {
    const Result<UniqueFd> folder = OpenFolder(Folder());
    if (!folder) {
        return folder.Code();
    }
    const std::error_code error = WriteRecordFile(folder->Get(), kUnfinishedName, record);
    if (error) {
        unlinkat(folder->Get(), kUnfinishedName, 0);
        return error;
    }
    return Rename(folder->Get(), kUnfinishedName, FileNameOf(record));
}

std::error_code RecordStore::Remove(const TreatmentRecord& record) const {
    const Result<UniqueFd> folder = OpenFolder(Folder());
    if (!folder) {
        return folder.Code();
    }
    const bool isGone = unlinkat(folder->Get(), FileNameOf(record).c_str(), 0) == 0 || errno == ENOENT;
    return isGone ? std::error_code() : LastError();
}

RecordStore::Left RecordStore::ReadAll(const Cgroups& cgroups) const {
    if ((access(Folder().c_str(), F_OK) != 0 && errno == ENOENT) || IsOfAnotherUser(Folder())) {
        return {};
    }
    Left left;
    const Result<UniqueFd> folder = OpenFolder(Folder());
    std::error_code error = folder.Code();
    for (const std::string& name : error ? std::vector<std::string>() : ListNames(Folder(), error)) {
        Result<TreatmentRecord> record = ReadNamedRecord(folder->Get(), name, cgroups);
        if (record) {
            left.records.push_back(std::move(*record));
            continue;
        }
        left.areAll = false;
        if (Is(record.Code(), EBADMSG)) {
            SetAside(folder->Get(), name, record.Why());
        } else {
            PLATFORM_LOGE(
                "the treatment on record in %{public}s cannot be undone now, the file stays: %{public}s",
                Printable(name).c_str(), record.Why().Text().c_str());
        }
    }
    if (error) {
        PLATFORM_LOGE("the records of treatments cannot be read: %{public}s", error.message().c_str());
    }
    left.areAll = left.areAll && !error;
    return left;
}

}  // namespace KITE::Linux
