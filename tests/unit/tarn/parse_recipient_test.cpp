// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/parse_recipient.h"

#include <ostream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "slate/dictionary.h"
#include "support/log_capture.h"
#include "unit/tarn/messages.h"

namespace {
using tarn_test::Pairs;

/// What a recipient is taken apart into. The fields aren't empty at first, as a caller's needn't be.
struct Parts {
    explicit Parts(const std::string& recipient)
    {
        params->set("old", "value");
        tarn_internal::parse_recipient(recipient, &to, &path, params);
    }

    std::string to = "old";
    std::string path = "old";
    std::shared_ptr<slate::Dictionary> params = slate::make_dictionary();
};

struct Row {
    std::string recipient;
    std::string path;
    std::string to;
    Pairs params;

    friend std::ostream& operator<<(std::ostream& stream, const Row& row)
    {
        return stream << '"' << row.recipient << '"';
    }
};

class Recipient : public testing::TestWithParam<Row> {};

TEST_P(Recipient, IsTakenApart)
{
    const tarn_test::LogCapture log;

    const Parts parts(GetParam().recipient);

    EXPECT_EQ(parts.path, GetParam().path);
    EXPECT_EQ(parts.to, GetParam().to);
    EXPECT_EQ(tarn_test::pairs_of(*parts.params), GetParam().params);
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Paths, Recipient,
                         testing::Values(Row{"/a/b", "/a/b", "", {}}, Row{"a/b", "/a/b", "", {}},
                                         Row{"", "/", "", {}}, Row{"/", "/", "", {}},
                                         Row{"//a", "//a", "", {}}, Row{"/a&b=c,d", "/a&b=c,d", "", {}},
                                         Row{"/a%40b%3f", "/a%40b%3f", "", {}}));

INSTANTIATE_TEST_SUITE_P(Processes, Recipient,
                         testing::Values(Row{"/a@12", "/a", "12", {}}, Row{"a@12", "/a", "12", {}},
                                         Row{"/a@1,2", "/a", "1,2", {}},
                                         // What the list holds is looked at later.
                                         Row{"/a@x,", "/a", "x,", {}}));

INSTANTIATE_TEST_SUITE_P(Queries, Recipient,
                         testing::Values(Row{"relay?format=text", "/relay", "", {{"format", "text"}}},
                                         Row{"/a?x=1&y=2", "/a", "", {{"x", "1"}, {"y", "2"}}},
                                         Row{"/a?x=1&x=2", "/a", "", {{"x", "2"}}},
                                         Row{"/a?&x=1&&", "/a", "", {{"x", "1"}}},
                                         Row{"/a?x", "/a", "", {{"x", ""}}},
                                         Row{"/a?x=a=b", "/a", "", {{"x", "a=b"}}},
                                         // Neither keys nor values are decoded.
                                         Row{"/a?x%20=a+%31", "/a", "", {{"x%20", "a+%31"}}}));

INSTANTIATE_TEST_SUITE_P(
    Both, Recipient,
    testing::Values(Row{"/a@1,2?x=y", "/a", "1,2", {{"x", "y"}}},
                    Row{"/a/b@1203,1207?format=json", "/a/b", "1203,1207", {{"format", "json"}}},
                    // The places are fixed, whichever separator comes first.
                    Row{"/a?x=1@5", "/a", "x=1", {{"5", ""}}}));

// Blanks around a part don't count, unless the path is all there is.
INSTANTIATE_TEST_SUITE_P(Blanks, Recipient,
                         testing::Values(Row{"/a @12 ?x", "/a", "12", {{"x", ""}}},
                                         Row{" /a @ 1,2 ", "/a", "1,2", {}},
                                         Row{"\t/a ? x=1&y=2 ", "/a", "", {{"x", "1"}, {"y", "2"}}},
                                         Row{"/a b @12", "/a b", "12", {}},
                                         Row{"/a?x= 1 &y", "/a", "", {{"x", " 1 "}, {"y", ""}}},
                                         Row{"/a ", "/a ", "", {}}, Row{" /a", "/ /a", "", {}}));

// Three parts, but not of two kinds of separators: the last one goes.
INSTANTIATE_TEST_SUITE_P(RepeatedSeparators, Recipient,
                         testing::Values(Row{"/a?f=b?c", "/a", "", {{"f", "b"}}},
                                         Row{"/a@1@2", "/a", "1", {}}));

class RecipientWithTooManySeparators : public testing::TestWithParam<const char*> {};

TEST_P(RecipientWithTooManySeparators, GivesNothingAndAnErrorInTheLog)
{
    const tarn_test::LogCapture log;

    const Parts parts(GetParam());

    EXPECT_EQ(parts.path, "");
    EXPECT_EQ(parts.to, "");
    EXPECT_TRUE(parts.params->keys().empty());
    EXPECT_TRUE(log.has(slate::ErrorLevel, std::string("invalid path string: ") + GetParam()));
    EXPECT_EQ(log.lines().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Recipients, RecipientWithTooManySeparators,
                         testing::Values("/a@1@2@3", "/a?x?y?z", "/a@1?x?y", "a?x@1@2"));

class RecipientWithMissingParts : public testing::TestWithParam<const char*> {};

TEST_P(RecipientWithMissingParts, IsRefused)
{
    EXPECT_THROW(Parts{GetParam()}, std::out_of_range);
}

INSTANTIATE_TEST_SUITE_P(Recipients, RecipientWithMissingParts,
                         testing::Values("@12", "?x=1", "/a@", "/a?", "@", "?", "@?", "/a@?x=1", "/a@1?",
                                         "@1?x=y"));
} // namespace
