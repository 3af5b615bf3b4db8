// SPDX-License-Identifier: Apache-2.0
// What becomes of a store when memory runs out in the middle of a change, so this program refuses large
// pieces of it, and then smaller ones too, in the global operator new.
#include "tarn/storage/cached_file_store.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "slate/file.h"
#include "slate/log.h"
#include "slate/provider.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"

namespace {
constexpr std::size_t large_bytes = 50'000;
constexpr std::size_t small_bytes = 20;
constexpr int unlimited = std::numeric_limits<int>::max();

/// How many large pieces of memory this thread still gets.
thread_local int large_pieces = unlimited;
/// Whether this thread, once it was refused a large piece, gets none but the smallest.
thread_local bool stays_without = false;
thread_local bool is_without = false;
} // namespace

// Not inlined: the compiler would take new and free for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (is_without && size > small_bytes)
        throw std::bad_alloc();
    if (size >= large_bytes && large_pieces != unlimited && --large_pieces < 0) {
        is_without = stays_without;
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {
namespace fs = std::filesystem;

using tarn::CachedFileStore;
using tarn::PurgePolicy;

/// Runs an action with so many large pieces of memory.
template <class Action>
void with_large_pieces(int pieces, Action action)
{
    large_pieces = pieces;
    action();
    large_pieces = unlimited;
    is_without = false;
}

/// Notes that a log line with this beginning was written, without any memory for it.
class LineFinder {
public:
    explicit LineFinder(std::string_view beginning)
        : before_(slate::set_log_sinks({slate::make_callback_sink([=, this](const slate::LogRecord& record) {
              found_ += record.level == slate::ErrorLevel && record.text.starts_with(beginning) ? 1 : 0;
          })}))
    {
    }
    ~LineFinder() { slate::set_log_sinks(before_); }
    LineFinder(const LineFinder&) = delete;
    LineFinder& operator=(const LineFinder&) = delete;

    int found() const { return found_; }

private:
    int found_ = 0;
    std::vector<std::shared_ptr<slate::LogSink>> before_;
};

class AStoreWithoutMemory : public testing::Test {
protected:
    ~AStoreWithoutMemory() override { slate::remove_provider(provider_->name()); }

    void break_the_file()
    {
        fs::remove(path_);
        fs::create_directories(path_ / "in the way");
    }

    tarn_test::LogCapture logs_;
    tarn_test::ScratchFolder scratch_;
    const fs::path path_ = scratch_.path() / "file";
    const std::shared_ptr<slate::Provider> provider_ = slate::add_provider("store", "", false);
    CachedFileStore store_{path_, provider_};
    const std::string large_ = std::string(2 * large_bytes, 'x');
};

TEST_F(AStoreWithoutMemory, KeepsTheOldValueAndTheFileIfThereIsNoneForTheNewValue)
{
    store_.write("old");

    with_large_pieces(0, [&] { EXPECT_THROW(store_.write(large_), std::bad_alloc); });

    EXPECT_EQ(store_.read(0), "old");
    EXPECT_EQ(slate::slurp_file<std::string>(path_.string(), std::ios::binary), "old");
    EXPECT_TRUE(logs_.lines().empty());
}

TEST_F(AStoreWithoutMemory, KeepsTheOldValueInMemoryToo)
{
    tarn::MemoryStore store(provider_);
    store.write("old");

    with_large_pieces(0, [&] { EXPECT_THROW(store.write(large_), std::bad_alloc); });

    EXPECT_EQ(store.read(0), "old");
}

TEST_F(AStoreWithoutMemory, StaysEmptyIfThereIsNoneForTheFirstValue)
{
    with_large_pieces(0, [&] { EXPECT_THROW(store_.write(large_), std::bad_alloc); });

    EXPECT_FALSE(store_.exists(0));
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_TRUE(logs_.lines().empty());
}

// In these two, the first piece is for the copy to go back to, and the second, refused, for going back.
TEST_F(AStoreWithoutMemory, LogsThatAWriteCouldNotBeRolledBackAndThrowsWhatFailedFirst)
{
    store_.write(large_);
    break_the_file();

    with_large_pieces(1, [&] { EXPECT_THROW(store_.write("new"), fs::filesystem_error); });

    ASSERT_EQ(logs_.lines().size(), 1U);
    EXPECT_EQ(logs_.lines()[0].level, slate::ErrorLevel);
    EXPECT_EQ(logs_.lines()[0].provider, provider_->name());
    EXPECT_EQ(logs_.lines()[0].text,
              "cached file store; unable to rollback write changes to memory; path: " + path_.string());
}

TEST_F(AStoreWithoutMemory, LogsThatAnEraseCouldNotBeRolledBackAndThrowsWhatFailedFirst)
{
    store_.write(large_);
    break_the_file();

    with_large_pieces(1, [&] { EXPECT_THROW(store_.erase(PurgePolicy::KeepHistory), fs::filesystem_error); });

    ASSERT_EQ(logs_.lines().size(), 1U);
    EXPECT_EQ(logs_.lines()[0].level, slate::ErrorLevel);
    EXPECT_EQ(logs_.lines()[0].provider, provider_->name());
    EXPECT_EQ(logs_.lines()[0].text,
              "cached file store; unable to rollback erase changes to memory; path: " + path_.string());
}

// The path doesn't fit into what memory there is, so the line ends before it.
TEST_F(AStoreWithoutMemory, ThrowsWhatFailedFirstAlsoIfThereIsNoneForTheWholeLogLine)
{
    store_.write(large_);
    break_the_file();
    stays_without = true;
    {
        const LineFinder line("cached file store; unable to rollback write changes to memory; path: ");
        with_large_pieces(1, [&] { EXPECT_THROW(store_.write("new"), fs::filesystem_error); });
        EXPECT_EQ(line.found(), 1);
    }

    store_ = CachedFileStore(scratch_.path() / "other", provider_);
    store_.write(large_);
    fs::remove(scratch_.path() / "other");
    fs::create_directories(scratch_.path() / "other" / "in the way");
    {
        const LineFinder line("cached file store; unable to rollback erase changes to memory; path: ");
        with_large_pieces(
            1, [&] { EXPECT_THROW(store_.erase(PurgePolicy::KeepHistory), fs::filesystem_error); });
        EXPECT_EQ(line.found(), 1);
    }
    stays_without = false;
}

TEST_F(AStoreWithoutMemory, ChangesNothingIfThereIsNoneForACopyToGoBackTo)
{
    store_.write(large_);

    with_large_pieces(0, [&] {
        EXPECT_THROW(store_.write("new"), std::bad_alloc);
        EXPECT_THROW(store_.erase(PurgePolicy::KeepHistory), std::bad_alloc);
    });

    EXPECT_EQ(store_.read(0), large_);
    EXPECT_EQ(fs::file_size(path_), large_.size());
}
} // namespace
