// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "slate/require_cxx20.h"

#include <array>
#include <compare>
#include <string>

namespace slate {
/// A universally unique identifier. Its text has 36 characters: hexadecimal digits in lower case, and
/// hyphens.
class Uuid {
public:
    /// All zero.
    Uuid() = default;
    /// Reads the text form, in upper or lower case. Throws std::invalid_argument, with the text in its
    /// message, for any other text.
    explicit Uuid(const std::string& text);

    std::string to_string() const;

    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    friend Uuid make_uuid();

    std::array<unsigned char, 16> bytes_{};
};

/// A new random UUID. Any thread may call it.
Uuid make_uuid();
} // namespace slate
