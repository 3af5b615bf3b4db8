// SPDX-License-Identifier: Apache-2.0
#include "tarn/exception.h"

#include <stdexcept>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>
#include <zmq.hpp>

namespace {
TEST(Exception, IsARuntimeErrorWithItsText)
{
    const std::string text = "no head";
    const tarn::Exception error(text);

    const std::runtime_error& base = error;
    EXPECT_STREQ(base.what(), "no head");
}

TEST(Exception, IsTheBaseOfTheWholeFamily)
{
    EXPECT_TRUE((std::is_base_of_v<tarn::Exception, tarn::MessageException>));
    EXPECT_TRUE((std::is_base_of_v<tarn::Exception, tarn::SerdesException>));
    EXPECT_TRUE((std::is_base_of_v<tarn::Exception, tarn::OverloadedException>));
}

TEST(Exception, IsNotTheBaseOfTheErrorsOfZeroMq)
{
    EXPECT_FALSE((std::is_base_of_v<tarn::Exception, zmq::error_t>));
    EXPECT_TRUE((std::is_base_of_v<std::exception, zmq::error_t>));
}

TEST(MessageException, CarriesTheStatusOfTheReply)
{
    const tarn::MessageException error(tarn::Status::Gone, "it is gone");

    EXPECT_EQ(error.status, tarn::Status::Gone);
}

TEST(MessageException, CarriesTheTextOfTheReply)
{
    const tarn::MessageException error(tarn::Status::Gone, "it is gone");

    EXPECT_STREQ(error.what(), "it is gone");
}

TEST(MessageException, IsOfErrorLevel)
{
    const tarn::MessageException error(tarn::Status::Gone, "it is gone");

    EXPECT_EQ(error.level, 5);
}

TEST(SerdesException, SaysTheMessageOnlyAndKeepsTheDetails)
{
    const tarn::SerdesException error("no JSON", "at line 1");

    EXPECT_STREQ(error.what(), "no JSON");
    EXPECT_EQ(error.details, "at line 1");
}

TEST(OverloadedException, CarriesItsText)
{
    const std::string text = "queue full";

    EXPECT_STREQ(tarn::OverloadedException(text).what(), "queue full");
}
} // namespace
