#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fake_platform.h"

namespace KITE::ResourceQuotaCtl {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// What was recorded while loading, before any test ran.
inline const std::vector<std::string>& LoadTimeCalls() {
    static const std::vector<std::string> calls = Fake::Platform::Get().Calls();
    return calls;
}

// Gives this process its own view of the mounts. Where the root is no mount point (a chroot), what is mounted
// may be seen outside too, until the test takes it away.
inline bool UnshareMounts() {
    return unshare(CLONE_NEWNS) == 0 &&
           (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 || errno == EINVAL);
}

// A clean platform, and a folder of configuration layers that are merged in the order of their creation.
class ServiceTest : public ::testing::Test {
  protected:
    ServiceTest() {
        LoadTimeCalls();
        platform.Reset();
    }
    ~ServiceTest() override { std::filesystem::remove_all(folder_); }

    // Writes a quota file and adds its layer to the configuration directories.
    std::string AddLayer(const std::string& content) {
        const auto layer = folder_ / std::to_string(layers_++);
        std::filesystem::create_directories(layer / "etc/efficiency_manager");
        const auto file = layer / "etc/efficiency_manager/process_resource_limit.json";
        std::ofstream(file) << content;
        if (!platform.configDirectories) {
            platform.configDirectories.emplace();
        }
        platform.configDirectories->push_back(layer);
        return file;
    }

    // A quota file's text with the given elements of "quotas", apostrophes standing for quotation marks.
    static std::string Quotas(const std::string& entries) { return Json("{'quotas':[" + entries + "]}"); }
    static std::string Json(std::string text) {
        std::ranges::replace(text, '\'', '"');
        return text;
    }
    static std::string Entry(const std::string& name, const std::string& parent, const std::string& quotas) {
        return "{'process_name':'" + name + "','inherit':'" + parent + "','process_quotas':{" + quotas + "}}";
    }
    // One resource's list with one rule of the given id.
    static std::string Rule(const std::string& resource, int id) {
        return "'" + resource + "':[{'condition':[],'id':" + std::to_string(id) +
               ",'resource_quota':100,'duration':60,'action':'kill'}]";
    }

    Fake::Platform& platform = Fake::Platform::Get();

  private:
    static std::filesystem::path MakeFolder() {
        std::string name = std::filesystem::temp_directory_path() / "quota_test_XXXXXX";
        return mkdtemp(name.data());
    }

    const std::filesystem::path folder_ = MakeFolder();
    int layers_ = 0;
};

}  // namespace KITE::ResourceQuotaCtl
