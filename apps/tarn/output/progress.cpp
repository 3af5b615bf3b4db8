// SPDX-License-Identifier: Apache-2.0
#include "output/progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include <unistd.h>

#include "output/terminal.h"

namespace tarn_command {
namespace {
constexpr std::chrono::milliseconds pause(100);
constexpr std::size_t max_bar = 40;
} // namespace

Progress::Progress(std::optional<std::uint64_t> total, bool is_wanted)
    : total_(total),
      is_wanted_(is_wanted && is_terminal(STDERR_FILENO))
{
}

Progress::~Progress()
{
    clear();
}

void Progress::show(std::uint64_t bytes)
{
    const auto now = Clock::now();
    if (!is_wanted_ || now - drawn_ < pause)
        return;
    drawn_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    std::string text = bytes_text(static_cast<double>(bytes));
    if (total_ && *total_ > 0)
        text += " of " + bytes_text(static_cast<double>(*total_));
    text += "  " + bytes_text(static_cast<double>(bytes) / seconds) + "/s";

    const std::size_t width = terminal_width(STDERR_FILENO);
    const std::size_t rest = width > text.size() + 5 ? width - text.size() - 5 : 0;
    if (total_ && *total_ > 0 && rest >= 8) {
        const std::size_t bar = std::min(rest, max_bar);
        const auto done = static_cast<std::size_t>(
            std::min(1.0, static_cast<double>(bytes) / static_cast<double>(*total_)) *
            static_cast<double>(bar));
        text = "[" + std::string(done, '#') + std::string(bar - done, '.') + "] " + text;
    }
    (void)std::fprintf(stderr, "\r\x1b[K%s", fit(text, width > 1 ? width - 1 : 1).c_str());
    is_shown_ = true;
}

void Progress::clear()
{
    if (is_shown_)
        (void)std::fputs("\r\x1b[K", stderr);
    is_shown_ = false;
}
} // namespace tarn_command
