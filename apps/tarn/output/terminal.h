// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn_command {
/// Whether a stream is shown on a terminal.
bool is_terminal(int descriptor);

/// The columns of the terminal at a stream; 80 if it is none.
std::size_t terminal_width(int descriptor);

/// Switches colours off everywhere, as --no-color does.
void forbid_colours();

/// Whether to colour a stream: it is a terminal, and neither NO_COLOR nor --no-color speaks against it.
bool is_coloured(int descriptor);

enum class Colour { Plain, Bold, Red, Green, Yellow, Blue, Magenta, Cyan, Grey };

/// The text in that colour, if standard output is coloured.
std::string paint(std::string_view text, Colour colour);

/// Text of a peer's with everything in it that could control a terminal made visible: "\x1b", "\u{202e}".
/// What isn't UTF-8 becomes U+FFFD. Line breaks and tabs stay in `Lines` and are escaped in `OneLine`.
enum class Layout { OneLine, Lines };
std::string escape(std::string_view text, Layout layout = Layout::OneLine);

/// The same for a sentence, which nobody wants to read the whole of if it is long: cut, with "..." at its
/// end.
std::string brief(std::string_view text);

/// Whether a body is text: UTF-8 without control characters other than line breaks and tabs.
bool is_plain_text(std::string_view body);

/// How many columns a text takes; each character counts as one.
std::size_t columns_of(std::string_view text);

/// The text, cut to that many columns, with "…" at the end if it was longer.
std::string fit(std::string_view text, std::size_t columns);

/// "512 B", "1.5 MiB".
std::string bytes_text(double bytes);
} // namespace tarn_command
