// SPDX-License-Identifier: Apache-2.0
#include "slate/line_limit.h"

#include <string_view>

namespace slate {
namespace {
constexpr std::uint64_t max_equal_lines = 20;
constexpr std::chrono::seconds period{10};

// More places log in turn only if somebody wants them to; the oldest is forgotten then, and its lines are
// written again.
constexpr std::size_t max_groups = 256;

std::string_view text_of(const char* file)
{
    return file ? file : "";
}
} // namespace

void LineLimit::pass(const LogRecord& record, const Write& write)
{
    const auto now = Clock::now();
    while (!by_age_.empty() && now - groups_.find(*by_age_.front())->second.begin >= period)
        forget_oldest(write);

    const std::size_t text = record.level < InfoLevel ? std::hash<std::string_view>()(record.text) : 0;
    const auto [found, is_new] =
        groups_.try_emplace(Key{record.level, std::string(record.provider),
                                std::string(text_of(record.source.file())), record.source.line(), text});
    Group& group = found->second;
    if (is_new) {
        group.begin = now;
        group.place = by_age_.insert(by_age_.end(), &found->first);
    }
    if (++group.lines <= max_equal_lines)
        write(record);
    if (groups_.size() > max_groups)
        forget_oldest(write);
}

void LineLimit::finish(const Write& write)
{
    while (!by_age_.empty())
        forget_oldest(write);
}

void LineLimit::forget_oldest(const Write& write)
{
    const auto oldest = groups_.find(*by_age_.front());
    by_age_.pop_front();
    const auto group = groups_.extract(oldest);
    if (group.mapped().lines <= max_equal_lines)
        return;
    const auto& [level, provider, file, line, text] = group.key();
    const std::uint64_t left_out = group.mapped().lines - max_equal_lines;
    write({level, provider, SourceLine(file.c_str(), line),
           std::to_string(left_out) + (left_out == 1 ? " equal line left out" : " equal lines left out")});
}
} // namespace slate
