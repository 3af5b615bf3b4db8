// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <tuple>

#include "slate/log.h"

namespace slate {
/// Decides which lines a sink leaves out, so that nobody can fill a disk with them: of equal lines, only the
/// first 20 within ten seconds are written, and how many were left out then follows with the next line that
/// comes.
///
/// Lines are equal if level, provider and place in the source are, whatever their text says, since whoever
/// causes them can vary the text. Below InfoLevel the text must be equal too: somebody has turned these lines
/// on to read them. Not part of the installed interface.
///
/// Threads: one at a time.
class LineLimit {
public:
    using Write = std::function<void(const LogRecord&)>;

    /// Calls `write` for what is to be written now: counts of earlier lines, and the record, or nothing.
    void pass(const LogRecord& record, const Write& write);

    /// Calls `write` for the counts that are still to come, and forgets all lines.
    void finish(const Write& write);

private:
    using Clock = std::chrono::steady_clock;
    // Level, provider, file, line, and for levels below InfoLevel a hash of the text.
    using Key = std::tuple<TraceLevel, std::string, std::string, int, std::size_t>;
    struct Group {
        Clock::time_point begin;
        std::uint64_t lines = 0;
        std::list<const Key*>::iterator place;
    };

    void forget_oldest(const Write& write);

    std::map<Key, Group> groups_;
    std::list<const Key*> by_age_; // the oldest first
};
} // namespace slate
