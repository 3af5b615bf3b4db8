// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/parse.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "unit/tarn/messages.h"

namespace {
using tarn_test::Pairs;

struct TopicRow {
    std::string path;
    std::string topic;

    friend std::ostream& operator<<(std::ostream& stream, const TopicRow& row)
    {
        return stream << '"' << row.path << '"';
    }
};

class Topic : public testing::TestWithParam<TopicRow> {};

TEST_P(Topic, IsTheFirstSegmentWithItsSlash)
{
    EXPECT_EQ(tarn_internal::to_topic(GetParam().path), GetParam().topic);
}

INSTANTIATE_TEST_SUITE_P(Paths, Topic,
                         testing::Values(TopicRow{"/a/b/c", "/a"}, TopicRow{"/a", "/a"}, TopicRow{"a/b", "a"},
                                         TopicRow{"//x", "/"}, TopicRow{"", ""}, TopicRow{"/", "/"},
                                         TopicRow{"a", "a"}, TopicRow{"/a/", "/a"}, TopicRow{"/:x/b", "/:x"},
                                         TopicRow{"///", "/"}));

struct QueryRow {
    std::string query;
    Pairs pairs;

    friend std::ostream& operator<<(std::ostream& stream, const QueryRow& row)
    {
        return stream << '"' << row.query << '"';
    }
};

class Query : public testing::TestWithParam<QueryRow> {};

TEST_P(Query, SplitsIntoPairsInOrder)
{
    EXPECT_EQ(tarn_internal::parse_query(GetParam().query), GetParam().pairs);
}

INSTANTIATE_TEST_SUITE_P(Queries, Query,
                         testing::Values(QueryRow{"", {}}, QueryRow{"a=1", {{"a", "1"}}},
                                         QueryRow{"b=1&a=2&b=3", {{"b", "1"}, {"a", "2"}, {"b", "3"}}},
                                         QueryRow{"&a=1&&b=2&", {{"a", "1"}, {"b", "2"}}},
                                         QueryRow{"a", {{"a", ""}}}, QueryRow{"a=", {{"a", ""}}},
                                         QueryRow{"=1", {{"", "1"}}}, QueryRow{"a=b=c", {{"a", "b=c"}}},
                                         QueryRow{"a%20=+%31", {{"a%20", "+%31"}}}));

struct InsertRow {
    std::string url;
    std::string key;
    std::string value;
    std::string new_url;
    std::string returned;
    bool added;

    friend std::ostream& operator<<(std::ostream& stream, const InsertRow& row)
    {
        return stream << '"' << row.url << "\" and " << row.key << "=" << row.value;
    }
};

class InsertedQuery : public testing::TestWithParam<InsertRow> {};

TEST_P(InsertedQuery, IsAddedUnlessItsKeyIsThere)
{
    const InsertRow& row = GetParam();
    std::string url = row.url;

    const auto [value, added] = tarn_internal::insert_query(url, row.key, row.value);

    EXPECT_EQ(url, row.new_url);
    EXPECT_EQ(value, row.returned);
    EXPECT_EQ(added, row.added);
}

INSTANTIATE_TEST_SUITE_P(
    FirstOnes, InsertedQuery,
    testing::Values(InsertRow{"/a", "k", "v", "/a?k=v", "v", true},
                    InsertRow{"/a?", "k", "v", "/a?k=v", "v", true},
                    InsertRow{"", "k", "v", "?k=v", "v", true}, InsertRow{"/a", "k", "", "/a?k=", "", true},
                    // Only the value is encoded, and what comes back isn't.
                    InsertRow{"/a", "k", "a b&c=d", "/a?k=a%20b%26c%3Dd", "a b&c=d", true},
                    InsertRow{"/a", "k l", "v", "/a?k l=v", "v", true}));

INSTANTIATE_TEST_SUITE_P(FurtherOnes, InsertedQuery,
                         testing::Values(InsertRow{"/a?x=1", "k", "v", "/a?x=1&k=v", "v", true},
                                         // Unlike the first parameter, a further one isn't encoded.
                                         InsertRow{"/a?x=1", "k", "a b", "/a?x=1&k=a b", "a b", true},
                                         InsertRow{"/a?K=1", "k", "v", "/a?K=1&k=v", "v", true},
                                         InsertRow{"/a?x=k", "k", "v", "/a?x=k&k=v", "v", true},
                                         InsertRow{"/a?&", "k", "v", "/a?&&k=v", "v", true}));

INSTANTIATE_TEST_SUITE_P(PresentOnes, InsertedQuery,
                         testing::Values(InsertRow{"/a?k=1", "k", "2", "/a?k=1", "1", false},
                                         InsertRow{"/a?x=1&k=2&k=3", "k", "9", "/a?x=1&k=2&k=3", "2", false},
                                         InsertRow{"/a?k=%20", "k", "9", "/a?k=%20", "%20", false},
                                         InsertRow{"/a?k", "k", "9", "/a?k", "", false},
                                         InsertRow{"/a?k=b=c", "k", "9", "/a?k=b=c", "b=c", false},
                                         InsertRow{"/a?b?c=1", "b?c", "9", "/a?b?c=1", "1", false}));
} // namespace
