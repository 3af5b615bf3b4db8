// SPDX-License-Identifier: Apache-2.0
#include "tarn/storage/cached_file_store.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>

#include <gtest/gtest.h>

#include "slate/file.h"
#include "slate/provider.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/exception.h"
#include "unit/tarn/thrown.h"

namespace {
namespace fs = std::filesystem;

using tarn::CachedFileStore;
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

/// The reason of the filesystem_error that an action throws, with nothing logged.
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

class ACachedFileStore : public testing::Test {
protected:
    ~ACachedFileStore() override { slate::remove_provider(provider_->name()); }

    CachedFileStore make() { return CachedFileStore(path_, provider_); }

    /// From now on the file can neither be written nor removed, whoever tries.
    void break_the_file()
    {
        fs::remove(path_);
        fs::create_directories(path_ / "in the way");
    }

    tarn_test::ScratchFolder scratch_;
    const fs::path path_ = scratch_.path() / "file";
    const std::shared_ptr<slate::Provider> provider_ = slate::add_provider("store", "", false);
};

TEST_F(ACachedFileStore, RefusesWhatAFileStoreDoes)
{
    const std::string folder = scratch_.path().string();

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { CachedFileStore("", provider_); }),
              "file store; invalid path: ");
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { CachedFileStore(folder, provider_); }),
              "file store; invalid path: " + folder);
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { CachedFileStore(path_, nullptr); }),
              "file store; null provider, path: " + path_.string());
}

TEST_F(ACachedFileStore, IsEmptyOverAMissingFileAndMakesNone)
{
    const auto store = make();

    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(ACachedFileStore, WritesThroughToTheFileExactlyTheBytes)
{
    auto store = make();

    for (const std::string& value : {std::string("a"), std::string(), std::string("\r\n\0", 3)}) {
        store.write(value);
        EXPECT_EQ(content(path_), value);
        EXPECT_TRUE(store.exists(0));
        EXPECT_EQ(store.read(0), value);
    }
}

TEST_F(ACachedFileStore, HasWhatTheFileHeldFromTheStart)
{
    for (const std::string& value : {std::string("old\r\n"), std::string()}) {
        put(path_, value);
        const auto store = make();
        EXPECT_TRUE(store.exists(0));
        EXPECT_EQ(store.read(0), value);
    }
}

TEST_F(ACachedFileStore, WhoseFileCannotBeReadIsNotMade)
{
    fs::create_symlink("file", path_);

    EXPECT_EQ(refusal([&] { make(); }), std::errc::too_many_symbolic_link_levels);
}

TEST_F(ACachedFileStore, WritesAndErasesAtOnceOverAFileThatWasThere)
{
    put(path_, "old");
    auto written = make();
    written.write("new");
    EXPECT_EQ(written.read(0), "new");
    EXPECT_EQ(written.read(0), "new");

    auto erased = make();
    erased.erase(PurgePolicy::KeepHistory);
    EXPECT_FALSE(erased.exists(0));
    EXPECT_EQ(erased.read(0), std::nullopt);
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(ACachedFileStore, ReadsTheFileOnlyOnce)
{
    put(path_, "old");
    const auto store = make();

    put(path_, "theirs");
    EXPECT_EQ(store.read(0), "old");

    fs::remove(path_);
    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(store.read(0), "old");

    const auto empty = make();
    put(path_, "theirs");
    EXPECT_FALSE(empty.exists(0));
    EXPECT_EQ(empty.read(0), std::nullopt);
}

TEST_F(ACachedFileStore, KeepsTheOldValueIfTheFileCannotBeWritten)
{
    put(path_, "old");
    auto fresh = make(); // not read yet
    auto read = make();
    EXPECT_EQ(read.read(0), "old");
    break_the_file();

    for (auto* store : {&fresh, &read}) {
        EXPECT_EQ(refusal([&] { store->write("new"); }), std::errc::is_a_directory);
        EXPECT_TRUE(store->exists(0));
        EXPECT_EQ(store->read(0), "old");
    }
}

TEST_F(ACachedFileStore, StaysEmptyIfTheFileCannotBeWritten)
{
    auto store = make();
    break_the_file();

    EXPECT_EQ(refusal([&] { store.write("new"); }), std::errc::is_a_directory);

    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
}

TEST_F(ACachedFileStore, ErasesMemoryAndFile)
{
    auto store = make();
    store.write("a");

    store.erase(PurgePolicy::PurgeHistory);

    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(ACachedFileStore, ErasesMemoryIfTheFileIsGone)
{
    auto store = make();
    store.write("a");
    fs::remove(path_);

    EXPECT_FALSE(refusal([&] { store.erase(PurgePolicy::KeepHistory); }));

    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
}

TEST_F(ACachedFileStore, KeepsTheOldValueIfTheFileCannotBeErased)
{
    put(path_, "old");
    auto store = make();
    break_the_file();

    EXPECT_EQ(refusal([&] { store.erase(PurgePolicy::KeepHistory); }), std::errc::directory_not_empty);

    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(store.read(0), "old");
}

TEST_F(ACachedFileStore, StaysEmptyIfTheFileCannotBeErased)
{
    auto store = make();
    break_the_file();

    EXPECT_EQ(refusal([&] { store.erase(PurgePolicy::KeepHistory); }), std::errc::directory_not_empty);

    EXPECT_FALSE(store.exists(0));
}

TEST_F(ACachedFileStore, HasOneRevisionUnderAnyNumber)
{
    auto store = make();
    EXPECT_EQ(store.exists(5), store.exists(0));
    store.write("a");

    for (const long revision : {-1L, 0L, 5L}) {
        EXPECT_TRUE(store.exists(revision));
        EXPECT_EQ(store.read(revision), "a");
    }
}

TEST_F(ACachedFileStore, IsNotAPolymorphicType)
{
    EXPECT_FALSE(std::is_polymorphic_v<CachedFileStore>);
}
} // namespace
