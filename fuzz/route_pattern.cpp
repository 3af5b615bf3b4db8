// SPDX-License-Identifier: Apache-2.0
// Patterns and paths: lib/tarn/route_pattern.cpp against the rules written down in pattern_reference.h.
// Input, in lines: pattern, name of the glob or nothing, path, key of a setting, value of that setting.

#include <optional>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/pattern_reference.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "slate/dictionary.h"
#include "tarn/exception.h"
#include "tarn/route_pattern.h"

namespace {
using tarn_fuzz::PatternReference;
using tarn_fuzz::require;

PatternReference::Variables variables_in(const slate::Dictionary& dictionary)
{
    PatternReference::Variables variables;
    for (const std::string& key : dictionary.keys())
        variables[key] = dictionary.get(key, "");
    return variables;
}

/// The message of the exception that `action` throws, if it does.
template <class Failure, class Action>
std::string failure_of(Action action)
{
    try {
        action();
        return {};
    }
    catch (const Failure& failure) {
        return failure.what();
    }
}

void compare(const tarn::RoutePattern& pattern, const PatternReference& expected, const std::string& path)
{
    require(pattern.pattern == expected.pattern, "same text");
    require(pattern.segments.size() == expected.segments.size(), "same number of segments");
    require(pattern.is_dynamic() == expected.is_dynamic() && pattern.is_static() != expected.is_dynamic(),
            "dynamic");
    for (std::size_t i = 0; i < expected.segments.size(); ++i) {
        const auto& segment = pattern.segments[i];
        const auto& other = expected.segments[i];
        require(segment.is_variable == other.is_variable && segment.is_glob == other.is_glob &&
                    segment.is_required == other.is_required && segment.text == other.text &&
                    segment.name == other.name,
                "same segment");
        require(segment.default_value ? other.default_value == *segment.default_value : !other.default_value,
                "same default");
    }
    require(pattern.default_pattern() == expected.default_path(), "same default path");
    require(pattern.split_path(path) == expected.pieces_of_path(path), "same pieces of a path");

    const bool matches = pattern.match(path);
    require(matches == expected.match(path), "same match");
    if (!matches)
        return;
    const auto variables = pattern.parse(path);
    require(variables_in(*variables) == expected.parse(path), "same variables");

    const std::string made = pattern.make_path(variables);
    require(made == expected.make_path(expected.parse(path)), "same path from variables");
    // "/a/(b)" and the like keep their parentheses in the path, and an empty segment is none.
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    tarn_fuzz::Input input(data, size);
    const std::string text = input.line();
    const std::string glob_name = input.line();
    const std::string path = input.line();
    const std::string key = input.line();
    const std::string value = input.line();
    const std::vector<std::string> names =
        glob_name.empty() ? std::vector<std::string>() : std::vector{glob_name};

    std::optional<tarn::RoutePattern> pattern;
    std::optional<PatternReference> expected;
    const std::string refused = failure_of<tarn::Exception>([&] { pattern.emplace(text, names); });
    const std::string must_be_refused =
        failure_of<std::invalid_argument>([&] { expected.emplace(text, names); });
    require(refused == must_be_refused, "same refusal", refused);
    if (!pattern)
        return 0;
    compare(*pattern, *expected, path);

    const auto settings = slate::make_dictionary({{key, value}});
    const std::string unprimed = failure_of<tarn::Exception>([&] { pattern->prime(settings); });
    require(unprimed == failure_of<std::invalid_argument>([&] {
                expected->prime({{key, value}});
            }),
            "same failure to prime", unprimed);
    if (!unprimed.empty())
        return 0;
    compare(*pattern, *expected, path);
    if (expected->pattern != path)
        compare(*pattern, *expected, expected->pattern);
    return 0;
}
