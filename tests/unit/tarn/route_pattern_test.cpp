// SPDX-License-Identifier: Apache-2.0
#include "tarn/route_pattern.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "slate/dictionary.h"
#include "support/log_capture.h"
#include "tarn/exception.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::RoutePattern;
using tarn_test::dictionary_of;
using tarn_test::Pairs;
using tarn_test::pairs_of;
using Names = std::vector<std::string>;

/// What a pattern finds in a path, without the two keys that every path gets.
Pairs variables_of(const RoutePattern& pattern, const std::string& path)
{
    const auto variables = pattern.parse(path);
    variables->remove("pattern_");
    variables->remove("path_");
    return pairs_of(*variables);
}

// ---- match and parse ------------------------------------------------------------------------------------

struct Matching {
    std::string pattern;
    std::string path;
    Pairs variables;
    Names glob_names = {};

    friend std::ostream& operator<<(std::ostream& stream, const Matching& row)
    {
        stream << '"' << row.pattern << "\" and \"" << row.path << '"';
        return row.glob_names.empty() ? stream : stream << " with " << testing::PrintToString(row.glob_names);
    }
};

class MatchingPath : public testing::TestWithParam<Matching> {
protected:
    const RoutePattern pattern_{GetParam().pattern, GetParam().glob_names};
};

TEST_P(MatchingPath, IsTaken)
{
    EXPECT_TRUE(pattern_.match(GetParam().path));
}

TEST_P(MatchingPath, GivesItsVariables)
{
    EXPECT_EQ(variables_of(pattern_, GetParam().path), GetParam().variables);
}

TEST_P(MatchingPath, GivesPatternAndPathAsTheyAre)
{
    const auto variables = pattern_.parse(GetParam().path);

    EXPECT_EQ(variables->get("pattern_", "none"), GetParam().pattern);
    EXPECT_EQ(variables->get("path_", "none"), GetParam().path);
}

TEST_P(MatchingPath, IsTakenByACopyOfThePattern)
{
    const auto original = std::make_unique<RoutePattern>(pattern_);
    const RoutePattern copy = *original;
    original->segments.clear();

    EXPECT_TRUE(copy.match(GetParam().path));
    EXPECT_EQ(variables_of(copy, GetParam().path), GetParam().variables);
}

INSTANTIATE_TEST_SUITE_P(Empty, MatchingPath,
                         testing::Values(Matching{"", "", {}}, Matching{"", "/", {}},
                                         Matching{"", "/a/b?c", {}}));

INSTANTIATE_TEST_SUITE_P(Static, MatchingPath,
                         testing::Values(Matching{"/", "/", {}}, Matching{"/status", "/status", {}},
                                         Matching{"/a/", "/a/", {}}, Matching{"a", "a", {}},
                                         Matching{"/a//b", "/a//b", {}}, Matching{"/a=1", "/a=1", {}},
                                         Matching{"/a/b?", "/a/b?", {}},
                                         // Parentheses of a static pattern are never interpreted.
                                         Matching{"/a/(b)", "/a/(b)", {}},
                                         Matching{"/a/(b=c)", "/a/(b=c)", {}}));

INSTANTIATE_TEST_SUITE_P(Variables, MatchingPath,
                         testing::Values(Matching{"/a/:id", "/a/7", {{"id", "7"}}},
                                         Matching{"/a/:id", "/a/7/", {{"id", "7"}}},
                                         Matching{"/a/:id", "//a//7", {{"id", "7"}}},
                                         Matching{"/a/:id", "a/7", {{"id", "7"}}},
                                         Matching{"a/:id/", "/a/7", {{"id", "7"}}},
                                         // Nothing is decoded, and every segment is a value.
                                         Matching{"/a/:id", "/a/%37+x", {{"id", "%37+x"}}},
                                         Matching{"/a/:id", "/a/:id", {{"id", ":id"}}},
                                         Matching{"/a/:x/b/:y", "/a/1/b/2", {{"x", "1"}, {"y", "2"}}},
                                         Matching{"/a/:x/:x", "/a/1/2", {{"x", "2"}}}));

INSTANTIATE_TEST_SUITE_P(
    Optionals, MatchingPath,
    testing::Values(
        Matching{"/a/(:id)", "/a", {}}, Matching{"/a/(:id)", "/a/7", {{"id", "7"}}},
        Matching{"/a/(:id=42)", "/a", {{"id", "42"}}}, Matching{"/a/(:id=42)", "/a/7", {{"id", "7"}}},
        Matching{"/a/(:id=42)", "/a/", {{"id", "42"}}}, Matching{"/a/(:x)/(:y)", "/a/1", {{"x", "1"}}},
        Matching{"/a/(:x)/(:y)", "/a", {}}, Matching{"/a/(:x)/(:y)", "/a/1/2", {{"x", "1"}, {"y", "2"}}},
        Matching{"/a/(:x=1)/(:y=2)", "/a", {{"x", "1"}, {"y", "2"}}},
        Matching{"/a/:id/(b=c)", "/a/1/b", {{"id", "1"}}}, Matching{"/a/:id/(b=c)", "/a/1", {{"id", "1"}}},
        Matching{"/a/:id/(b)", "/a/1/(b)", {{"id", "1"}}}, Matching{"/a/:id/(b)", "/a/1", {{"id", "1"}}},
        // Cut at the first "=".
        Matching{"/a/(:x=a=b)", "/a", {{"x", "a=b"}}}, Matching{"/a/(:x=)", "/a", {{"x", ""}}},
        Matching{"/a/(:x=:y)", "/a", {{"x", ":y"}}}));

INSTANTIATE_TEST_SUITE_P(
    Globs, MatchingPath,
    testing::Values(Matching{"/files/*", "/files/x/y.txt", {{"*", "x/y.txt"}}},
                    Matching{"/files/*", "/files/x", {{"*", "x"}}},
                    Matching{"/files/*", "/files/x/y", {{"rest", "x/y"}}, {"rest"}},
                    Matching{"/files/*", "/files/x", {{"rest", "x"}}, {"rest", "surplus"}},
                    // Empty segments of the rest are dropped.
                    Matching{"/files/*", "/files//x//y/", {{"*", "x/y"}}},
                    Matching{"/logs/*.txt", "/logs/a/b.txt", {{"*.txt", "a/b.txt"}}},
                    Matching{"/logs/*.txt", "/logs/a//b.txt/", {{"*.txt", "a/b.txt"}}},
                    Matching{"/logs/*.txt", "/logs/a.txt/", {{"*.txt", "a.txt"}}},
                    Matching{"/logs/*.txt", "/logs/.txt", {{"*.txt", ".txt"}}},
                    Matching{"/a/*/b", "/a/x/y/b", {{"*/b", "x/y/b"}}},
                    Matching{"/a/*/b", "/a/x/b", {{"*/b", "x/b"}}},
                    Matching{"/a/*/b", "/a/x//b//", {{"*/b", "x/b"}}},
                    Matching{"/a/x*z", "/a/x/y/z", {{"x*z", "x/y/z"}}},
                    Matching{"/a/?-*", "/a/1-2", {{"?-*", "1-2"}}},
                    Matching{"/a/:id/*", "/a/1/2/3", {{"*", "2/3"}, {"id", "1"}}},
                    Matching{"/a/(*)", "/a", {}}, Matching{"/a/(*)", "/a/(x/y)", {{"*", "(x/y)"}}},
                    Matching{"/a/(*=x)", "/a", {{"*", "x"}}}, Matching{"/a/(*=x)", "/a/b/c", {{"*", "b/c"}}},
                    Matching{"/a/(*=x)", "/a", {{"rest", "x"}}, {"rest"}}));

INSTANTIATE_TEST_SUITE_P(
    OddOnes, MatchingPath,
    testing::Values(Matching{"/a/()", "/a/()", {}}, Matching{"/a/:id/()", "/a/1/()", {{"id", "1"}}},
                    Matching{"/a/:", "/a/7", {{"", "7"}}}, Matching{"/a/:x=1", "/a/7", {{"x=1", "7"}}},
                    Matching{"/a/:b*/c", "/a/7", {{"b*/c", "7"}}}, Matching{"/a/(:x", "/a/(:x", {}},
                    Matching{"/a/:x)", "/a/7", {{"x)", "7"}}},
                    // A glob only behind the "=" is a plain default.
                    Matching{"/a/(:x=*)", "/a", {{"x", "*"}}}));

class RefusedPath : public testing::TestWithParam<Matching> {};

TEST_P(RefusedPath, IsNotTaken)
{
    EXPECT_FALSE(RoutePattern(GetParam().pattern).match(GetParam().path));
}

INSTANTIATE_TEST_SUITE_P(
    Static, RefusedPath,
    testing::Values(Matching{"/", "", {}}, Matching{"/", "//", {}}, Matching{"/status", "/status/", {}},
                    Matching{"/status", "/Status", {}}, Matching{"/status", "//status", {}},
                    Matching{"/status", "status", {}}, Matching{"/status", "/status/x", {}},
                    Matching{"/status", "/statu", {}}, Matching{"/a/", "/a", {}}, Matching{"a", "/a", {}},
                    Matching{"/a/(b)", "/a", {}}, Matching{"/a/(b)", "/a/b", {}},
                    Matching{"/a/(b=c)", "/a/b", {}}, Matching{"/a/b?", "/a/bc", {}},
                    Matching{"/a/<k>", "/a/b", {}}));

INSTANTIATE_TEST_SUITE_P(
    Dynamic, RefusedPath,
    testing::Values(Matching{"/a/:id", "/a", {}}, Matching{"/a/:id", "/a/", {}},
                    Matching{"/a/:id", "/a/7/8", {}}, Matching{"/a/:id", "/b/7", {}},
                    Matching{"/a/:id", "/A/7", {}}, Matching{"/a/:id", "/aa/7", {}},
                    Matching{"/a/:id", "", {}}, Matching{"/a/:id", "/", {}},
                    Matching{"/a/:id/b", "/a/7/c", {}}, Matching{"/a/:id/b", "/a/7", {}},
                    Matching{"/a/(:id)", "/a/7/8", {}}, Matching{"/a/(:id)", "/b", {}},
                    Matching{"/a/(:id)", "", {}}, Matching{"/a/:id/(b)", "/a/1/b", {}},
                    Matching{"/a/:id/(b=c)", "/a/1/d", {}}, Matching{"/a/:id/(b=c)", "/a/1/c", {}},
                    Matching{"/a/:id/(b=c)", "/a/1/(b)", {}}, Matching{"/a/:id/(b=c)", "/a/1/b/c", {}},
                    Matching{"/a/%61/:id", "/a/a/7", {}}, Matching{"/a/b?/:id", "/a/bc/7", {}}));

INSTANTIATE_TEST_SUITE_P(
    Globs, RefusedPath,
    testing::Values(Matching{"/files/*", "/files", {}}, Matching{"/files/*", "/files/", {}},
                    Matching{"/files/*", "/files//", {}}, Matching{"/files/*", "/file/x", {}},
                    Matching{"/files/*", "/filesx/y", {}}, Matching{"/logs/*.txt", "/logs/a/b.log", {}},
                    Matching{"/logs/*.txt", "/logs/a.txt/b", {}}, Matching{"/logs/*.txt", "/logs/a.TXT", {}},
                    Matching{"/a/*/b", "/a/b", {}}, Matching{"/a/*/b", "/a/x/c", {}},
                    Matching{"/a/*/b", "/a/x/bb/", {}}, Matching{"/a/?-*", "/a/12-3", {}},
                    Matching{"/a/?-*", "/a/-3", {}}, Matching{"/a/(*)", "/a/x", {}},
                    Matching{"/a/(*)", "/b", {}}));

INSTANTIATE_TEST_SUITE_P(OddOnes, RefusedPath,
                         testing::Values(Matching{"/a/()", "/a", {}}, Matching{"/a/:id/()", "/a/1", {}},
                                         Matching{"/a/:", "/a", {}}, Matching{"/a/:x=1", "/a", {}},
                                         Matching{"/a/:b*/c", "/a/7/c", {}}, Matching{"/a/:b*/c", "/a", {}}));

TEST(RoutePattern, ParsesWithoutAskingWhetherThePathMatches)
{
    EXPECT_EQ(variables_of(RoutePattern("/a/:id"), "/b/7/8"), (Pairs{{"id", "7"}}));
}

TEST(RoutePattern, GivesANewDictionaryEachTime)
{
    const RoutePattern pattern("/a/:id");

    EXPECT_NE(pattern.parse("/a/1"), pattern.parse("/a/1"));
}

TEST(RoutePattern, CanBeMadeFromALiteral)
{
    const RoutePattern pattern = "/a/:id";

    EXPECT_EQ(pattern.pattern, "/a/:id");
    EXPECT_TRUE(pattern.match("/a/7"));
}

TEST(RoutePattern, MatchesVeryLongPaths)
{
    const std::string longer(10'000, 'x');

    EXPECT_TRUE(RoutePattern("/files/*").match("/files/" + longer));
    EXPECT_TRUE(RoutePattern("/files/*y").match("/files//" + longer + "//y"));
    EXPECT_FALSE(RoutePattern("/files/*z").match("/files//" + longer + "//y"));
}

// ---- compiled segments ----------------------------------------------------------------------------------

/// Such as "[:id] id optional variable =42": text in brackets, name, and what it is.
std::string describe(const RoutePattern::Segment& segment)
{
    return "[" + segment.text + "] " + segment.name + (segment.is_required ? " required" : " optional") +
           (segment.is_glob ? " glob" : "") + (segment.is_variable ? " variable" : " literal") +
           (segment.default_value ? " =" + *segment.default_value : "");
}

struct Compiled {
    std::string pattern;
    std::vector<std::string> segments;
    bool is_dynamic;
    Names glob_names = {};

    friend std::ostream& operator<<(std::ostream& stream, const Compiled& row)
    {
        stream << '"' << row.pattern << '"';
        return row.glob_names.empty() ? stream : stream << " with " << testing::PrintToString(row.glob_names);
    }
};

class CompiledPattern : public testing::TestWithParam<Compiled> {
protected:
    const RoutePattern pattern_{GetParam().pattern, GetParam().glob_names};
};

TEST_P(CompiledPattern, HasTheseSegments)
{
    std::vector<std::string> segments;
    for (const auto& segment : pattern_.segments)
        segments.push_back(describe(segment));

    EXPECT_EQ(segments, GetParam().segments);
}

TEST_P(CompiledPattern, KeepsItsText)
{
    EXPECT_EQ(pattern_.pattern, GetParam().pattern);
}

TEST_P(CompiledPattern, IsDynamicOrStatic)
{
    EXPECT_EQ(pattern_.is_dynamic(), GetParam().is_dynamic);
    EXPECT_EQ(pattern_.is_static(), !GetParam().is_dynamic);
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, CompiledPattern,
    testing::Values(
        Compiled{"", {}, false}, Compiled{"/", {}, false}, Compiled{"//", {}, false},
        Compiled{"/a//b/", {"[a]  required literal", "[b]  required literal"}, false},
        Compiled{"a", {"[a]  required literal"}, false},
        Compiled{"/a/:id", {"[a]  required literal", "[:id] id required variable"}, true},
        Compiled{"/a/(:id)", {"[a]  required literal", "[(:id)] id optional variable"}, true},
        Compiled{"/a/(:id=42)", {"[a]  required literal", "[:id] id optional variable =42"}, true},
        Compiled{"/a/(:x=a=b)", {"[a]  required literal", "[:x] x optional variable =a=b"}, true},
        Compiled{"/a/(b)", {"[a]  required literal", "[(b)]  optional literal"}, false},
        Compiled{"/a/(b=c)", {"[a]  required literal", "[b]  optional literal =c"}, false},
        Compiled{"/a/(=c)", {"[a]  required literal", "[]  optional literal =c"}, false},
        Compiled{"/a/(b=)", {"[a]  required literal", "[b]  optional literal ="}, false},
        Compiled{"/a/*", {"[a]  required literal", "[*] * required glob variable"}, true},
        Compiled{"/a/*", {"[a]  required literal", "[*] rest required glob variable"}, true, {"rest"}},
        Compiled{
            "/a/*", {"[a]  required literal", "[*] first required glob variable"}, true, {"first", "second"}},
        Compiled{"/a/(*)", {"[a]  required literal", "[(*)] * optional glob variable"}, true},
        Compiled{"/a/(*=x)", {"[a]  required literal", "[*] * optional glob variable =x"}, true},
        Compiled{"/a/*.txt", {"[a]  required literal", "[*.txt] *.txt required glob variable"}, true},
        Compiled{"/a/*/b", {"[a]  required literal", "[*/b] */b required glob variable"}, true},
        Compiled{"/a//*//b", {"[a]  required literal", "[*//b] *//b required glob variable"}, true},
        // A name for a glob does not name a variable.
        Compiled{"/a/:id", {"[a]  required literal", "[:id] id required variable"}, true, {"rest"}},
        // They look wrong, and are right.
        Compiled{"/a/()", {"[a]  required literal", "[()]  required literal"}, false},
        Compiled{"/a/:", {"[a]  required literal", "[:]  required variable"}, true},
        Compiled{"/a/:x=1", {"[a]  required literal", "[:x=1] x=1 required variable"}, true},
        Compiled{"/a/:b*/c", {"[a]  required literal", "[:b*/c] b*/c required variable"}, true},
        Compiled{"/a/(b", {"[a]  required literal", "[(b]  required literal"}, false},
        Compiled{"/a/b:c", {"[a]  required literal", "[b:c]  required literal"}, false},
        Compiled{"/a/(b=*)", {"[a]  required literal", "[b]  optional literal =*"}, false}));

TEST(RoutePattern, SharesDefaultsWithItsCopies)
{
    const RoutePattern pattern("/a/(:id=42)");
    const RoutePattern copy = pattern;

    EXPECT_EQ(copy.segments.at(1).default_value, pattern.segments.at(1).default_value);
}

TEST(RoutePattern, IsReadOnlyFromTheTextThatItHas)
{
    RoutePattern pattern("/a/:id");
    pattern.pattern = "/files/*";

    pattern.compile_into_segments({"rest"});

    ASSERT_EQ(pattern.segments.size(), 2U);
    EXPECT_EQ(describe(pattern.segments[1]), "[*] rest required glob variable");
}

// ---- splitting ------------------------------------------------------------------------------------------

struct Pieces {
    std::string pattern;
    std::string text;
    Names pieces;

    friend std::ostream& operator<<(std::ostream& stream, const Pieces& row)
    {
        return stream << '"' << row.text << "\" by \"" << row.pattern << '"';
    }
};

class SplitPattern : public testing::TestWithParam<Pieces> {};

TEST_P(SplitPattern, IsCutAtSlashesBeforeTheGlob)
{
    EXPECT_EQ(RoutePattern(GetParam().pattern).split_pattern(GetParam().text), GetParam().pieces);
}

INSTANTIATE_TEST_SUITE_P(Patterns, SplitPattern,
                         testing::Values(Pieces{"", "", {}}, Pieces{"", "/", {}},
                                         Pieces{"", "/a//b/", {"a", "b"}},
                                         Pieces{"", "a/:b/(c)", {"a", ":b", "(c)"}}, Pieces{"", "*", {"*"}},
                                         Pieces{"", "/*", {"*"}}, Pieces{"", "a*/b/c", {"a*/b/c"}},
                                         Pieces{"", "/a/*/b", {"a", "*/b"}},
                                         Pieces{"", "/a//b/x*y/z//", {"a", "b", "x*y/z//"}},
                                         Pieces{"", "//a//*", {"a", "*"}}));

TEST(SplitPattern, RefusesASecondGlob)
{
    const RoutePattern pattern("");

    EXPECT_EQ(tarn_test::logged_and_thrown<tarn::Exception>([&] { (void)pattern.split_pattern("/a/*/*"); }),
              "route pattern cannot contain multiple globs");
}

class SplitPath : public testing::TestWithParam<Pieces> {};

TEST_P(SplitPath, IsCutAsThePatternNeedsIt)
{
    EXPECT_EQ(RoutePattern(GetParam().pattern).split_path(GetParam().text), GetParam().pieces);
}

INSTANTIATE_TEST_SUITE_P(Paths, SplitPath,
                         testing::Values(Pieces{"/a/:id", "//a//7/", {"a", "7"}},
                                         Pieces{"/a/:id", "/a/7/8/9", {"a", "7", "8", "9"}},
                                         Pieces{"/a/:id", "", {}},
                                         // The glob gets all that is left, as one value.
                                         Pieces{"/a/*", "/a/x//y/z/", {"a", "x/y/z"}},
                                         Pieces{"/a/*", "/a/x", {"a", "x"}}, Pieces{"/a/*", "/a", {"a"}},
                                         Pieces{"/a/:id/*", "/a/1/2/3", {"a", "1", "2/3"}},
                                         Pieces{"/a/(*)", "/a/x/y", {"a", "x/y"}}));

// ---- refused patterns -----------------------------------------------------------------------------------

struct Refusal {
    std::string pattern;
    std::string reason;

    friend std::ostream& operator<<(std::ostream& stream, const Refusal& row)
    {
        return stream << '"' << row.pattern << '"';
    }
};

class RefusedPattern : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedPattern, IsRefusedWithItsReasonInTheLogToo)
{
    EXPECT_EQ(tarn_test::logged_and_thrown<tarn::Exception>([] { RoutePattern{GetParam().pattern}; }),
              GetParam().reason);
}

const std::string many_globs = "route pattern cannot contain multiple globs";
const std::string reserved = "route-pattern variables ending with _ are reserved";
const std::string dynamic_start = "route pattern cannot start with a dynamic segment";
const std::string optional_start = "route pattern cannot start with an optional segment";
const std::string optional_first = "route pattern cannot contain optional segment before a required one";

INSTANTIATE_TEST_SUITE_P(
    Patterns, RefusedPattern,
    testing::Values(Refusal{"/a/*/*", many_globs}, Refusal{"/a/**", many_globs},
                    Refusal{"/a/(:x=*)/*", many_globs}, Refusal{"/a/:id_", reserved},
                    Refusal{"/a/(:id_)", reserved}, Refusal{"/a/(:id_=1)", reserved},
                    Refusal{"/a/:_", reserved}, Refusal{"/a/:x=1_", reserved}, Refusal{"/:id", dynamic_start},
                    Refusal{"/*", dynamic_start}, Refusal{"*", dynamic_start},
                    Refusal{"/(:id)", dynamic_start}, Refusal{"/(:id=1)", dynamic_start},
                    Refusal{"/(*)", dynamic_start}, Refusal{"a*", dynamic_start}, Refusal{":", dynamic_start},
                    Refusal{"/(a)", optional_start}, Refusal{"/(a=b)/:id", optional_start},
                    Refusal{"/a/(:x)/:y", optional_first}, Refusal{"/a/(b)/c", optional_first},
                    Refusal{"/a/(:x=1)/*", optional_first}, Refusal{"/a/(b)/(c)/d", optional_first}));

// The order of the rules: globs, then each segment, then the structure.
INSTANTIATE_TEST_SUITE_P(BreakingSeveralRules, RefusedPattern,
                         testing::Values(Refusal{"/:id_/*/*", many_globs}, Refusal{"/:id_", reserved},
                                         Refusal{"/(a)/b/:id_", reserved}, Refusal{"/(:x)/b", dynamic_start},
                                         Refusal{"/(a)/b", optional_start}));

// ---- make_path and default_pattern ----------------------------------------------------------------------

struct Made {
    std::string pattern;
    Pairs variables;
    std::string path;

    friend std::ostream& operator<<(std::ostream& stream, const Made& row)
    {
        return stream << '"' << row.pattern << "\" with " << testing::PrintToString(row.variables);
    }
};

class MadePath : public testing::TestWithParam<Made> {};

TEST_P(MadePath, IsBuiltFromSegmentsAndVariables)
{
    EXPECT_EQ(RoutePattern(GetParam().pattern).make_path(dictionary_of(GetParam().variables)),
              GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, MadePath,
    testing::Values(Made{"", {}, ""}, Made{"/", {}, ""}, Made{"/a/", {}, "/a"}, Made{"a//b", {}, "/a/b"},
                    Made{"/a/:id", {{"id", "7"}}, "/a/7"}, Made{"/a/:id", {}, "/a/"},
                    Made{"/a/:id/b", {}, "/a//b"}, Made{"/a/:id", {{"id", "x/y %"}}, "/a/x/y %"},
                    Made{"/a/(:id)", {}, "/a"}, Made{"/a/(:id)", {{"id", "7"}}, "/a/7"},
                    Made{"/a/(:id)", {{"id", ""}}, "/a/"}, Made{"/a/(:id=42)", {}, "/a/42"},
                    Made{"/a/(:id=42)", {{"id", "7"}}, "/a/7"}, Made{"/a/(:x)/(:y=2)", {}, "/a/2"},
                    Made{"/a/(:x)/(:y)", {{"y", "2"}}, "/a/2"}, Made{"/a/(b)", {}, "/a/(b)"},
                    Made{"/a/(b=c)", {}, "/a/b"}, Made{"/a/:id/(b)", {{"id", "1"}}, "/a/1/(b)"},
                    Made{"/a/*", {{"*", "x/y"}}, "/a/x/y"}, Made{"/a/*", {}, "/a/"}, Made{"/a/(*)", {}, "/a"},
                    Made{"/a/(*=x)", {}, "/a/x"}, Made{"/a/<k>", {{"k", "b"}}, "/a/<k>"},
                    Made{"/a", {{"id", "7"}}, "/a"}));

TEST(RoutePattern, MakesPathsOfAnyLength)
{
    const std::string value(1000, 'x');

    EXPECT_EQ(RoutePattern("/a/:id").make_path(dictionary_of({{"id", value}})), "/a/" + value);
}

TEST(RoutePattern, MakesAPathOfTheNamedGlob)
{
    EXPECT_EQ(RoutePattern("/a/*", {"rest"}).make_path(dictionary_of({{"rest", "x/y"}, {"*", "z"}})),
              "/a/x/y");
}

struct Default {
    std::string pattern;
    std::optional<std::string> path;

    friend std::ostream& operator<<(std::ostream& stream, const Default& row)
    {
        return stream << '"' << row.pattern << '"';
    }
};

class DefaultPath : public testing::TestWithParam<Default> {};

TEST_P(DefaultPath, IsTheOneThatNeedsNoVariables)
{
    EXPECT_EQ(RoutePattern(GetParam().pattern).default_pattern(), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, DefaultPath,
    testing::Values(Default{"", ""}, Default{"/", "/"}, Default{"/a//b/", "/a//b/"},
                    Default{"/a/(b)", "/a/(b)"}, Default{"/a/:id", std::nullopt},
                    Default{"/a/*", std::nullopt}, Default{"/a/:id/(:x=1)", std::nullopt},
                    Default{"/a/(:id=42)", "/a/42"}, Default{"/a/(:id)", "/a"},
                    Default{"/a/(:id)/(:y=1)", "/a"}, Default{"/a/(:x=1)/(:y=2)", "/a/1/2"},
                    Default{"/a/(:x=1)/(:y)", "/a/1"}, Default{"//a//(:x=1)/", "/a/1"},
                    Default{"/a/(:x=)", "/a/"}, Default{"/a/(*=x/y)", "/a/x/y"}, Default{"/a/(*)", "/a"},
                    Default{"/a/(:x=1)/(b=c)", "/a/1/b"}, Default{"/a/(:x)/(b)", "/a"}));

// ---- prime ----------------------------------------------------------------------------------------------

struct Primed {
    std::string pattern;
    std::string primed;
    std::string matching;

    friend std::ostream& operator<<(std::ostream& stream, const Primed& row)
    {
        return stream << '"' << row.pattern << '"';
    }
};

class PrimedPattern : public testing::TestWithParam<Primed> {
protected:
    PrimedPattern()
    {
        pattern_.prime(dictionary_of({{"k", "b"}, {"l", "c/d"}, {"", "nameless"}, {"<k", "e"}}));
    }

    RoutePattern pattern_{GetParam().pattern};
};

TEST_P(PrimedPattern, HasItsTextRebuiltFromItsSegments)
{
    EXPECT_EQ(pattern_.pattern, GetParam().primed);
}

TEST_P(PrimedPattern, MatchesWhatItsPlaceholdersStandFor)
{
    EXPECT_TRUE(pattern_.match(GetParam().matching));
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, PrimedPattern,
    testing::Values(
        Primed{"", "", "/what/ever"}, Primed{"/", "/", "/"}, Primed{"/a/<k>/:id", "/a/b/:id", "/a/b/7"},
        Primed{"/<k>", "/b", "/b"}, Primed{"/<k>/<k>", "/b/b", "/b/b"}, Primed{"/a/<l>", "/a/c/d", "/a/c/d"},
        Primed{"/a/<>", "/a/nameless", "/a/nameless"}, Primed{"/a/<<k>", "/a/e", "/a/e"},
        // Every pattern is rebuilt, whether it has placeholders or not.
        Primed{"/a/", "/a", "/a"}, Primed{"a", "/a", "/a"}, Primed{"//a//b", "/a/b", "/a/b"},
        Primed{"//", "/", "/"}, Primed{"/a/(:id=42)", "/a/:id", "/a"}, Primed{"/a/(:id)", "/a/(:id)", "/a"},
        Primed{"/a/*", "/a/*", "/a/x/y"}, Primed{"/a/(*=x)", "/a/*", "/a"},
        Primed{"/a/:id/(<k>=x)", "/a/:id/b", "/a/1/b"}, Primed{"/a/(b=x)", "/a/b", "/a/b"},
        // These are not placeholders.
        Primed{"/a/<none", "/a/<none", "/a/<none"}, Primed{"/a/x<none>", "/a/x<none>", "/a/x<none>"},
        Primed{"/a/:<none>", "/a/:<none>", "/a/7"}, Primed{"/a/(<none>)", "/a/(<none>)", "/a/(<none>)"},
        Primed{"/a/</:id", "/a/</:id", "/a/</7"}));

TEST(RoutePattern, NoLongerMatchesWhatWasWrittenOnceItIsPrimed)
{
    RoutePattern trailing("/a/");
    RoutePattern bare("a");

    trailing.prime(dictionary_of({}));
    bare.prime(dictionary_of({}));

    EXPECT_FALSE(trailing.match("/a/"));
    EXPECT_FALSE(bare.match("a"));
}

TEST(RoutePattern, IsComparedAsAWholeWithItsOptionalLiteralsIfItHasNoVariable)
{
    RoutePattern pattern("/a/(b=x)");

    EXPECT_FALSE(pattern.match("/a"));
    EXPECT_FALSE(pattern.match("/a/b"));
    EXPECT_TRUE(pattern.match("/a/(b=x)"));

    pattern.prime(dictionary_of({}));
    EXPECT_FALSE(pattern.match("/a"));
    EXPECT_FALSE(pattern.match("/a/(b=x)"));
}

TEST(RoutePattern, TakesAPlaceholderForALiteralBeforeItIsPrimed)
{
    const RoutePattern pattern("/a/<k>");

    EXPECT_TRUE(pattern.match("/a/<k>"));
    EXPECT_FALSE(pattern.match("/a/b"));
}

TEST(RoutePattern, KeepsItsSegmentsWhenItIsPrimed)
{
    RoutePattern pattern("/a/(:id=42)");

    pattern.prime(dictionary_of({}));

    EXPECT_EQ(describe(pattern.segments.at(1)), "[:id] id optional variable =42");
    EXPECT_EQ(variables_of(pattern, "/a"), (Pairs{{"id", "42"}}));
}

TEST(RoutePattern, StaysTheSameWhenItIsPrimedAgain)
{
    RoutePattern pattern("/a/<k>/:id");
    pattern.prime(dictionary_of({{"k", "b"}}));

    pattern.prime(dictionary_of({{"k", "other"}}));

    EXPECT_EQ(pattern.pattern, "/a/b/:id");
}

TEST(RoutePattern, GivesTheRebuiltTextOnceItIsPrimed)
{
    RoutePattern pattern("/a/<k>/:id");

    pattern.prime(dictionary_of({{"k", "b"}}));

    EXPECT_EQ(pattern.parse("/a/b/7")->get("pattern_", ""), "/a/b/:id");
}

TEST(RoutePattern, RefusesToBePrimedWithoutTheKey)
{
    RoutePattern pattern("/a/<some key>");

    EXPECT_EQ(tarn_test::logged_and_thrown<tarn::Exception>([&] {
                  pattern.prime(dictionary_of({{"k", "b"}}));
              }),
              "failed to prime route; key does not exist: some key");
}

TEST(RoutePattern, LeavesEarlierPlaceholdersFilledWhenALaterKeyIsMissing)
{
    const tarn_test::LogCapture log;
    RoutePattern pattern("/a/<k>/<l>");

    EXPECT_THROW(pattern.prime(dictionary_of({{"k", "b"}})), tarn::Exception);

    EXPECT_EQ(pattern.pattern, "/a/<k>/<l>");
    EXPECT_EQ(pattern.segments.at(1).text, "b");
    EXPECT_EQ(pattern.segments.at(2).text, "<l>");
}
} // namespace
