// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <fstream>
#include <istream>
#include <optional>
#include <string>

namespace tarn_command {
/// A body as an argument names it: a text, "@FILE" for the contents of a file, or "-" for standard input.
class BodySource {
public:
    /// Opens the file. Throws Failure if it can't be read.
    explicit BodySource(const std::optional<std::string>& argument);

    /// Null if the body is a text.
    std::istream* stream() { return stream_; }
    const std::string& text() const { return text_; }
    /// Of the file, in bytes, if it has a size.
    std::optional<std::uint64_t> size() const { return size_; }

    /// The whole body.
    std::string read_all();

private:
    std::string text_;
    std::ifstream file_;
    std::istream* stream_ = nullptr;
    std::optional<std::uint64_t> size_;
};
} // namespace tarn_command
