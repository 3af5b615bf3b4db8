// SPDX-License-Identifier: Apache-2.0
#include "tarn/route_pattern.h"

#include <algorithm>
#include <set>
#include <utility>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/exception.h"

namespace tarn {
namespace {
using Segment = RoutePattern::Segment;

std::vector<std::string> split_on_slashes(std::string_view text)
{
    return slate::split<std::vector<std::string>>(text, "/", false, true);
}

/// Walks over the pieces between slashes without allocating; it skips empty ones.
class Pieces {
public:
    explicit Pieces(std::string_view path) : rest_(path) { skip_slashes(); }

    bool at_end() const { return rest_.empty(); }
    /// From the current piece to the end of the path.
    std::string_view rest() const { return rest_; }
    std::string_view piece() const { return rest_.substr(0, rest_.find('/')); }
    /// Whether the current piece is that text. Looks no further than the text is long: a peer may send a
    /// piece of any size, and each pattern looks at it.
    bool piece_is(std::string_view text) const
    {
        const bool begins =
            rest_.starts_with(text) && (rest_.size() == text.size() || rest_[text.size()] == '/');
        return begins && piece() == text;
    }
    void advance()
    {
        rest_.remove_prefix(piece().size());
        skip_slashes();
    }

private:
    void skip_slashes() { rest_.remove_prefix(std::min(rest_.find_first_not_of('/'), rest_.size())); }

    std::string_view rest_;
};

bool byte_matches(char byte, char pattern)
{
    return pattern == '?' || byte == pattern;
}

/// Matches text with doubled slashes, which count as one, against a glob with its one "*": what stands before
/// that from the front, and what stands behind it from the back. Joins nothing: a peer that sends odd paths
/// must not make a server allocate.
bool glob_matches_doubled_slashes(std::string_view text, std::string_view glob)
{
    const auto star = glob.find('*');
    for (const char pattern : glob.substr(0, star)) {
        if (text.empty() || !byte_matches(text.front(), pattern))
            return false;
        const bool slash = text.front() == '/';
        text.remove_prefix(slash ? std::min(text.find_first_not_of('/'), text.size()) : 1);
    }
    const std::string_view behind = glob.substr(star + 1);
    for (auto pattern = behind.rbegin(); pattern != behind.rend(); ++pattern) {
        if (text.empty() || !byte_matches(text.back(), *pattern))
            return false;
        const bool slash = text.back() == '/';
        text.remove_suffix(slash ? text.size() - (text.find_last_not_of('/') + 1) : 1);
    }
    return true;
}

/// Whether a glob takes the rest of a path, whose empty pieces don't count.
bool glob_matches(std::string_view rest, const std::string& glob)
{
    while (rest.ends_with('/'))
        rest.remove_suffix(1);
    return rest.find("//") == std::string_view::npos ? slate::wildcard_match(rest, glob)
                                                     : glob_matches_doubled_slashes(rest, glob);
}

bool segment_matches(const Segment& segment, const Pieces& pieces)
{
    if (segment.is_glob)
        return glob_matches(pieces.rest(), segment.text);
    return segment.is_variable || pieces.piece_is(segment.text);
}

[[noreturn]] void refuse(slate::SourceLine line, std::string_view reason, std::string_view detail = {})
{
    throw Exception(slate::trace_error(line, reason, detail));
}

/// Takes the optional form, "(...)" or "(...=default)", apart; returns what stands in the parentheses.
std::string compile_optional(Segment& segment, const std::string& piece)
{
    if (piece.size() <= 2 || !piece.starts_with('(') || !piece.ends_with(')'))
        return piece;

    segment.is_required = false;
    std::string inner = piece.substr(1, piece.size() - 2);
    if (inner.find('=') != std::string::npos) {
        auto [left, right] = slate::split<std::pair<std::string, std::string>>(inner, "=", false, true);
        // Only the form with "=" loses its parentheses: "(b)" stays as it was written.
        segment.text = left;
        segment.default_value = std::make_shared<const std::string>(std::move(right));
        inner = std::move(left);
    }
    return inner;
}

void check_structure(const std::vector<Segment>& segments)
{
    if (segments.empty())
        return;
    if (segments.front().is_variable)
        refuse(SLATE_HERE, "route pattern cannot start with a dynamic segment");
    if (!segments.front().is_required)
        refuse(SLATE_HERE, "route pattern cannot start with an optional segment");
    const auto optional =
        std::find_if(segments.begin(), segments.end(), [](const Segment& s) { return !s.is_required; });
    if (std::any_of(optional, segments.end(), [](const Segment& s) { return s.is_required; }))
        refuse(SLATE_HERE, "route pattern cannot contain optional segment before a required one");
}

bool is_placeholder(const Segment& segment)
{
    return !segment.is_variable && segment.text.starts_with('<') && segment.text.ends_with('>');
}
} // namespace

RoutePattern::RoutePattern(std::string pattern_text, std::vector<std::string> glob_names)
    : pattern(std::move(pattern_text))
{
    compile_into_segments(std::move(glob_names));
}

void RoutePattern::compile_into_segments(std::vector<std::string> glob_names)
{
    std::reverse(glob_names.begin(), glob_names.end());
    std::set<std::string> seen_globs;

    segments.clear();
    for (const std::string& piece : split_pattern(pattern)) {
        Segment& segment = segments.emplace_back();
        segment.text = piece;

        const std::string inner = compile_optional(segment, piece);
        if (inner.starts_with(':')) {
            if (inner.ends_with('_'))
                refuse(SLATE_HERE, "route-pattern variables ending with _ are reserved");
            segment.is_variable = true;
            segment.name = inner.substr(1);
        }
        else if (inner.find('*') != std::string::npos) {
            segment.is_variable = true;
            segment.is_glob = true;
            if (!glob_names.empty()) {
                segment.name = glob_names.back();
                glob_names.pop_back();
            }
            else {
                // Can't happen while a pattern has one glob at most.
                if (!seen_globs.insert(inner).second)
                    refuse(SLATE_HERE, "route-pattern unnamed positional glob not unique");
                segment.name = inner;
            }
        }
    }
    check_structure(segments);
}

std::vector<std::string> RoutePattern::split_pattern(std::string_view text) const
{
    const auto glob = text.find('*');
    if (glob == std::string_view::npos)
        return split_on_slashes(text);
    if (glob != text.rfind('*'))
        refuse(SLATE_HERE, "route pattern cannot contain multiple globs");

    const auto slash = text.rfind('/', glob);
    if (slash == std::string_view::npos)
        return {std::string(text)};
    auto pieces = split_on_slashes(text.substr(0, slash));
    pieces.emplace_back(text.substr(slash + 1));
    return pieces;
}

std::vector<std::string> RoutePattern::split_path(std::string_view path) const
{
    auto pieces = split_on_slashes(path);
    const std::size_t count = segments.size();
    if (segments.empty() || !segments.back().is_glob || pieces.size() <= count)
        return pieces;

    const auto rest = pieces.begin() + static_cast<std::ptrdiff_t>(count) - 1;
    std::string joined = slate::join(std::vector<std::string>(rest, pieces.end()), "/");
    pieces.erase(rest, pieces.end());
    pieces.push_back(std::move(joined));
    return pieces;
}

bool RoutePattern::match(std::string_view path) const
{
    if (pattern.empty())
        return true;
    if (is_static())
        return path == pattern;

    Pieces pieces(path);
    for (const Segment& segment : segments) {
        if (pieces.at_end())
            return !segment.is_required;
        if (!segment_matches(segment, pieces))
            return false;
        if (segment.is_glob)
            return true;
        pieces.advance();
    }
    return pieces.at_end();
}

RoutePattern::Variables RoutePattern::variables_of(std::string_view path) const
{
    Variables variables;
    if (is_static())
        return variables;

    auto pieces = split_path(path);
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const Segment& segment = segments[i];
        if (!segment.is_variable)
            continue;
        if (i < pieces.size())
            variables.emplace_back(segment.name, std::move(pieces[i]));
        else if (segment.default_value)
            variables.emplace_back(segment.name, *segment.default_value);
    }
    return variables;
}

std::shared_ptr<slate::Dictionary> RoutePattern::parse(std::string_view path) const
{
    return parse(path, variables_of(path));
}

std::shared_ptr<slate::Dictionary> RoutePattern::parse(std::string_view path,
                                                       const Variables& variables) const
{
    auto result = slate::make_dictionary();
    result->set("pattern_", std::string_view(pattern));
    result->set("path_", path);
    for (const auto& [name, value] : variables)
        result->set(name, std::string_view(value));
    return result;
}

std::string RoutePattern::make_path(const std::shared_ptr<slate::Dictionary>& variables) const
{
    std::string path;
    path.reserve(200);
    for (const Segment& segment : segments) {
        if (!segment.is_variable) {
            path += "/" + segment.text;
            continue;
        }
        if (!segment.is_required && !segment.default_value && !variables->has(segment.name))
            continue;
        const std::string_view dflt = segment.default_value ? *segment.default_value : std::string_view();
        path += "/" + variables->get(segment.name, dflt);
    }
    return path;
}

std::optional<std::string> RoutePattern::default_pattern() const
{
    if (is_static())
        return pattern;

    std::string path;
    for (const Segment& segment : segments) {
        if (!segment.is_variable)
            path += "/" + segment.text;
        else if (segment.is_required)
            return std::nullopt;
        else if (segment.default_value)
            path += "/" + *segment.default_value;
        else
            break;
    }
    return path;
}

bool RoutePattern::is_dynamic() const
{
    return std::any_of(segments.begin(), segments.end(), [](const Segment& s) { return s.is_variable; });
}

bool RoutePattern::is_static() const
{
    return !is_dynamic();
}

void RoutePattern::prime(const std::shared_ptr<const slate::Dictionary>& settings)
{
    if (pattern.empty())
        return;

    for (Segment& segment : segments) {
        if (!is_placeholder(segment))
            continue;
        const std::string key = slate::trim_suffix(slate::trim_prefix(segment.text, "<"), ">");
        if (!settings || !settings->has(key))
            refuse(SLATE_HERE, "failed to prime route; key does not exist: ", key);
        segment.text = settings->get(key, "");
    }
    // Written only if it changes: a route that is added to a second server is in use on the first one.
    std::string rebuilt =
        "/" + slate::join(segments, "/", [](const Segment& segment) { return segment.text; });
    if (rebuilt != pattern)
        pattern = std::move(rebuilt);
}
} // namespace tarn
