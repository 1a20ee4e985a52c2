#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

// Control groups: where they are mounted, who is in which, and the few operations on them. Any thread.
namespace KITE::Linux {

// The hierarchies that treatments use. A v1 freezer is not among them: a process in one does not die of
// SIGKILL until it is thawed.
enum class Hierarchy { kUnified, kCpuV1 };

struct Group {
    Hierarchy hierarchy = Hierarchy::kUnified;
    std::string path;  // of its directory

    bool operator==(const Group&) const = default;
};

// The mounted hierarchies. Not changed once made.
class Cgroups {
  public:
    static Cgroups OfThisMachine();

    // From the text of /proc/self/mountinfo, and whether systemd owns the groups that are not delegated.
    Cgroups(std::string_view mountinfo, bool managerRuns);

    // The group that a process is in; absent when the hierarchy is not mounted, the process has gone, its
    // group lies outside of what is mounted, or the group's name has bytes that a record could not keep.
    std::optional<Group> GroupOf(pid_t pid, Hierarchy hierarchy) const;
    // Whether the path is well formed and lies below the hierarchy's root.
    bool IsBelowRoot(const Group& group) const;
    // Whether the hierarchy is still where it was found. If not, a group may exist though it cannot be seen.
    bool IsReachable(Hierarchy hierarchy) const;
    // Whether a service manager owns the group, so that no other group may be made in it: systemd runs, and
    // neither the group nor one above it is marked as delegated.
    bool IsOwnedByManager(const Group& group) const;

  private:
    struct Mount {
        Hierarchy hierarchy;
        std::string root;   // the part of the hierarchy that is mounted; empty for all of it
        std::string point;  // where
    };

    const Mount* Find(Hierarchy hierarchy) const;
    std::optional<Group> GroupAt(Hierarchy hierarchy, std::string_view pathInHierarchy) const;

    std::vector<Mount> mounts_;
    bool managerRuns_;
};

Group ParentOf(const Group& group);

// Whether the process is the only one in the group, and nothing is below it.
bool IsAloneIn(const Group& group, pid_t pid);

// The value of one of the group's files, without the newline; absent when it cannot be read.
std::optional<std::string> ReadGroupFile(const Group& group, std::string_view file);
std::error_code WriteGroupFile(const Group& group, std::string_view file, std::string_view value);

std::error_code CreateGroup(const Group& group);
// Removes a group without processes and groups; one that does not exist is a success.
std::error_code RemoveGroup(const Group& group);
// Moves a process with all its threads.
std::error_code MoveProcess(pid_t pid, const Group& group);
// Moves the processes of a group until it is empty, since they may have children meanwhile.
std::error_code MoveAll(const Group& from, const Group& to);

// How long a freeze waits at most; a thread that cannot be interrupted delays it.
inline constexpr std::chrono::milliseconds kFreezerLimit{500};

// Waits until a unified group is frozen. ESRCH when the pidfd's process ends before; ETIMEDOUT.
std::error_code AwaitFrozen(const Group& group, int pidfd);

}  // namespace KITE::Linux
