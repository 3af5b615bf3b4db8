// SPDX-License-Identifier: Apache-2.0
// What a server does for each of its routes and each request must not cost memory until a route matches, so
// this program counts what goes through the global operator new.
#include <cstdlib>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarn/tarn.h"
#include "unit/tarn/messages.h"

namespace {
thread_local std::size_t allocation_count = 0;

void* allocate(std::size_t size)
{
    ++allocation_count;
    void* memory = std::malloc(size ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void* allocate(std::size_t size, std::align_val_t alignment)
{
    ++allocation_count;
    const auto unit = static_cast<std::size_t>(alignment);
    void* memory = std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}
} // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return allocate(size);
}

void* operator new(std::size_t size, std::align_val_t alignment)
{
    return allocate(size, alignment);
}

void* operator new[](std::size_t size, std::align_val_t alignment)
{
    return allocate(size, alignment);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    ++allocation_count;
    return std::malloc(size ? size : 1);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    ++allocation_count;
    return std::malloc(size ? size : 1);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

namespace {
using tarn::Access;
using tarn::Context;
using tarn::Route;
using tarn::RoutePattern;

/// How often an action allocates.
template <class Action>
std::size_t allocations(Action action)
{
    const std::size_t before = allocation_count;
    action();
    return allocation_count - before;
}

TEST(AllocationCounter, SeesTheLibrary)
{
    const RoutePattern pattern("/a/:id");

    EXPECT_GT(allocations([&] { (void)pattern.parse("/a/7"); }), 0U);
}

struct Row {
    std::string name;
    std::string pattern;
    std::string path;

    friend std::ostream& operator<<(std::ostream& stream, const Row& row) { return stream << row.name; }
};

// Longer than a string holds without memory of its own, and than any buffer on a stack.
const std::string longer(100, 'x');
const std::string longest(100'000, 'x');

const std::vector<Row> misses = {
    {"Static", "/status", "/other"},
    {"StaticLongPath", "/status", "/" + longer},
    {"StaticLongPattern", "/" + longer, "/" + longer + "y"},
    {"StaticDoubledSlashes", "/status/cpu", "//status//cpu"},
    {"StaticEmptyPath", "/status", ""},
    {"VariableOtherLiteral", "/a/:id", "/b/7"},
    {"VariableMissing", "/a/:id", "/a"},
    {"VariableTooMany", "/a/:id", "/a/7/8"},
    {"VariableLongPath", "/a/:id", "/b/" + longer},
    {"VariableLongLiteral", "/" + longer + "/:id", "/" + longer + "y/7"},
    {"VariableLongValueTooMany", "/a/:id", "/a/" + longer + "/" + longer},
    {"VariableDoubledSlashes", "/a/:id", "//a//7//8//"},
    {"VariableEmptyPath", "/a/:id", ""},
    {"OptionalTooMany", "/a/(:x)/(:y=1)", "/a/1/2/3"},
    {"OptionalOtherLiteral", "/a/(:x)/(:y=1)", "/b"},
    {"OptionalLongPath", "/a/(:x)", "/a/" + longer + "/" + longer},
    {"OptionalLongDefault", "/a/(:x=" + longer + ")", "/b"},
    {"OptionalDoubledSlashes", "/a/(:x)", "//a//1//2"},
    {"OptionalLiteral", "/a/:id/(b=c)", "/a/7/d"},
    {"GlobOtherLiteral", "/files/*", "/other/x"},
    {"GlobMissing", "/files/*", "/files//"},
    {"GlobOtherEnd", "/files/*.txt", "/files/a/b.log"},
    {"GlobLongPath", "/files/*.txt", "/files/" + longer + "/" + longer},
    {"GlobLongestPath", "/files/*.txt", "/files/" + longest + "/" + longest},
    {"GlobLongPattern", "/files/*" + longer + "y", "/files/" + longer + longer},
    {"GlobQuestionMarks", "/files/??" + longer + "?*?", "/files/" + longer},
    {"GlobManyQuestionMarks", "/files/*" + std::string(200, '?') + "y", "/files/" + std::string(300, 'x')},
    {"GlobDoubledSlashes", "/files/*.txt", "//files//a//b.log//"},
    {"GlobDoubledSlashesLongPath", "/files/*.txt", "//files//" + longer + "//" + longer},
    {"GlobDoubledSlashesOverAKilobyte", "/files/*.txt", "/files//" + std::string(2000, 'x') + "//y"},
    {"GlobDoubledSlashesLongestPath", "/files/*.txt", "/files//" + longest + "//" + longest},
    {"GlobInTheMiddle", "/a/*/b", "/a/x//y/c"},
    {"GlobNothingButSlashes", "/files/*", std::string(10'000, '/')},
    {"GlobBehindVariables", "/a/:x/(:y)/(*=z)", "/b/" + longer + "//" + longer},
};

class PatternThatDoesNotMatch : public testing::TestWithParam<Row> {};

TEST_P(PatternThatDoesNotMatch, AllocatesNothing)
{
    const RoutePattern pattern(GetParam().pattern);
    bool matches = true;

    const auto count = allocations([&] { matches = pattern.match(GetParam().path); });

    EXPECT_FALSE(matches);
    EXPECT_EQ(count, 0U);
}

INSTANTIATE_TEST_SUITE_P(Patterns, PatternThatDoesNotMatch, testing::ValuesIn(misses),
                         [](const auto& row) { return row.param.name; });

/// A static pattern is another one once it is primed, so these are the others.
std::vector<Row> dynamic_misses()
{
    std::vector<Row> rows;
    for (const Row& row : misses) {
        if (RoutePattern(row.pattern).is_dynamic())
            rows.push_back(row);
    }
    return rows;
}

class PrimedPatternThatDoesNotMatch : public testing::TestWithParam<Row> {};

TEST_P(PrimedPatternThatDoesNotMatch, AllocatesNothing)
{
    RoutePattern pattern(GetParam().pattern);
    pattern.prime(slate::make_dictionary());
    bool matches = true;

    const auto count = allocations([&] { matches = pattern.match(GetParam().path); });

    EXPECT_FALSE(matches);
    EXPECT_EQ(count, 0U);
}

INSTANTIATE_TEST_SUITE_P(Patterns, PrimedPatternThatDoesNotMatch, testing::ValuesIn(dynamic_misses()),
                         [](const auto& row) { return row.param.name; });

Context get_of(const std::string& path)
{
    Context context;
    context.request.message = std::make_shared<tarn::Message>();
    tarn::Head* head = context.request.message->mutable_get()->mutable_head();
    head->set_path(path);
    head->mutable_from()->set_pid(101);
    tarn::KeyValue* header = head->add_headers();
    header->set_key("a header that no small string holds");
    header->set_value(longer);
    context.pid = 100;
    return context;
}

class RouteThatDoesNotMatch : public testing::TestWithParam<Row> {};

TEST_P(RouteThatDoesNotMatch, AllocatesNothing)
{
    const Route route("r", "get", RoutePattern(GetParam().pattern), Access::Public);
    Context context = get_of(GetParam().path);
    bool accepted = true;

    const auto count = allocations([&] { accepted = route.accept(context); });

    EXPECT_FALSE(accepted);
    EXPECT_EQ(count, 0U);
}

INSTANTIATE_TEST_SUITE_P(Patterns, RouteThatDoesNotMatch, testing::ValuesIn(misses),
                         [](const auto& row) { return row.param.name; });

TEST(RefusingRoute, AllocatesNothingForManyPatterns)
{
    std::vector<RoutePattern> patterns;
    for (const char* pattern : {"/a/:id", "/b/*.txt", "/c/(:x=1)", "/d", "/e/:x/*"})
        patterns.emplace_back(pattern);
    const Route route("r", "get", patterns, Access::Public);
    Context context = get_of("/z//" + longer);
    bool accepted = true;

    const auto count = allocations([&] { accepted = route.accept(context); });

    EXPECT_FALSE(accepted);
    EXPECT_EQ(count, 0U);
}

TEST(RefusingRoute, AllocatesNothingForARequestWithoutHead)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context context;
    context.request.message = tarn_test::message_of("get {}");
    bool accepted = true;

    const auto count = allocations([&] { accepted = route.accept(context); });

    EXPECT_FALSE(accepted);
    EXPECT_EQ(count, 0U);
}

TEST(RefusingRoute, AllocatesNothingForAHeadRequest)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context context;
    context.request.message = std::make_shared<tarn::Message>();
    context.request.message->mutable_head()->set_path("/b/" + longer);
    bool accepted = true;

    const auto count = allocations([&] { accepted = route.accept(context); });

    EXPECT_FALSE(accepted);
    EXPECT_EQ(count, 0U);
}

TEST(RefusingRoute, AllocatesNothingForAContextWithoutRequest)
{
    const Route route("r", "get", RoutePattern(""), Access::Public);
    Context context;
    bool accepted = true;

    const auto count = allocations([&] { accepted = route.accept(context); });

    EXPECT_FALSE(accepted);
    EXPECT_EQ(count, 0U);
}

TEST(RefusingRoute, AllocatesNothingWhenItIsPrivate)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Private);
    Context other = get_of("/a/" + longer);
    bool accepted = true;

    const auto count = allocations([&] { accepted = route.accept(other); });

    EXPECT_FALSE(accepted);
    EXPECT_EQ(count, 0U);
}

TEST(AcceptingRoute, AllocatesForTheDictionaryThatItFills)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context context = get_of("/a/7");
    bool accepted = false;

    const auto count = allocations([&] { accepted = route.accept(context); });

    EXPECT_TRUE(accepted);
    EXPECT_GT(count, 0U);
}
} // namespace
