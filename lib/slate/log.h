// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

/// Where a log call stands, for its first argument.
#define SLATE_HERE (::slate::SourceLine(__FILE__, __LINE__))

namespace slate {
class Provider;

/// How much a log line matters, from least to most. A line is written if its level is at least log_level().
enum TraceLevel : int {
    ExtremeLevel = 0,
    DebugLevel = 1,
    VerboseLevel = 2,
    InfoLevel = 3,
    WarnLevel = 4,
    ErrorLevel = 5,
};

/// The name of a level in lower case, such as "warn".
std::string_view to_string(TraceLevel level);

/// A source file's name and a line number. The text must outlive the value; a literal does.
class SourceLine {
public:
    SourceLine(const char* file, int line) : file_(file), line_(line) {}

    const char* file() const { return file_; }
    int line() const { return line_; }

private:
    const char* file_;
    int line_;
};

/// The lowest level that is written. Starts at InfoLevel; never set to DebugLevel or below on its own,
/// because applications treat debug logging as a door for developers. Any thread.
TraceLevel log_level();
void set_log_level(TraceLevel level);

/// Whether a line of this level would be written, so that a caller can skip building costly text.
/// One relaxed atomic read. Any thread.
bool is_logging_allowed(TraceLevel level);

/// One line on its way to the sinks. The views hold for the duration of LogSink::write only.
struct LogRecord {
    TraceLevel level;
    /// Name of the provider that logs, instance included, or empty.
    std::string_view provider;
    SourceLine source;
    std::string_view text;
};

/// Where log lines go. Derive from it for a target of your own.
///
/// Threads: write() is called on whatever thread logs, on several at once, and must not throw. It may log
/// itself; such lines are not handed to any sink, so that no sink can chase its own tail.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

/// Lines to standard error, coloured if it is a terminal. What is used until set_log_sinks is called.
std::shared_ptr<LogSink> make_stderr_sink();

/// Lines to the system log, which a journal reads too. `ident` is the program's name there; the process has
/// one such connection, so the last one made names it.
std::shared_ptr<LogSink> make_syslog_sink(const std::string& ident);

/// Lines to a function, for applications that show logs and for tests. Calls may overlap.
std::shared_ptr<LogSink> make_callback_sink(std::function<void(const LogRecord&)> callback);

/// Replaces all sinks and returns the ones before. An empty list discards every line. A write that is under
/// way on another thread may still reach an old sink. Any thread.
std::vector<std::shared_ptr<LogSink>> set_log_sinks(std::vector<std::shared_ptr<LogSink>> sinks);

/// Writes one line at a level given by number. `provider` may be null. Any thread; never throws.
void log(TraceLevel level, SourceLine source, std::string_view text);
void log(const std::shared_ptr<Provider>& provider, TraceLevel level, SourceLine source,
         std::string_view text);

/// Writes one line at the named level. The pieces are joined without a separator, and only if the level is
/// on. `provider` may be null. Any thread; never throws.
#define SLATE_DECLARE_LOG_FUNCTIONS(name)                                                                    \
    void name(SourceLine source, std::string_view a, std::string_view b = {}, std::string_view c = {},       \
              std::string_view d = {});                                                                      \
    void name(const std::shared_ptr<Provider>& provider, SourceLine source, std::string_view a,              \
              std::string_view b = {}, std::string_view c = {}, std::string_view d = {});
SLATE_DECLARE_LOG_FUNCTIONS(log_extreme)
SLATE_DECLARE_LOG_FUNCTIONS(log_debug)
SLATE_DECLARE_LOG_FUNCTIONS(log_verbose)
SLATE_DECLARE_LOG_FUNCTIONS(log_info)
SLATE_DECLARE_LOG_FUNCTIONS(log_warn)
SLATE_DECLARE_LOG_FUNCTIONS(log_error)
#undef SLATE_DECLARE_LOG_FUNCTIONS

/// Logs at error level and returns the joined text, to be thrown: `throw Exception(trace_error(SLATE_HERE,
/// ...))`.
std::string trace_error(SourceLine source, std::string_view a, std::string_view b = {},
                        std::string_view c = {}, std::string_view d = {});
std::string trace_error(const std::shared_ptr<Provider>& provider, SourceLine source, std::string_view a,
                        std::string_view b = {}, std::string_view c = {}, std::string_view d = {});

/// The same at a level given by number.
std::string trace(TraceLevel level, SourceLine source, std::string_view text);

/// A log line written as a stream. The text goes out when the object dies, unless nothing was written.
class Log {
public:
    Log(TraceLevel level, const char* file, int line, std::shared_ptr<Provider> provider = nullptr)
        : level_(level),
          file_(file),
          line_(line),
          provider_(std::move(provider))
    {
    }
    ~Log()
    {
        if (const std::string text = stream_.str(); !text.empty())
            log(provider_, level_, SourceLine(file_, line_), text);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    std::ostream& stream() { return stream_; }

    template <class T>
    Log& operator<<(const T& value)
    {
        if (stream_) // else an operator of the value's own would be called in vain
            stream_ << value;
        return *this;
    }

    /// Manipulators such as std::endl.
    Log& operator<<(std::ostream& (*manipulator)(std::ostream&))
    {
        if (stream_)
            manipulator(stream_);
        return *this;
    }

private:
    TraceLevel level_;
    const char* file_;
    int line_;
    std::shared_ptr<Provider> provider_;
    std::ostringstream stream_;
};

/// A debug line written as a stream: `slate::Debug(__FILE__, __LINE__) << "n = " << n;`.
/// While debug logging is off the stream's fail bit is set, so nothing is formatted.
class Debug : public Log {
public:
    Debug(const char* file, int line) : Log(DebugLevel, file, line)
    {
        if (!is_logging_allowed(DebugLevel))
            stream().setstate(std::ios_base::failbit);
    }
};
} // namespace slate
