// SPDX-License-Identifier: Apache-2.0
// A process that writes a store over and over is killed at any moment, again and again. It must leave the old
// content or the new, and nothing behind that grows in number. A program of its own, since it forks and must
// have no threads.
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <system_error>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "slate/log.h"
#include "slate/provider.h"
#include "support/scratch_folder.h"
#include "support/wait_until.h"
#include "tarn/storage/cached_file_store.h"
#include "tarn/storage/file_store.h"

namespace {
namespace fs = std::filesystem;

constexpr int kills = 300;
constexpr unsigned int most_writes = 5; // of one writer, before it is killed

// Long enough that a kill often comes in the middle; of different lengths and letters, so that no mix of the
// two looks like one of them.
const std::string first(100'000, 'a');
const std::string second(130'001, 'b');

/// Writes the two in turn until it is killed, and says by a byte each time that it is about to.
template <class Store>
[[noreturn]] void write_for_ever(const fs::path& path, const std::shared_ptr<slate::Provider>& provider,
                                 int ready)
{
    slate::set_log_sinks({});
    (void)signal(SIGPIPE, SIG_IGN);
    try {
        Store store(path, provider);
        for (const std::string* next = &second; true; next = next == &second ? &first : &second) {
            (void)!write(ready, "x", 1);
            store.write(*next);
        }
    }
    catch (...) {
        _exit(1);
    }
}

class AStoreWhoseProcessIsKilled : public testing::Test {
protected:
    ~AStoreWhoseProcessIsKilled() override { slate::remove_provider(provider_->name()); }

    /// A process that has begun to write for the `writes`th time.
    template <class Store>
    pid_t start_writer(unsigned int writes)
    {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(ready[0]);
            write_for_ever<Store>(path_, provider_, ready[1]);
        }
        close(ready[1]);
        char byte = 0;
        for (unsigned int i = 0; i < writes; ++i)
            EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        return child;
    }

    /// Waits until so much of the next content is written, if that is seen.
    void wait_until_written(std::uintmax_t bytes) const
    {
        (void)tarn_test::wait_until(
            [&] {
                std::error_code gone;
                const auto size = fs::file_size(temporary_, gone);
                return !gone && size >= bytes;
            },
            std::chrono::milliseconds(100));
    }

    static void kill_and_wait(pid_t child)
    {
        EXPECT_EQ(kill(child, SIGKILL), 0);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the writer failed";
    }

    std::set<std::string> files() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(path_.parent_path()))
            names.insert(entry.path().filename().string());
        return names;
    }

    template <class Store>
    void kill_many_writers()
    {
        std::mt19937 random(4711);
        Store(path_, provider_).write(first);
        int in_the_middle = 0;
        int found_first = 0;

        for (int i = 0; i < kills; ++i) {
            const pid_t child = start_writer<Store>(static_cast<unsigned int>(1 + random() % most_writes));
            const auto bytes = random() % (second.size() + 1);
            if (i % 3 != 0) // the others are killed as it comes
                wait_until_written(bytes);
            kill_and_wait(child);

            const auto found = Store(path_, provider_).read(0);
            ASSERT_TRUE(found.has_value());
            ASSERT_TRUE(found == first || found == second) << found->size() << " bytes";
            found_first += found == first ? 1 : 0;

            const auto left = files();
            ASSERT_TRUE(left.contains("file"));
            const bool has_temporary = left.contains(".file.tmp");
            in_the_middle += has_temporary ? 1 : 0;
            ASSERT_EQ(left.size(), has_temporary ? 2U : 1U);
        }

        // It was tried, with both contents.
        EXPECT_GT(in_the_middle, kills / 20);
        EXPECT_GT(found_first, 0);
        EXPECT_LT(found_first, kills);
        // And the next write takes away what is left.
        Store(path_, provider_).write("done");
        EXPECT_EQ(files(), std::set<std::string>{"file"});
        EXPECT_EQ(Store(path_, provider_).read(0), "done");
    }

    /// Kills writers in their very first write, for which the folder has to be made.
    template <class Store>
    void kill_many_first_writers()
    {
        std::mt19937 random(4712);
        int found_nothing = 0;
        int in_the_middle = 0;

        for (int i = 0; i < kills; ++i) {
            fs::remove_all(path_.parent_path());
            const pid_t child = start_writer<Store>(1);
            const auto bytes = random() % (second.size() + 1);
            if (i % 3 != 0) // the others are killed as it comes
                wait_until_written(bytes);
            kill_and_wait(child);

            // Fast ones may have gone on to the next write.
            const auto found = Store(path_, provider_).read(0);
            ASSERT_TRUE(!found || *found == second || *found == first) << found->size() << " bytes";
            found_nothing += found ? 0 : 1;
            in_the_middle += fs::exists(temporary_) ? 1 : 0;

            Store(path_, provider_).write("done");
            EXPECT_EQ(files(), std::set<std::string>{"file"});
            EXPECT_EQ(Store(path_, provider_).read(0), "done");
        }

        // It was tried.
        EXPECT_GT(found_nothing, 0);
        EXPECT_GT(in_the_middle, kills / 20);
    }

    tarn_test::ScratchFolder scratch_;
    const fs::path path_ = scratch_.path() / "folder" / "file";
    const fs::path temporary_ = scratch_.path() / "folder" / ".file.tmp";
    const std::shared_ptr<slate::Provider> provider_ = slate::add_provider("store", "", false);
};

TEST_F(AStoreWhoseProcessIsKilled, HoldsTheOldContentOrTheNewInItsFile)
{
    kill_many_writers<tarn::FileStore>();
}

TEST_F(AStoreWhoseProcessIsKilled, HoldsTheOldContentOrTheNewInItsFileIfItIsCached)
{
    kill_many_writers<tarn::CachedFileStore>();
}

TEST_F(AStoreWhoseProcessIsKilled, HoldsNothingOrTheWholeFirstContentInItsFile)
{
    kill_many_first_writers<tarn::FileStore>();
}

TEST_F(AStoreWhoseProcessIsKilled, HoldsNothingOrTheWholeFirstContentInItsFileIfItIsCached)
{
    kill_many_first_writers<tarn::CachedFileStore>();
}
} // namespace
