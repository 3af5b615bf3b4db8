// SPDX-License-Identifier: Apache-2.0
#include "slate/log.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <utility>

#include "slate/provider.h"

namespace slate {
namespace {
constexpr std::array<std::string_view, 6> level_names{"extreme", "debug", "verbose", "info", "warn", "error"};

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
