// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "slate/log.h"

namespace tarn_test {
struct LoggedLine {
    slate::TraceLevel level;
    std::string provider;
    std::string text;
};

/// Collects all log lines instead of writing them, for as long as it lives, and puts sinks and level back
/// then.
class LogCapture {
public:
    LogCapture()
        : level_(slate::log_level()),
          sinks_(slate::set_log_sinks({slate::make_callback_sink([state = state_](
                                                                     const slate::LogRecord& record) {
              const std::lock_guard lock(state->mutex);
              state->lines.push_back({record.level, std::string(record.provider), std::string(record.text)});
          })}))
    {
    }
    ~LogCapture()
    {
        slate::set_log_sinks(sinks_);
        slate::set_log_level(level_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LoggedLine> lines() const
    {
        const std::lock_guard lock(state_->mutex);
        return state_->lines;
    }

    /// The texts of a level that begin with `beginning`.
    std::vector<std::string> texts(slate::TraceLevel level, const std::string& beginning = "") const
    {
        std::vector<std::string> result;
        for (const LoggedLine& line : lines()) {
            if (line.level == level && line.text.starts_with(beginning))
                result.push_back(line.text);
        }
        return result;
    }

    std::size_t count(slate::TraceLevel level, const std::string& beginning = "") const
    {
        return texts(level, beginning).size();
    }

    /// Whether a line of exactly this text was logged at that level.
    bool has(slate::TraceLevel level, const std::string& text) const
    {
        const auto all = lines();
        return std::any_of(all.begin(), all.end(),
                           [&](const LoggedLine& line) { return line.level == level && line.text == text; });
    }

    void clear()
    {
        const std::lock_guard lock(state_->mutex);
        state_->lines.clear();
    }

private:
    // Shared with the sink, which a log call on another thread may still be using when the capture ends.
    struct State {
        std::mutex mutex; // guards lines
        std::vector<LoggedLine> lines;
    };

    std::shared_ptr<State> state_ = std::make_shared<State>();
    slate::TraceLevel level_;
    std::vector<std::shared_ptr<slate::LogSink>> sinks_;
};
} // namespace tarn_test
