// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarn_fuzz {
/// Reads an input piece by piece. Behind its end every number is 0 and every text is empty.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return rest_.empty(); }

    std::uint8_t byte()
    {
        if (rest_.empty())
            return 0;
        const auto value = static_cast<std::uint8_t>(rest_.front());
        rest_.remove_prefix(1);
        return value;
    }

    bool flag() { return (byte() & 1) != 0; }

    /// Eight bytes, the lowest first.
    std::uint64_t number()
    {
        std::uint64_t value = 0;
        for (unsigned int shift = 0; shift < 64; shift += 8)
            value |= std::uint64_t{byte()} << shift;
        return value;
    }

    /// A text up to the next line feed, which people can read and write in the corpus.
    std::string line()
    {
        const auto end = std::min(rest_.find('\n'), rest_.size());
        std::string text(rest_.substr(0, end));
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        return text;
    }

    /// A text of any bytes, behind its length in two bytes, the lower one first.
    std::string text()
    {
        std::size_t length = byte();
        length |= std::size_t{byte()} << 8;
        length = std::min(length, rest_.size());
        std::string result(rest_.substr(0, length));
        rest_.remove_prefix(length);
        return result;
    }

    std::string rest()
    {
        std::string result(rest_);
        rest_ = {};
        return result;
    }

private:
    std::string_view rest_;
};
} // namespace tarn_fuzz
