// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/runtime.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tarn/tarn.h"

namespace {
using tarn_internal::RuntimePart;
using tarn_internal::RuntimeParts;

std::string ended; // the parts that have ended, in this order

struct First : RuntimePart {
    void end() override { ended += "first "; }
};
struct Second : RuntimePart {
    void end() override { ended += "second "; }
};

class PartsOfARuntime : public testing::Test {
protected:
    PartsOfARuntime() { ended.clear(); }

    std::shared_ptr<First> first()
    {
        return parts.get<First>([] { return std::make_shared<First>(); });
    }
    std::shared_ptr<Second> second()
    {
        return parts.get<Second>([] { return std::make_shared<Second>(); });
    }

    RuntimeParts parts;
};

TEST_F(PartsOfARuntime, AreMadeOnceForEachType)
{
    EXPECT_EQ(first(), first());
    EXPECT_EQ(second(), second());
    EXPECT_NE(std::shared_ptr<RuntimePart>(first()), std::shared_ptr<RuntimePart>(second()));
}

TEST_F(PartsOfARuntime, EndOnceTheLastOneFirst)
{
    const auto kept = first();
    (void)second();
    parts.end();
    EXPECT_EQ(ended, "second first ");
    parts.end();
    EXPECT_EQ(ended, "second first ");
}

TEST_F(PartsOfARuntime, AreNotMadeAfterTheEnd)
{
    parts.end();
    EXPECT_EQ(first(), nullptr);
}

TEST_F(PartsOfARuntime, MayBeTriedAgainIfTheyCannotBeMade)
{
    EXPECT_THROW((void)parts.get<First>([]() -> std::shared_ptr<First> { throw std::runtime_error("no"); }),
                 std::runtime_error);
    EXPECT_NE(first(), nullptr);
}

TEST_F(PartsOfARuntime, EndWithIt)
{
    const tarn_test::LogCapture logs;
    auto subsystem = std::make_unique<tarn::ZmqSubsystem>();
    const auto runtime = tarn_internal::find_runtime("test").value();
    (void)runtime.parts->get<First>([] { return std::make_shared<First>(); });
    EXPECT_EQ(ended, "");
    subsystem.reset();
    EXPECT_EQ(ended, "first ");
}
} // namespace
