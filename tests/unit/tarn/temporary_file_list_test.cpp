// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/temporary_file_list.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "slate/file.h"
#include "slate/uri.h"
#include "support/environment.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/internal/session.h"

namespace {
using namespace tarn_internal;
using namespace tarn_test;
namespace fs = std::filesystem;

std::string content(const fs::path& file)
{
    return slate::slurp_file<std::string>(file.string(), std::ios::binary);
}

class ATemporaryFileList : public testing::Test {
protected:
    /// A name such as uploads have, whose file exists.
    fs::path make_temporary() const
    {
        const TemporaryPath temporary(folder.path() / "tmp");
        std::ofstream(temporary.path) << "x";
        return temporary.path;
    }

    /// What a process leaves that is killed: a list that nobody has locked.
    void leave(const std::string& lines) const
    {
        std::ofstream(path) << lines;
        fs::permissions(path, fs::perms(0600));
    }

    LogCapture logs;
    ScratchFolder folder;
    const fs::path path = folder.path() / "list";
    TemporaryFileList list{path};
};

TEST_F(ATemporaryFileList, ExistsWhileThereAreFiles)
{
    list.add("/a");
    EXPECT_EQ(content(path), "/a\n");
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
    list.add("/b");
    list.remove("/a");
    EXPECT_EQ(content(path), "#a\n/b\n");
    list.remove("/never added");
    EXPECT_TRUE(fs::exists(path));

    list.remove("/b");
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(ATemporaryFileList, DoesNotGrowWithTheFilesThatHaveGone)
{
    list.add("/stays");
    for (int i = 1000; i < 2000; ++i) {
        list.add("/" + std::to_string(i));
        list.remove("/" + std::to_string(i));
    }
    list.add("/last");
    EXPECT_EQ(content(path), "/stays\n/last\n");
}

TEST_F(ATemporaryFileList, TakesNoNameThatWouldBeTwoLines)
{
    list.add("/a\n/b");
    list.add("relative");
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(ATemporaryFileList, GoesWithItsServer)
{
    {
        TemporaryFileList other(folder.path() / "other");
        other.add("/a");
    }
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST_F(ATemporaryFileList, OfAnEndedProcessIsSweptAtTheNextStart)
{
    const fs::path first = make_temporary();
    const fs::path second = make_temporary();
    const fs::path gone = folder.path() / ".0123456789abcdef0123456789abcdef";
    const fs::path unlisted = make_temporary();
    leave(first.string() + "\n" + gone.string() + "\n#" + unlisted.string() + "\n" + second.string() + "\n");

    list.sweep();

    EXPECT_EQ(files_below(folder.path()), std::vector{unlisted});
    EXPECT_TRUE(logs.has(slate::InfoLevel, "removed what an ended process left: " + first.string()));
}

TEST_F(ATemporaryFileList, OfAnEndedProcessIsSweptBeforeItIsUsed)
{
    const fs::path left = make_temporary();
    leave(left.string() + "\n/and a long line that a short one must not leave a rest of\n");

    list.add("/a");

    EXPECT_FALSE(fs::exists(left));
    EXPECT_EQ(content(path), "/a\n");
}

TEST_F(ATemporaryFileList, SweepsOnlyWhatAnUploadCanHaveLeft)
{
    const fs::path target = make_temporary();
    const fs::path link = folder.path() / ".aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
    fs::create_symlink(target, link);
    const fs::path subfolder = folder.path() / ".bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb";
    fs::create_directory(subfolder);
    std::string lines = link.string() + "\n" + subfolder.string() + "\n";
    for (const char* name : {"cccccccccccccccccccccccccccccccc", ".ccccccccccccccccccccccccccccccc",
                             ".x-cccccccccccccccccccccccccccccccc", ".cccccccccccccccccccccccccccccc-c"}) {
        std::ofstream(folder.path() / name) << "precious";
        lines += (folder.path() / name).string() + "\n";
    }
    const fs::path of_another = make_temporary();
    if (geteuid() == 0) {
        ASSERT_EQ(chown(of_another.c_str(), 12345, 12345), 0);
        lines += of_another.string() + "\n";
    }
    leave(lines + "relative\n\n/\n" + std::string(1, '\0'));

    list.sweep();

    EXPECT_EQ(files_below(folder.path()).size(), 7u);
    EXPECT_TRUE(fs::exists(subfolder));
}

TEST_F(ATemporaryFileList, ThatIsInUseIsLeftAlone)
{
    TemporaryFileList in_use(path);
    const fs::path file = make_temporary();
    in_use.add(file);

    list.sweep();
    list.add("/a");
    list.remove("/a");

    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(content(path), file.string() + "\n");
}

TEST_F(ATemporaryFileList, ThatCouldBeSomebodyElsesIsNotUsed)
{
    const fs::path left = make_temporary();
    const fs::path elsewhere = folder.path() / "elsewhere";
    const auto expect_unused = [&] {
        const auto before = content(path);
        list.sweep();
        list.add("/a");
        list.remove("/a");
        EXPECT_EQ(content(path), before);
        EXPECT_TRUE(fs::exists(left));
        fs::remove(path);
        fs::remove(elsewhere);
    };

    leave(left.string() + "\n");
    fs::permissions(path, fs::perms(0620));
    expect_unused();

    leave(left.string() + "\n");
    fs::create_hard_link(path, elsewhere);
    expect_unused();

    leave(left.string() + "\n");
    fs::rename(path, elsewhere);
    fs::create_symlink(elsewhere, path);
    expect_unused();

    if (geteuid() == 0) {
        leave(left.string() + "\n");
        ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
        expect_unused();
    }

    fs::create_directory(path);
    list.sweep();
    list.add("/a");
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    list.sweep();
    list.add("/a");
    EXPECT_TRUE(fs::exists(left));
}

TEST_F(ATemporaryFileList, IsNamedByUserAndFirstEndpoint)
{
    const auto uri = slate::make_uri("ipc:///run/x.sock");
    const auto other = slate::make_uri("tcp://*:5555");
    const auto of_uri = TemporaryFileList::for_endpoints({uri, other});
    ASSERT_TRUE(of_uri);
    EXPECT_EQ(of_uri->path(), TemporaryFileList::for_endpoints({uri})->path());
    EXPECT_NE(of_uri->path(), TemporaryFileList::for_endpoints({other, uri})->path());
    EXPECT_TRUE(of_uri->path().filename().string().starts_with(".tarn-" + std::to_string(geteuid()) + "-"));
}

TEST_F(ATemporaryFileList, IsNotKeptWithoutAnEndpointThatOutlivesTheProcess)
{
    EXPECT_EQ(TemporaryFileList::for_endpoints({}), nullptr);
    EXPECT_EQ(TemporaryFileList::for_endpoints({nullptr}), nullptr);
    EXPECT_EQ(TemporaryFileList::for_endpoints({slate::make_uri("inproc://a")}), nullptr);
}
} // namespace
