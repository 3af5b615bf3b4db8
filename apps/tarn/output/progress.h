// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tarn_command {
/// How far a transfer is, in one line of standard error that is drawn anew. Draws nothing if that is no
/// terminal, and nothing for a transfer that ends at once.
class Progress {
public:
    /// `total` in bytes, if it is known; `is_wanted` is false where the line would disturb the output.
    Progress(std::optional<std::uint64_t> total, bool is_wanted);
    /// Removes the line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(std::uint64_t bytes);
    /// Removes the line, so that something else can be printed.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    std::optional<std::uint64_t> total_;
    bool is_wanted_;
    bool is_shown_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point drawn_ = start_;
};
} // namespace tarn_command
