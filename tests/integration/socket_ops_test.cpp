// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/socket_ops.h"

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

/// Binds a socket, whose file stays.
void make_socket(const std::filesystem::path& path)
{
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(socket);
}

class ASocketFile : public ::testing::Test {
protected:
    ASocketFile() { make_socket(path); }

    struct stat status() const
    {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info;
    }

    static gid_t group_of(const std::filesystem::path& path)
    {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info.st_gid;
    }

    /// A group that this process may give its files, and another than its own if it is root.
    static gid_t other_group() { return geteuid() == 0 ? 1 : getgid(); }

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

TEST_F(ASocketFile, ThatIsALinkLeadsTheChangeNowhere)
{
    const auto precious = folder.path() / "precious";
    std::ofstream(precious.string()) << "x";
    ASSERT_EQ(chmod(precious.c_str(), 0600), 0);
    const auto before = group_of(precious);
    std::filesystem::remove(path);
    std::filesystem::create_symlink(precious, path);

    for (const Uri& uri : {ipc, file}) {
        EXPECT_FALSE(try_modify_socket_permissions(uri));
        EXPECT_FALSE(try_modify_socket_group(uri, getgrgid(other_group())->gr_name));
    }

    EXPECT_EQ(std::filesystem::status(precious).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(group_of(precious), before);
    EXPECT_EQ(logs.count(slate::WarnLevel, "failed to adjust permissions on " + path.string() + "; "), 2u);
    EXPECT_EQ(logs.count(slate::WarnLevel, "failed to set group for " + path.string() +
                                               "; chown failed with: Too many levels of symbolic links"),
              2u);
}

TEST_F(ASocketFile, ThatIsAnotherFileWithASecondNameIsNotChanged)
{
    std::filesystem::remove(path);
    std::ofstream(path.string()) << "x";
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);

    std::filesystem::create_hard_link(path, folder.path() / "other name");
    for (const auto& uri : {ipc, file}) {
        EXPECT_FALSE(try_modify_socket_permissions(uri));
        EXPECT_FALSE(try_modify_socket_group(uri, getgrgid(other_group())->gr_name));
        EXPECT_EQ(status().st_mode & 07777, 0600u);
    }
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
