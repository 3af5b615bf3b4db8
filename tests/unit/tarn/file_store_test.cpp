// SPDX-License-Identifier: Apache-2.0
#include "tarn/storage/file_store.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "slate/file.h"
#include "slate/provider.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/exception.h"
#include "unit/tarn/thrown.h"

namespace {
namespace fs = std::filesystem;

using tarn::FileStore;
using tarn::PurgePolicy;
using tarn_test::LogCapture;
using tarn_test::logged_and_thrown;

std::string content(const fs::path& path)
{
    return slate::slurp_file<std::string>(path.string(), std::ios::binary);
}

void put(const fs::path& path, std::string_view text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> files(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

/// While it exists, notes the folders that are synced.
struct SyncedFolders {
    SyncedFolders() { active = this; }
    ~SyncedFolders() { active = nullptr; }
    SyncedFolders(const SyncedFolders&) = delete;
    SyncedFolders& operator=(const SyncedFolders&) = delete;

    static SyncedFolders* active;

    std::vector<std::string> names;
};
SyncedFolders* SyncedFolders::active = nullptr;

/// The reason of the filesystem_error that an action throws, with nothing logged; none if it throws none.
template <class Action>
std::error_code refusal(Action action)
{
    const LogCapture logs;
    std::error_code code;
    try {
        action();
    }
    catch (const fs::filesystem_error& error) {
        code = error.code();
    }
    EXPECT_TRUE(logs.lines().empty());
    return code;
}

} // namespace

// In place of the C library's.
extern "C" int fsync(int file)
{
    if (const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(file));
        SyncedFolders::active && fs::is_directory(path))
        SyncedFolders::active->names.push_back(path.string());
    return static_cast<int>(syscall(SYS_fsync, file));
}

namespace {
class AFileStore : public testing::Test {
protected:
    ~AFileStore() override { slate::remove_provider(provider_->name()); }

    FileStore make() { return FileStore(path_, provider_); }

    tarn_test::ScratchFolder scratch_;
    const fs::path path_ = scratch_.path() / "file";
    const std::shared_ptr<slate::Provider> provider_ = slate::add_provider("store", "", false);
};

TEST_F(AFileStore, RefusesAnEmptyPath)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { FileStore("", provider_); }),
              "file store; invalid path: ");
}

TEST_F(AFileStore, RefusesThePathOfADirectory)
{
    const std::string folder = scratch_.path().string();
    fs::create_directory_symlink(folder, path_);

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { FileStore(folder, provider_); }),
              "file store; invalid path: " + folder);
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { make(); }),
              "file store; invalid path: " + path_.string());
}

TEST_F(AFileStore, LogsARefusalAsItsOwners)
{
    const LogCapture logs;

    EXPECT_THROW(FileStore("", provider_), tarn::Exception);

    ASSERT_EQ(logs.lines().size(), 1U);
    EXPECT_EQ(logs.lines()[0].provider, provider_->name());
}

TEST_F(AFileStore, RefusesNoProvider)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { FileStore(path_, nullptr); }),
              "file store; null provider, path: " + path_.string());
    // The path is looked at first.
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { FileStore("", nullptr); }),
              "file store; invalid path: ");
}

TEST_F(AFileStore, RefusesAPathThatCannotBeLookedAt)
{
    fs::create_symlink("file", path_);

    EXPECT_EQ(refusal([&] { make(); }), std::errc::too_many_symbolic_link_levels);
}

TEST_F(AFileStore, KeepsItsProvider)
{
    const auto before = provider_.use_count();
    {
        const FileStore store = make();
        EXPECT_EQ(provider_.use_count(), before + 1);
    }
    EXPECT_EQ(provider_.use_count(), before);
}

TEST_F(AFileStore, IsEmptyWithoutAFileAndMakesNone)
{
    const FileStore store = make();

    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
    EXPECT_TRUE(files(scratch_.path()).empty());
}

TEST_F(AFileStore, WritesExactlyTheBytesAndReadsThem)
{
    FileStore store = make();

    for (const std::string& value :
         {std::string("a"), std::string(), std::string("\r\n\0\x1a\xff", 5), std::string(300'000, 'x')}) {
        store.write(value);
        EXPECT_EQ(content(path_), value);
        EXPECT_TRUE(store.exists(0));
        EXPECT_EQ(store.read(0), value);
    }
    EXPECT_EQ(files(scratch_.path()), std::vector<std::string>{"file"});
}

TEST_F(AFileStore, ReadsWhatOthersWrite)
{
    const FileStore store = make();

    put(path_, "theirs");
    EXPECT_EQ(store.read(0), "theirs");

    put(path_, "");
    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(store.read(0), "");

    fs::remove(path_);
    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
}

TEST_F(AFileStore, MakesItsFolderWhenItWrites)
{
    FileStore store(scratch_.path() / "x/y/z", provider_);
    EXPECT_FALSE(store.exists(0));
    EXPECT_FALSE(fs::exists(scratch_.path() / "x"));

    store.write("a");

    EXPECT_EQ(content(scratch_.path() / "x/y/z"), "a");
    EXPECT_EQ(files(scratch_.path() / "x/y"), std::vector<std::string>{"z"});
}

TEST_F(AFileStore, NeedsAFolderInItsPathToBeWritten)
{
    const auto before = fs::current_path();
    fs::current_path(scratch_.path());
    FileStore bare("file", provider_);
    FileStore here("./file", provider_);

    EXPECT_TRUE(refusal([&] { bare.write("a"); }));
    EXPECT_FALSE(bare.exists(0));
    here.write("b");
    EXPECT_EQ(bare.read(0), "b");
    bare.erase(PurgePolicy::KeepHistory);
    EXPECT_FALSE(here.exists(0));

    fs::current_path(before);
}

TEST_F(AFileStore, PassesOnThatItsFolderCannotBeMade)
{
    FileStore store(path_ / "below/file", provider_);
    put(path_, "in the way");

    EXPECT_EQ(refusal([&] { store.write("a"); }), std::errc::not_a_directory);
    EXPECT_EQ(content(path_), "in the way");
}

TEST_F(AFileStore, PassesOnThatItsFileCannotBeWritten)
{
    FileStore store = make();
    fs::create_directory(path_);

    EXPECT_EQ(refusal([&] { store.write("a"); }), std::errc::is_a_directory);
    EXPECT_TRUE(files(path_).empty());
}

TEST_F(AFileStore, TakesADirectoryThatWasMadeSinceForAValueThatItCannotRead)
{
    const FileStore store = make();
    fs::create_directory(path_);

    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(refusal([&] { store.read(0); }), std::errc::is_a_directory);
}

TEST_F(AFileStore, PassesOnThatItsPathCannotBeLookedAt)
{
    FileStore store = make();
    fs::create_symlink("file", path_);

    EXPECT_EQ(refusal([&] { store.exists(0); }), std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(refusal([&] { store.read(0); }), std::errc::too_many_symbolic_link_levels);
}

TEST_F(AFileStore, LeavesTheOldFileIfTheNewOneFails)
{
    FileStore store = make();
    store.write("old");
    for (const char* name : {".file.tmp", ".file.1.tmp", ".file.2.tmp", ".file.3.tmp"})
        fs::create_directories(scratch_.path() / name / "in the way"); // where the new one is written

    EXPECT_TRUE(refusal([&] { store.write("new"); }));

    EXPECT_EQ(store.read(0), "old");
}

TEST_F(AFileStore, ErasesItsFile)
{
    FileStore store = make();
    store.write("a");

    store.erase(PurgePolicy::PurgeHistory);

    EXPECT_FALSE(fs::exists(path_));
    EXPECT_FALSE(store.exists(0));
    EXPECT_FALSE(refusal([&] { store.erase(PurgePolicy::KeepHistory); }));
}

TEST_F(AFileStore, ErasesWhatAKilledWriterLeftToo)
{
    FileStore store = make();
    store.write("secret");
    put(scratch_.path() / ".file.tmp", "the next sec");

    store.erase(PurgePolicy::KeepHistory);
    EXPECT_TRUE(files(scratch_.path()).empty());

    // Also if it never came to a file.
    put(scratch_.path() / ".file.tmp", "sec");
    store.erase(PurgePolicy::KeepHistory);
    EXPECT_TRUE(files(scratch_.path()).empty());
}

TEST_F(AFileStore, ErasesItsFileWhateverStandsBesideIt)
{
    FileStore store = make();
    store.write("a");
    fs::create_directories(scratch_.path() / ".file.tmp" / "in the way");

    EXPECT_FALSE(refusal([&] { store.erase(PurgePolicy::KeepHistory); }));

    EXPECT_EQ(files(scratch_.path()), std::vector<std::string>{".file.tmp"});
}

TEST_F(AFileStore, ErasesAsDurablyAsItWrites)
{
    FileStore store = make();
    const SyncedFolders synced;
    store.write("a");
    EXPECT_EQ(synced.names, std::vector<std::string>{scratch_.path().string()});

    store.erase(PurgePolicy::KeepHistory);

    EXPECT_EQ(synced.names, std::vector<std::string>(2, scratch_.path().string()));
}

TEST_F(AFileStore, BringsTheFoldersThatItMakesToTheDisk)
{
    FileStore store(scratch_.path() / "x/y/z", provider_);

    const SyncedFolders synced;
    store.write("a");

    const std::string top = scratch_.path().string();
    EXPECT_EQ(synced.names, (std::vector<std::string>{top, top + "/x", top + "/x/y"}));
}

TEST_F(AFileStore, ReadsAndWritesNothingBehindALinkThatSomebodyElsePlanted)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may make files of another user";
    const auto folder = scratch_.path() / "open";
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms::all);
    put(scratch_.path() / "precious", "precious");
    FileStore store(folder / "value", provider_);
    fs::create_symlink("../precious", folder / "value");
    ASSERT_EQ(lchown((folder / "value").c_str(), 12345, 12345), 0);

    EXPECT_EQ(refusal([&] { store.read(0); }), std::errc::permission_denied);
    EXPECT_EQ(refusal([&] { store.write("new"); }), std::errc::permission_denied);

    EXPECT_EQ(content(scratch_.path() / "precious"), "precious");
    store.erase(PurgePolicy::KeepHistory); // the link itself
    store.write("new");
    EXPECT_EQ(content(folder / "value"), "new");
}

TEST_F(AFileStore, PassesOnThatItsFileCannotBeErased)
{
    FileStore store = make();
    fs::create_directories(path_ / "in use");

    EXPECT_EQ(refusal([&] { store.erase(PurgePolicy::KeepHistory); }), std::errc::directory_not_empty);
}

TEST_F(AFileStore, HasOneRevisionUnderAnyNumber)
{
    FileStore store = make();
    EXPECT_EQ(store.exists(5), store.exists(0));
    store.write("a");

    for (const long revision : {-1L, 0L, 5L}) {
        EXPECT_TRUE(store.exists(revision));
        EXPECT_EQ(store.read(revision), "a");
    }
}

TEST_F(AFileStore, IsNotAPolymorphicType)
{
    EXPECT_FALSE(std::is_polymorphic_v<FileStore>);
}
} // namespace
