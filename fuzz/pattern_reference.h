// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/wildcard_reference.h"

namespace tarn_fuzz {
/// The pattern language, written down rule by rule, without regard to speed: what tarn::RoutePattern has to
/// do.
struct PatternReference {
    using Variables = std::map<std::string, std::string>;

    struct Segment {
        bool is_variable = false;
        bool is_glob = false;
        bool is_required = true;
        std::optional<std::string> default_value;
        std::string text;
        std::string name;
    };

    /// Throws std::invalid_argument with the message of a rule that the pattern breaks.
    explicit PatternReference(const std::string& pattern_text, std::vector<std::string> glob_names)
        : pattern(pattern_text)
    {
        for (const std::string& piece : pieces_of_pattern(pattern))
            segments.push_back(compile(piece, glob_names));
        check();
    }

    bool match(const std::string& path) const
    {
        if (pattern.empty())
            return true;
        if (!is_dynamic())
            return path == pattern;
        const auto pieces = pieces_of_path(path);
        if (pieces.size() > segments.size())
            return false;
        for (std::size_t i = 0; i < segments.size(); ++i) {
            const Segment& segment = segments[i];
            if (i >= pieces.size())
                return !segment.is_required;
            if (segment.is_glob ? !wildcard_reference(pieces[i], segment.text)
                                : !segment.is_variable && pieces[i] != segment.text)
                return false;
        }
        return true;
    }

    Variables parse(const std::string& path) const
    {
        Variables variables{{"pattern_", pattern}, {"path_", path}};
        if (!is_dynamic())
            return variables;
        const auto pieces = pieces_of_path(path);
        for (std::size_t i = 0; i < segments.size(); ++i) {
            if (!segments[i].is_variable)
                continue;
            if (i < pieces.size())
                variables[segments[i].name] = pieces[i];
            else if (segments[i].default_value)
                variables[segments[i].name] = *segments[i].default_value;
        }
        return variables;
    }

    std::string make_path(const Variables& variables) const
    {
        std::string path;
        for (const Segment& segment : segments) {
            const auto given = variables.find(segment.name);
            if (!segment.is_variable)
                path += "/" + segment.text;
            else if (given != variables.end())
                path += "/" + given->second;
            else if (segment.is_required || segment.default_value)
                path += "/" + segment.default_value.value_or("");
        }
        return path;
    }

    std::optional<std::string> default_path() const
    {
        if (!is_dynamic())
            return pattern;
        std::string path;
        for (const Segment& segment : segments) {
            if (!segment.is_variable)
                path += "/" + segment.text;
            else if (segment.is_required)
                return std::nullopt;
            else if (!segment.default_value)
                return path;
            else
                path += "/" + *segment.default_value;
        }
        return path;
    }

    /// Throws std::invalid_argument for a missing setting.
    void prime(const Variables& settings)
    {
        if (pattern.empty())
            return;
        pattern = "/";
        for (std::size_t i = 0; i < segments.size(); ++i) {
            std::string& text = segments[i].text;
            if (!segments[i].is_variable && text.size() >= 2 && text.front() == '<' && text.back() == '>') {
                const std::string key = text.substr(1, text.size() - 2);
                if (settings.count(key) == 0)
                    throw std::invalid_argument("failed to prime route; key does not exist: " + key);
                text = settings.at(key);
            }
            pattern += (i > 0 ? "/" : "") + text;
        }
    }

    bool is_dynamic() const
    {
        for (const Segment& segment : segments) {
            if (segment.is_variable)
                return true;
        }
        return false;
    }

    static std::vector<std::string> split_on_slashes(const std::string& text)
    {
        std::vector<std::string> pieces(1);
        for (const char c : text) {
            if (c == '/')
                pieces.emplace_back();
            else
                pieces.back() += c;
        }
        std::erase(pieces, "");
        return pieces;
    }

    static std::vector<std::string> pieces_of_pattern(const std::string& text)
    {
        const auto star = text.find('*');
        if (star == std::string::npos)
            return split_on_slashes(text);
        if (text.find('*', star + 1) != std::string::npos)
            throw std::invalid_argument("route pattern cannot contain multiple globs");
        const auto slash = text.substr(0, star).rfind('/');
        if (slash == std::string::npos)
            return {text};
        auto pieces = split_on_slashes(text.substr(0, slash));
        pieces.push_back(text.substr(slash + 1));
        return pieces;
    }

    std::vector<std::string> pieces_of_path(const std::string& path) const
    {
        auto pieces = split_on_slashes(path);
        if (segments.empty() || !segments.back().is_glob)
            return pieces;
        while (pieces.size() > segments.size()) {
            const std::string last = pieces.back();
            pieces.pop_back();
            pieces.back() += "/" + last;
        }
        return pieces;
    }

    std::string pattern;
    std::vector<Segment> segments;

private:
    static Segment compile(const std::string& piece, std::vector<std::string>& glob_names)
    {
        Segment segment;
        segment.text = piece;
        std::string inner = piece;
        if (piece.size() > 2 && piece.front() == '(' && piece.back() == ')') {
            segment.is_required = false;
            inner = piece.substr(1, piece.size() - 2);
            if (const auto equals = inner.find('='); equals != std::string::npos) {
                segment.default_value = inner.substr(equals + 1);
                inner = inner.substr(0, equals);
                segment.text = inner;
            }
        }
        if (!inner.empty() && inner.front() == ':') {
            if (inner.back() == '_')
                throw std::invalid_argument("route-pattern variables ending with _ are reserved");
            segment.is_variable = true;
            segment.name = inner.substr(1);
        }
        else if (inner.find('*') != std::string::npos) {
            segment.is_variable = true;
            segment.is_glob = true;
            segment.name = inner;
            if (!glob_names.empty()) {
                segment.name = glob_names.front();
                glob_names.erase(glob_names.begin());
            }
        }
        return segment;
    }

    void check() const
    {
        if (segments.empty())
            return;
        if (segments.front().is_variable)
            throw std::invalid_argument("route pattern cannot start with a dynamic segment");
        if (!segments.front().is_required)
            throw std::invalid_argument("route pattern cannot start with an optional segment");
        for (std::size_t i = 1; i < segments.size(); ++i) {
            if (segments[i].is_required && !segments[i - 1].is_required)
                throw std::invalid_argument(
                    "route pattern cannot contain optional segment before a required one");
        }
    }
};
} // namespace tarn_fuzz
