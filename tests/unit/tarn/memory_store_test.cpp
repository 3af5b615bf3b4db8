// SPDX-License-Identifier: Apache-2.0
#include "tarn/storage/memory_store.h"

#include <optional>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "slate/provider.h"
#include "support/log_capture.h"

namespace {
using tarn::MemoryStore;
using tarn::PurgePolicy;

class AMemoryStore : public testing::Test {
protected:
    ~AMemoryStore() override { slate::remove_provider(provider_->name()); }

    MemoryStore with_initial(const std::string& initial)
    {
        return MemoryStore("any/path", provider_, initial);
    }

    const std::shared_ptr<slate::Provider> provider_ = slate::add_provider("store", "", false);
};

TEST_F(AMemoryStore, IsEmptyWithoutAnInitialValue)
{
    const MemoryStore bare(provider_);
    const MemoryStore with_path("any/path", provider_);

    for (const MemoryStore* store : {&bare, &with_path}) {
        EXPECT_FALSE(store->exists(0));
        EXPECT_EQ(store->read(0), std::nullopt);
        EXPECT_FALSE(store->exists(0));
    }
}

TEST_F(AMemoryStore, KeepsItsProviderAndNeedsNone)
{
    const auto before = provider_.use_count();
    {
        const MemoryStore bare(provider_);
        const MemoryStore with_path("any/path", provider_);
        const auto initial = with_initial("a");
        EXPECT_EQ(provider_.use_count(), before + 3);
    }
    EXPECT_EQ(provider_.use_count(), before);

    MemoryStore store{std::shared_ptr<slate::Provider>()};
    store.write("a");
    EXPECT_EQ(store.read(0), "a");
}

TEST_F(AMemoryStore, TakesAnyPathAndLeavesTheFileSystemAlone)
{
    MemoryStore store("", provider_, "a");
    EXPECT_EQ(store.read(0), "a");

    MemoryStore folder("/", provider_);
    folder.write("b");
    EXPECT_EQ(folder.read(0), "b");
}

TEST_F(AMemoryStore, GivesWhatWasWritten)
{
    MemoryStore store(provider_);

    for (const std::string& value : {std::string("a"), std::string(), std::string("b\0\n", 3)}) {
        store.write(value);
        EXPECT_TRUE(store.exists(0));
        EXPECT_EQ(store.read(0), value);
        EXPECT_EQ(store.read(0), value);
    }
}

TEST_F(AMemoryStore, ForgetsWhatWasErased)
{
    MemoryStore store(provider_);
    store.write("a");

    store.erase(PurgePolicy::KeepHistory);

    EXPECT_FALSE(store.exists(0));
    EXPECT_EQ(store.read(0), std::nullopt);
    store.erase(PurgePolicy::PurgeHistory);
    EXPECT_FALSE(store.exists(0));
}

TEST_F(AMemoryStore, HasItsInitialValueFromTheStart)
{
    const auto store = with_initial("a");

    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(store.read(0), "a");
    EXPECT_EQ(store.read(0), "a");
    EXPECT_TRUE(store.exists(0));
}

TEST_F(AMemoryStore, TakesAnEmptyInitialValueForAValue)
{
    const auto store = with_initial("");

    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(store.read(0), "");
}

TEST_F(AMemoryStore, BringsAWaitingInitialValueBackAfterAWrite)
{
    auto store = with_initial("a");

    store.write("b");

    EXPECT_EQ(store.read(0), "a");
    EXPECT_EQ(store.read(0), "a");
}

TEST_F(AMemoryStore, BringsAWaitingInitialValueBackAfterAnErase)
{
    auto store = with_initial("a");

    store.erase(PurgePolicy::PurgeHistory);

    EXPECT_TRUE(store.exists(0));
    EXPECT_EQ(store.read(0), "a");
}

TEST_F(AMemoryStore, HasDoneWithItsInitialValueAfterARead)
{
    auto written = with_initial("a");
    EXPECT_EQ(written.read(0), "a");
    written.write("b");
    EXPECT_EQ(written.read(0), "b");

    auto erased = with_initial("a");
    EXPECT_EQ(erased.read(0), "a");
    erased.erase(PurgePolicy::KeepHistory);
    EXPECT_FALSE(erased.exists(0));
    EXPECT_EQ(erased.read(0), std::nullopt);
}

TEST_F(AMemoryStore, TakesItsInitialValueOverOnDemandAndOnce)
{
    auto store = with_initial("a");

    store.lazy_load();
    store.write("b");
    store.lazy_load();

    EXPECT_EQ(store.read(0), "b");

    const MemoryStore empty(provider_);
    empty.lazy_load();
    EXPECT_FALSE(empty.exists(0));
}

TEST_F(AMemoryStore, HasOneRevisionUnderAnyNumber)
{
    MemoryStore store(provider_);
    EXPECT_EQ(store.exists(5), store.exists(0));
    store.write("a");

    for (const long revision : {-1L, 0L, 5L}) {
        EXPECT_TRUE(store.exists(revision));
        EXPECT_EQ(store.read(revision), "a");
    }
}

TEST_F(AMemoryStore, LogsNothing)
{
    const tarn_test::LogCapture logs;
    slate::set_log_level(slate::ExtremeLevel);
    auto store = with_initial("a");

    store.read(0);
    store.write("b");
    store.exists(0);
    store.erase(PurgePolicy::KeepHistory);

    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(AMemoryStore, IsNotAPolymorphicType)
{
    EXPECT_FALSE(std::is_polymorphic_v<MemoryStore>);
}
} // namespace
