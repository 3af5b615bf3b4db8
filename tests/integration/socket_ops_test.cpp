// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/socket_ops.h"

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "slate/uri.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"

namespace {
thread_local bool groups_are_unreadable = false;
} // namespace

// In place of the C library's, so that it can fail.
extern "C" int getgrnam_r(const char* name, struct group* entry, char* buffer, size_t size,
                          struct group** result)
{
    if (groups_are_unreadable) {
        *result = nullptr;
        return EIO;
    }
    static const auto real = reinterpret_cast<decltype(&getgrnam_r)>(dlsym(RTLD_NEXT, "getgrnam_r"));
    return real(name, entry, buffer, size, result);
}

namespace {
using namespace tarn;
using namespace tarn_test;
using Uri = std::shared_ptr<const slate::Uri>;

/// A file in the place of a socket: the three functions see no difference.
class ASocketFile : public ::testing::Test {
protected:
    ASocketFile() { std::ofstream(path.string()) << "x"; }

    struct stat status() const
    {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info;
    }

    LogCapture logs;
    ScratchFolder folder;
    std::filesystem::path path = folder.path() / "file.sock";
    Uri ipc = slate::make_uri("ipc://" + path.string());
    Uri file = slate::make_uri("file://" + path.string());
    Uri missing = slate::make_uri("ipc://" + (folder.path() / "missing.sock").string());
};

std::vector<Uri> uris_without_a_file()
{
    return {nullptr, slate::make_uri("tcp://*:5555"), slate::make_uri("inproc://a/b")};
}

TEST_F(ASocketFile, IsOpenedToOwnerAndGroup)
{
    for (const Uri& uri : {ipc, file}) {
        chmod(path.c_str(), 0600);
        EXPECT_TRUE(try_modify_socket_permissions(uri));
        EXPECT_EQ(status().st_mode & 07777, 0775u);
    }
}

TEST_F(ASocketFile, IsHandedToAGroupByName)
{
    const struct group* own = getgrgid(getgid());
    ASSERT_NE(own, nullptr);
    EXPECT_TRUE(try_modify_socket_group(ipc, own->gr_name));
    EXPECT_EQ(status().st_gid, getgid());
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ASocketFile, StaysWithItsGroupIfTheNewOneDoesNotExist)
{
    EXPECT_FALSE(try_modify_socket_group(file, "no such group"));
    EXPECT_TRUE(
        logs.has(slate::WarnLevel, "failed to set group for " + path.string() + "; group does not exist"));
}

TEST_F(ASocketFile, StaysWithItsGroupWithoutAWordIfTheGroupsCannotBeRead)
{
    slate::set_log_level(slate::ExtremeLevel);
    groups_are_unreadable = true;
    EXPECT_FALSE(try_modify_socket_group(ipc, "root"));
    groups_are_unreadable = false;
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ASocketFile, IsRemoved)
{
    slate::set_log_level(slate::DebugLevel);
    EXPECT_TRUE(try_cleanup_socket_file(ipc));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "try to remove " + path.string()));
}

TEST_F(ASocketFile, ThatIsMissingCountsAsRemovedWithoutAWord)
{
    EXPECT_TRUE(try_cleanup_socket_file(missing));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ASocketFile, ThatIsMissingCannotBeChanged)
{
    EXPECT_FALSE(try_modify_socket_permissions(missing));
    const auto lines =
        logs.texts(slate::WarnLevel, "failed to adjust permissions on " + missing->path() + "; ");
    EXPECT_EQ(lines.size(), 1u);

    const struct group* own = getgrgid(getgid());
    EXPECT_FALSE(try_modify_socket_group(missing, own->gr_name));
    EXPECT_TRUE(logs.has(slate::WarnLevel, "failed to set group for " + missing->path() +
                                               "; chown failed with: No such file or directory"));
}

TEST_F(ASocketFile, ThatIsAFullFolderIsNotRemoved)
{
    const Uri uri = slate::make_uri("file://" + folder.path().string());
    EXPECT_FALSE(try_cleanup_socket_file(uri));
    EXPECT_EQ(logs.count(slate::WarnLevel, "failed to remove " + folder.path().string() + "; "), 1u);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(AnEndpointWithoutAFile, IsLeftAloneWithoutAWord)
{
    LogCapture logs;
    slate::set_log_level(slate::ExtremeLevel);
    for (const Uri& uri : uris_without_a_file()) {
        EXPECT_FALSE(try_modify_socket_permissions(uri));
        EXPECT_FALSE(try_modify_socket_group(uri, "root"));
        EXPECT_FALSE(try_cleanup_socket_file(uri));
    }
    EXPECT_TRUE(logs.lines().empty());
}
} // namespace
