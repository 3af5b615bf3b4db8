// SPDX-License-Identifier: Apache-2.0
#include "slate/log.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <utility>

#include <spdlog/common.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <syslog.h>

#include "slate/provider.h"

namespace slate {
namespace {
constexpr std::array<std::string_view, 6> level_names{"extreme", "debug", "verbose", "info", "warn", "error"};

// "%n" stands for the name of a logger. We pass our own name of the level there, and the sink colours it.
constexpr const char* stderr_pattern = "%Y-%m-%d %H:%M:%S.%e %^%n%$ %v";

using SinkList = std::vector<std::shared_ptr<LogSink>>;

struct State {
    std::mutex mutex; // guards sinks; never held while a sink writes
    std::shared_ptr<const SinkList> sinks = std::make_shared<SinkList>(SinkList{make_stderr_sink()});
};

/// Never destroyed, since objects of static lifetime may still log in their destructors, in whatever order.
State& state()
{
    static State* const instance = new State;
    return *instance;
}

std::atomic<int> lowest_level{InfoLevel};

/// Whether this thread is in a sink, whose own lines are dropped.
thread_local bool in_sink = false;

class SinkScope {
public:
    SinkScope() { in_sink = true; }
    ~SinkScope() { in_sink = false; }
    SinkScope(const SinkScope&) = delete;
    SinkScope& operator=(const SinkScope&) = delete;
};

std::shared_ptr<const SinkList> current_sinks()
{
    const std::lock_guard lock(state().mutex);
    return state().sinks;
}

void write_to(LogSink& sink, const LogRecord& record)
{
    try {
        sink.write(record);
    }
    catch (...) {
        // A failure to log can't be logged. The other sinks still get the line.
    }
}

std::string_view base_name(const char* file)
{
    const std::string_view path(file ? file : "");
    return path.substr(path.rfind('/') + 1);
}

void append_hex(std::string& out, unsigned char byte)
{
    constexpr std::string_view digits = "0123456789abcdef";
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 0xf];
}

/// Appends text from any source such that it stays within its line and can't control a terminal. Some
/// terminals also obey the control characters U+0080 to U+009F, which have two bytes in UTF-8.
void append_escaped(std::string& out, std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') {
            out += "\\n";
        }
        else if (byte(i) < 0x20 || byte(i) == 0x7f) {
            append_hex(out, byte(i));
        }
        else if (byte(i) == 0xc2 && i + 1 < text.size() && byte(i + 1) >= 0x80 && byte(i + 1) <= 0x9f) {
            append_hex(out, byte(i));
            append_hex(out, byte(++i));
        }
        else {
            out += text[i];
        }
    }
}

std::string to_line(const LogRecord& record)
{
    std::string line;
    line.reserve(record.provider.size() + record.text.size() + 64);
    if (!record.provider.empty()) {
        line += '[';
        append_escaped(line, record.provider);
        line += "] ";
    }
    append_escaped(line, record.text);
    line += " (";
    append_escaped(line, base_name(record.source.file()));
    line += ':';
    line += std::to_string(record.source.line());
    line += ')';
    return line;
}

/// The level that determines the colour, and the priority in the system log.
spdlog::level::level_enum spdlog_level(TraceLevel level)
{
    switch (level) {
    case ExtremeLevel:
        return spdlog::level::trace;
    case DebugLevel:
    case VerboseLevel:
        return spdlog::level::debug;
    case InfoLevel:
        return spdlog::level::info;
    case WarnLevel:
        return spdlog::level::warn;
    case ErrorLevel:
        break;
    }
    return level < ExtremeLevel ? spdlog::level::trace : spdlog::level::err;
}

spdlog::string_view_t to_view(std::string_view text)
{
    return {text.data(), text.size()};
}

void write_line(spdlog::sinks::sink& sink, const LogRecord& record)
{
    const std::string line = to_line(record);
    sink.log({to_view(to_string(record.level)), spdlog_level(record.level), to_view(line)});
}

class StderrSink : public LogSink {
public:
    StderrSink() { sink_.set_pattern(stderr_pattern); }

    void write(const LogRecord& record) override { write_line(sink_, record); }

private:
    spdlog::sinks::stderr_color_sink_mt sink_;
};

/// The connection to the system log, of which a process has only one.
struct Syslog {
    std::mutex mutex; // guards sink, and is held while it writes
    std::unique_ptr<spdlog::sinks::syslog_sink_mt> sink;
};

/// Never destroyed, for the same reason as state().
Syslog& system_log()
{
    static Syslog* const instance = new Syslog;
    return *instance;
}

class SyslogSink : public LogSink {
public:
    explicit SyslogSink(const std::string& ident)
    {
        const std::lock_guard lock(system_log().mutex);
        // The old sink goes first, since its destructor would close the new connection.
        system_log().sink.reset();
        system_log().sink = std::make_unique<spdlog::sinks::syslog_sink_mt>(ident, LOG_PID, LOG_USER,
                                                                            /*enable_formatting=*/false);
    }

    void write(const LogRecord& record) override
    {
        const std::lock_guard lock(system_log().mutex);
        if (system_log().sink)
            write_line(*system_log().sink, record);
    }
};

class CallbackSink : public LogSink {
public:
    explicit CallbackSink(std::function<void(const LogRecord&)> callback) : callback_(std::move(callback)) {}

    void write(const LogRecord& record) override { callback_(record); }

private:
    const std::function<void(const LogRecord&)> callback_;
};

std::string concatenate(std::string_view a, std::string_view b, std::string_view c, std::string_view d)
{
    std::string text;
    text.reserve(a.size() + b.size() + c.size() + d.size());
    text.append(a).append(b).append(c).append(d);
    return text;
}

void log_pieces(const std::shared_ptr<Provider>& provider, TraceLevel level, SourceLine source,
                std::string_view a, std::string_view b, std::string_view c, std::string_view d)
{
    if (!is_logging_allowed(level))
        return;
    try {
        log(provider, level, source, concatenate(a, b, c, d));
    }
    catch (const std::bad_alloc&) {
        log(provider, level, source, a);
    }
}
} // namespace

std::string_view to_string(TraceLevel level)
{
    const auto index = static_cast<std::size_t>(level);
    return index < level_names.size() ? level_names[index] : "unknown";
}

TraceLevel log_level()
{
    return static_cast<TraceLevel>(lowest_level.load(std::memory_order_relaxed));
}

void set_log_level(TraceLevel level)
{
    lowest_level.store(level, std::memory_order_relaxed);
}

bool is_logging_allowed(TraceLevel level)
{
    return level >= lowest_level.load(std::memory_order_relaxed);
}

std::shared_ptr<LogSink> make_stderr_sink()
{
    return std::make_shared<StderrSink>();
}

std::shared_ptr<LogSink> make_syslog_sink(const std::string& ident)
{
    return std::make_shared<SyslogSink>(ident);
}

std::shared_ptr<LogSink> make_callback_sink(std::function<void(const LogRecord&)> callback)
{
    return std::make_shared<CallbackSink>(std::move(callback));
}

std::vector<std::shared_ptr<LogSink>> set_log_sinks(std::vector<std::shared_ptr<LogSink>> sinks)
{
    std::shared_ptr<const SinkList> list = std::make_shared<SinkList>(std::move(sinks));
    {
        const std::lock_guard lock(state().mutex);
        list.swap(state().sinks);
    }
    return *list;
}

/// The beginning of a text that is too long, without a cut character, and how long it was.
static std::string clip(std::string_view text)
{
    std::size_t end = max_log_text;
    while (end > max_log_text - 4 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)
        --end;
    return std::string(text.substr(0, end)) + "… (" + std::to_string(text.size()) + " bytes)";
}

void log(TraceLevel level, SourceLine source, std::string_view text)
{
    log(nullptr, level, source, text);
}

void log(const std::shared_ptr<Provider>& provider, TraceLevel level, SourceLine source,
         std::string_view text)
{
    if (in_sink || !is_logging_allowed(level))
        return;
    try {
        const std::string clipped = text.size() > max_log_text ? clip(text) : std::string();
        if (!clipped.empty())
            text = clipped;
        const std::string name = provider ? provider->name() : std::string();
        const auto sinks = current_sinks();
        const SinkScope scope;
        for (const auto& sink : *sinks) {
            if (sink)
                write_to(*sink, {level, name, source, text});
        }
    }
    catch (...) {
        // Out of memory, or a provider that throws. The line is dropped, and the caller goes on.
    }
}

#define SLATE_DEFINE_LOG_FUNCTIONS(name, level)                                                              \
    void name(SourceLine source, std::string_view a, std::string_view b, std::string_view c,                 \
              std::string_view d)                                                                            \
    {                                                                                                        \
        log_pieces(nullptr, level, source, a, b, c, d);                                                      \
    }                                                                                                        \
    void name(const std::shared_ptr<Provider>& provider, SourceLine source, std::string_view a,              \
              std::string_view b, std::string_view c, std::string_view d)                                    \
    {                                                                                                        \
        log_pieces(provider, level, source, a, b, c, d);                                                     \
    }
SLATE_DEFINE_LOG_FUNCTIONS(log_extreme, ExtremeLevel)
SLATE_DEFINE_LOG_FUNCTIONS(log_debug, DebugLevel)
SLATE_DEFINE_LOG_FUNCTIONS(log_verbose, VerboseLevel)
SLATE_DEFINE_LOG_FUNCTIONS(log_info, InfoLevel)
SLATE_DEFINE_LOG_FUNCTIONS(log_warn, WarnLevel)
SLATE_DEFINE_LOG_FUNCTIONS(log_error, ErrorLevel)
#undef SLATE_DEFINE_LOG_FUNCTIONS

std::string trace_error(SourceLine source, std::string_view a, std::string_view b, std::string_view c,
                        std::string_view d)
{
    return trace_error(nullptr, source, a, b, c, d);
}

std::string trace_error(const std::shared_ptr<Provider>& provider, SourceLine source, std::string_view a,
                        std::string_view b, std::string_view c, std::string_view d)
{
    std::string text = concatenate(a, b, c, d);
    log(provider, ErrorLevel, source, text);
    return text;
}

std::string trace(TraceLevel level, SourceLine source, std::string_view text)
{
    log(level, source, text);
    return std::string(text);
}
} // namespace slate
