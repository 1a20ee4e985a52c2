#include "runtime/journal_stand_in.h"

#include <sched.h>
#include <sys/mount.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace KITE::Benchmarks {

namespace {

constexpr const char* kDirectory = "/run/systemd/journal";
constexpr const char* kPath = "/run/systemd/journal/socket";

void Require(bool isDone, const char* what) {
    if (!isDone) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

// A network namespace too: how many datagrams may wait is a limit of it.
void EnterNamespaces() {
    Require(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "namespaces of our own");
    Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mounts of our own");
    std::ofstream limit("/proc/sys/net/unix/max_dgram_qlen");
    limit << JournalStandIn::kCapacity << std::flush;
    Require(limit.good(), "the limit of waiting datagrams");
}

}  // namespace

JournalStandIn::JournalStandIn() {
    EnterNamespaces();
    Require(mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == 0, "a directory for the socket");
    std::filesystem::create_directories(kDirectory);
    receiver_ = Linux::UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    address_.sun_family = AF_UNIX;
    std::strncpy(address_.sun_path, kPath, sizeof(address_.sun_path) - 1);
    const auto* address = reinterpret_cast<const sockaddr*>(&address_);
    Require(bind(receiver_.Get(), address, sizeof(address_)) == 0, kPath);
    std::filesystem::permissions(kPath, std::filesystem::perms::all);
}

int JournalStandIn::Drain() {
    int lines = 0;
    std::array<char, 1> beginning;
    while (recv(receiver_.Get(), beginning.data(), beginning.size(), MSG_DONTWAIT) >= 0) {
        ++lines;
    }
    return lines;
}

Linux::UniqueFd JournalStandIn::Connect() const {
    Linux::UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    Require(connect(sender.Get(), reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) == 0,
            kPath);
    return sender;
}

}  // namespace KITE::Benchmarks
