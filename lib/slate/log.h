// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <ios>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The source file and line of a call, to be passed to a log function.
#define SLATE_HERE (::slate::SourceLine(__FILE__, __LINE__))

namespace slate {
class Provider;

/// How important a log line is, in ascending order. A line is written if its level is at least log_level().
enum TraceLevel : int {
    ExtremeLevel = 0,
    DebugLevel = 1,
    VerboseLevel = 2,
    InfoLevel = 3,
    WarnLevel = 4,
    ErrorLevel = 5,
};

/// The name of a level in lower case, such as "warn"; "unknown" for a number that is no level.
std::string_view to_string(TraceLevel level);

/// The name of a source file and a line number. The name is not copied, so it should be a literal.
class SourceLine {
public:
    SourceLine(const char* file, int line) : file_(file), line_(line) {}

    const char* file() const { return file_; }
    int line() const { return line_; }

private:
    const char* file_;
    int line_;
};

/// The lowest level that is written. It is InfoLevel until set_log_level() changes it, and nothing in the
/// library does: applications may allow developers more while debug lines are written. Any thread may call
/// both functions.
TraceLevel log_level();
void set_log_level(TraceLevel level);

/// Whether a line of this level would be written, so that a caller can skip building costly text. Any thread
/// may call it; it costs one relaxed atomic read.
bool is_logging_allowed(TraceLevel level);

/// A log line as the sinks get it. Its texts are valid only until LogSink::write returns.
struct LogRecord {
    TraceLevel level;
    /// The name of the provider that logs, including its instance. Empty if there is no provider.
    std::string_view provider;
    SourceLine source;
    std::string_view text;
};

/// A destination of log lines. Derive from it for a destination of your own.
class LogSink {
public:
    virtual ~LogSink() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Writes a line that its level allows.
    ///
    /// Threads: it is called on each thread that logs, and so on several at once. That thread waits for it.
    ///
    /// Errors: it should not throw; an exception is dropped, and the other sinks still get the line. Lines
    /// that it logs itself are dropped too, since they might never come to an end.
    virtual void write(const LogRecord& record) = 0;
};

/// A sink that writes lines to standard error: time, level (coloured on a terminal), provider, text and
/// source. Line breaks and control characters in them are escaped. It is the only sink until set_log_sinks()
/// is called.
///
/// It never waits for a reader. A line that a pipe, a socket or a stopped terminal has no room for is lost,
/// and counted in the next one: "12 lines lost, ...".
///
/// Of equal lines it writes 20 within ten seconds, so that nobody can fill a disk with them, and leaves out
/// the rest. How many that were follows with the next line that comes after the ten seconds: "980 equal lines
/// left out". Lines are equal if level, provider and place in the source are, whatever they say; below
/// InfoLevel only if the text is equal too. It remembers the last 256 places.
std::shared_ptr<LogSink> make_stderr_sink();

/// A sink that writes lines to the system log, escaped in the same way, with the priority that suits the
/// level. `ident` is the program's name there. A process has only one connection to the system log, so the
/// sink made last determines the name for all. Lines are lost and left out as those of make_stderr_sink are.
std::shared_ptr<LogSink> make_syslog_sink(const std::string& ident);

/// A sink that passes lines to a function, for applications that show them and for tests. It leaves none out.
/// What holds for LogSink::write holds for the function.
std::shared_ptr<LogSink> make_callback_sink(std::function<void(const LogRecord&)> callback);

/// Replaces all sinks and returns the previous ones. Null pointers in the list are ignored, and with an empty
/// list every line is dropped. Any thread may call it. A line that another thread is logging meanwhile may
/// still reach a previous sink after it returns.
std::vector<std::shared_ptr<LogSink>> set_log_sinks(std::vector<std::shared_ptr<LogSink>> sinks);

/// How many bytes of a line's text reach the sinks. What is longer is cut, and ends in "… (N bytes)", N being
/// its length: much of what is logged comes from other processes.
inline constexpr std::size_t max_log_text = 8192;

/// Logs a line at a level given as an argument. `provider` may be null. Any thread may call it. It never
/// throws, and drops a line that can't be logged.
void log(TraceLevel level, SourceLine source, std::string_view text);
void log(const std::shared_ptr<Provider>& provider, TraceLevel level, SourceLine source,
         std::string_view text);

/// Log a line at the level in the function's name. The pieces are joined without a separator, but only if
/// lines of that level are written. `provider` may be null. Any thread may call them. They never throw, and
/// drop a line that can't be logged.
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

/// Logs the joined pieces at error level and returns them, as the text of an exception that is thrown next:
/// `throw Exception(trace_error(SLATE_HERE, "no such file: ", path))`. The text is returned even if its level
/// is not written. `provider` may be null. Any thread may call it.
std::string trace_error(SourceLine source, std::string_view a, std::string_view b = {},
                        std::string_view c = {}, std::string_view d = {});
std::string trace_error(const std::shared_ptr<Provider>& provider, SourceLine source, std::string_view a,
                        std::string_view b = {}, std::string_view c = {}, std::string_view d = {});

/// The same at a level given as an argument.
std::string trace(TraceLevel level, SourceLine source, std::string_view text);

/// Collects a log line that is written to it as to a stream, and logs the line when the object is destroyed,
/// unless it is empty. For one thread at a time.
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
        if (stream_) // a value's own operator may be costly even on a stream that has failed
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

/// The same for a debug line: `slate::Debug(__FILE__, __LINE__) << "n = " << n;`. If debug lines are not
/// written when the object is made, the stream's fail bit is set, so that nothing is formatted or logged.
class Debug : public Log {
public:
    Debug(const char* file, int line) : Log(DebugLevel, file, line)
    {
        if (!is_logging_allowed(DebugLevel))
            stream().setstate(std::ios_base::failbit);
    }
};
} // namespace slate
