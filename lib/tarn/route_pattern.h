// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace slate {
class Dictionary;
}

namespace tarn {
/// The compiled form of one path pattern.
///
///   "/status/cpu"        a static pattern: equal as a whole string, slashes and case included
///   "/user/:id"          a variable: takes one path segment
///   "/user/(:id)"        an optional variable, and "/user/(:id=42)" one with a default
///   "/files/*"           a glob: takes the rest of the path; "*" and "?" match as in slate::wildcard_match
///   "/<site>/status"     a placeholder, filled in from the settings when the route is added to a server
///
/// The first segment is a required literal, no required segment follows an optional one, and a glob comes
/// last. The empty pattern matches every path. Nothing is decoded.
///
/// An optional literal, "(b=x)", matches "b" or nothing in a pattern with a variable or a glob; without "="
/// the parentheses are part of its text. In a static pattern it has no meaning: "/a/(b=x)" equals neither
/// "/a" nor "/a/b", until prime() makes it "/a/b".
///
/// Errors: patterns that break a rule throw Exception, which names the rule.
/// Threads: const operations may run on many threads at once; prime() must not run beside them.
class RoutePattern {
public:
    struct Segment {
        /// Takes its value from the path: a variable or a glob.
        bool is_variable = false;
        bool is_glob = false;
        /// False for a segment in parentheses.
        bool is_required = true;
        /// What follows "=" in an optional segment, or null. Copies of a pattern share it.
        std::shared_ptr<const std::string> default_value;
        /// What a literal or a glob is compared with.
        std::string text;
        /// The key of a variable or glob; empty for a literal.
        std::string name;
    };

    /// `glob_names` name the globs, in order; the key of a glob without a name is its text, such as "*".
    RoutePattern(std::string pattern_text, std::vector<std::string> glob_names = {});
    // Implicit, so that a literal can be passed as a pattern.
    RoutePattern(const char* pattern_text) : RoutePattern(std::string(pattern_text)) {}

    /// Fills `segments` from `pattern`, as the constructor does.
    void compile_into_segments(std::vector<std::string> glob_names);

    /// The texts of the segments of a pattern. The glob's text extends to the end of the pattern, slashes
    /// included.
    std::vector<std::string> split_pattern(std::string_view text) const;
    /// The pieces of a path, without empty ones; a glob takes the rest of the path in one piece.
    std::vector<std::string> split_path(std::string_view path) const;

    /// Allocates nothing for a path that does not match.
    bool match(std::string_view path) const;

    /// The variables of a path that matches, by name, in the order of the segments.
    using Variables = std::vector<std::pair<std::string, std::string>>;
    Variables variables_of(std::string_view path) const;

    /// The variables of a path that matches, and the keys "pattern_" and "path_".
    std::shared_ptr<slate::Dictionary> parse(std::string_view path) const;
    /// The same for a caller that has the path's variables.
    std::shared_ptr<slate::Dictionary> parse(std::string_view path, const Variables& variables) const;

    /// The path that these variables give. A missing required variable gives an empty segment; a missing
    /// optional one without a default gives no segment.
    std::string make_path(const std::shared_ptr<slate::Dictionary>& variables) const;

    /// A path of this pattern that needs no variables, if there is one.
    std::optional<std::string> default_pattern() const;

    bool is_dynamic() const;
    bool is_static() const;

    /// Fills the placeholders from settings and rebuilds `pattern` from the segments, which drops doubled and
    /// trailing slashes. Throws Exception for a missing key; the placeholders before it are filled by then.
    void prime(const std::shared_ptr<const slate::Dictionary>& settings);

    std::string pattern;
    std::vector<Segment> segments;
};
} // namespace tarn
