// SPDX-License-Identifier: Apache-2.0
#include "slate/strings.h"

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

// How a text is matched in linear time, whatever the pattern:
// 1. The stars cut the pattern into segments of literal bytes and "?".
// 2. The first segment must be at the beginning of the text, and the last one at its end.
// 3. Each segment in between takes the leftmost place, after the segment before it, where it fits. A place
//    further to the right would only leave less text for the rest, so no place is ever tried twice.

namespace slate {
namespace {
constexpr std::size_t word_bits = 64;
constexpr std::size_t byte_values = UCHAR_MAX + 1;

unsigned char byte_at(std::string_view text, std::size_t i)
{
    return static_cast<unsigned char>(text[i]);
}

bool matches_here(std::string_view text, std::string_view segment)
{
    for (std::size_t i = 0; i < segment.size(); ++i) {
        if (segment[i] != '?' && segment[i] != text[i])
            return false;
    }
    return true;
}

std::size_t find_literal(std::string_view text, std::string_view segment)
{
    const void* place = memmem(text.data(), text.size(), segment.data(), segment.size());
    return place ? static_cast<std::size_t>(static_cast<const char*>(place) - text.data())
                 : std::string_view::npos;
}

// The two searches below keep one bit for each byte of the segment: bit i is set while segment[0..i] matches
// the text that ends at the current byte. Each byte of the text shifts the bits up by one and clears the bits
// of those places where it doesn't fit.

std::size_t find_short(std::string_view text, std::string_view segment)
{
    std::uint64_t wild = 0;
    for (std::size_t i = 0; i < segment.size(); ++i)
        wild |= static_cast<std::uint64_t>(segment[i] == '?') << i;

    std::array<std::uint64_t, byte_values> fitting;
    fitting.fill(wild);
    for (std::size_t i = 0; i < segment.size(); ++i) {
        if (segment[i] != '?')
            fitting[byte_at(segment, i)] |= std::uint64_t{1} << i;
    }

    const std::uint64_t complete = std::uint64_t{1} << (segment.size() - 1);
    std::uint64_t state = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        state = (state << 1 | 1) & fitting[byte_at(text, i)];
        if (state & complete)
            return i + 1 - segment.size();
    }
    return std::string_view::npos;
}

std::size_t find_long(std::string_view text, std::string_view segment)
{
    const std::size_t words = (segment.size() + word_bits - 1) / word_bits;
    std::vector<std::uint64_t> fitting(byte_values * words);
    for (std::size_t i = 0; i < segment.size(); ++i) {
        const std::uint64_t bit = std::uint64_t{1} << i % word_bits;
        if (segment[i] != '?') {
            fitting[byte_at(segment, i) * words + i / word_bits] |= bit;
            continue;
        }
        for (std::size_t byte = 0; byte < byte_values; ++byte)
            fitting[byte * words + i / word_bits] |= bit;
    }

    const std::uint64_t complete = std::uint64_t{1} << (segment.size() - 1) % word_bits;
    std::vector<std::uint64_t> state(words);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::uint64_t* fits = &fitting[byte_at(text, i) * words];
        std::uint64_t carry = 1;
        for (std::size_t word = 0; word < words; ++word) {
            const std::uint64_t next_carry = state[word] >> (word_bits - 1);
            state[word] = (state[word] << 1 | carry) & fits[word];
            carry = next_carry;
        }
        if (state.back() & complete)
            return i + 1 - segment.size();
    }
    return std::string_view::npos;
}

/// The leftmost place where a segment fits, or npos. The segment must not be empty.
std::size_t find_segment(std::string_view text, std::string_view segment)
{
    if (segment.size() > text.size())
        return std::string_view::npos;
    if (segment.find('?') == std::string_view::npos)
        return find_literal(text, segment);
    return segment.size() <= word_bits ? find_short(text, segment) : find_long(text, segment);
}
} // namespace

bool wildcard_match(std::string_view text, std::string_view pattern)
{
    const auto first_star = pattern.find('*');
    if (first_star == std::string_view::npos)
        return text.size() == pattern.size() && matches_here(text, pattern);

    const auto last_star = pattern.rfind('*');
    const auto first = pattern.substr(0, first_star);
    const auto last = pattern.substr(last_star + 1);
    if (text.size() < first.size() + last.size() || !matches_here(text, first) ||
        !matches_here(text.substr(text.size() - last.size()), last))
        return false;

    auto rest = text.substr(first.size(), text.size() - first.size() - last.size());
    auto inner = pattern.substr(first_star, last_star - first_star);
    while (!inner.empty()) {
        inner.remove_prefix(1); // the star
        const auto segment = inner.substr(0, inner.find('*'));
        inner.remove_prefix(segment.size());
        if (segment.empty())
            continue;
        const auto place = find_segment(rest, segment);
        if (place == std::string_view::npos)
            return false;
        rest.remove_prefix(place + segment.size());
    }
    return true;
}
} // namespace slate
