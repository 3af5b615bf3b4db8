// SPDX-License-Identifier: Apache-2.0
#include "slate/log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ios>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <syslog.h>
#include <unistd.h>

#include "slate/file.h"
#include "slate/provider.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"

namespace {
struct SyslogLine {
    int priority;
    std::string text;
};

std::string syslog_ident;
std::vector<SyslogLine> syslog_lines;

[[gnu::format(printf, 2, 0)]] void keep_syslog_line(int priority, const char* format, va_list arguments)
{
    char text[1024];
    std::vsnprintf(text, sizeof(text), format, arguments);
    syslog_lines.push_back({priority, text});
}
} // namespace

// These take the place of the C library's functions, so that the tests don't write to the system log.
extern "C" {
void openlog(const char* ident, int, int)
{
    syslog_ident = ident;
}

void closelog()
{
    syslog_ident.clear();
}

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep_syslog_line(priority, format, arguments);
    va_end(arguments);
}

// A hardened build calls this instead of syslog.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep_syslog_line(priority, format, arguments);
    va_end(arguments);
}
}

namespace {
using tarn_test::LogCapture;

constexpr slate::TraceLevel levels[] = {slate::ExtremeLevel, slate::DebugLevel, slate::VerboseLevel,
                                        slate::InfoLevel,    slate::WarnLevel,  slate::ErrorLevel};

/// The texts of all captured lines.
std::vector<std::string> texts(const LogCapture& capture)
{
    std::vector<std::string> result;
    for (const auto& line : capture.lines())
        result.push_back(line.text);
    return result;
}

using Texts = std::vector<std::string>;

/// While it exists, standard error goes to another file.
class Redirection {
public:
    explicit Redirection(int to) : saved_(dup(STDERR_FILENO)) { dup2(to, STDERR_FILENO); }
    ~Redirection()
    {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;

private:
    int saved_;
};

/// The line that the sink for standard error writes, without the time.
std::string stderr_line(slate::TraceLevel level, const std::string& text,
                        const std::shared_ptr<slate::Provider>& provider = nullptr)
{
    const tarn_test::ScratchFolder folder;
    const auto path = (folder.path() / "stderr").string();
    const LogCapture restore;
    slate::set_log_level(slate::ExtremeLevel);
    {
        const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        const Redirection redirection(file);
        close(file);
        slate::set_log_sinks({slate::make_stderr_sink()});
        slate::log(provider, level, slate::SourceLine("lib/folder/file.cpp", 12), text);
    }

    const auto line = slate::slurp_file<std::string>(path, std::ios::binary);
    constexpr std::string_view time_shape = "0000-00-00 00:00:00.000 ";
    auto time = line.substr(0, time_shape.size());
    std::replace_if(
        time.begin(), time.end(), [](char c) { return c >= '1' && c <= '9'; }, '0');
    EXPECT_EQ(time, time_shape);
    return line.substr(time.size());
}

TEST(LogLevel, IsInfoAtFirst)
{
    EXPECT_EQ(slate::log_level(), slate::InfoLevel);
    EXPECT_FALSE(slate::is_logging_allowed(slate::DebugLevel));
}

TEST(LogLevel, HasTheNumbersThatProgramsPass)
{
    EXPECT_EQ(static_cast<int>(slate::DebugLevel), 1);
    EXPECT_EQ(static_cast<int>(slate::VerboseLevel), 2);
    EXPECT_EQ(static_cast<int>(slate::ErrorLevel), 5);
}

TEST(LogLevel, AllowsItselfAndHigherLevels)
{
    const LogCapture restore;

    for (const auto lowest : levels) {
        slate::set_log_level(lowest);
        EXPECT_EQ(slate::log_level(), lowest);
        for (const auto level : levels)
            EXPECT_EQ(slate::is_logging_allowed(level), level >= lowest) << level << " at " << lowest;
    }
}

TEST(LogLevel, HasAName)
{
    Texts names;
    for (const auto level : levels)
        names.emplace_back(slate::to_string(level));

    EXPECT_EQ(names, (Texts{"extreme", "debug", "verbose", "info", "warn", "error"}));
    EXPECT_EQ(slate::to_string(static_cast<slate::TraceLevel>(6)), "unknown");
    EXPECT_EQ(slate::to_string(static_cast<slate::TraceLevel>(-1)), "unknown");
}

TEST(LogText, IsCutBeyondEightKilobytesBetweenTwoCharacters)
{
    LogCapture logs;
    const std::string longest(slate::max_log_text, 'x');
    slate::log_error(SLATE_HERE, longest);
    slate::log_error(SLATE_HERE, longest, "y");
    slate::log_error(SLATE_HERE, longest.substr(2), "\xE2\x82\xAC");
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              (Texts{longest, longest + "… (8193 bytes)", longest.substr(2) + "… (8193 bytes)"}));
    EXPECT_EQ(slate::trace_error(SLATE_HERE, longest, "y"), longest + "y");
}

TEST(SourceLine, NamesFileAndLine)
{
    const slate::SourceLine here = SLATE_HERE;

    EXPECT_EQ(here.line(), __LINE__ - 2);
    EXPECT_TRUE(std::string(here.file()).ends_with("log_test.cpp")) << here.file();
}

TEST(CallbackSink, ReceivesLevelProviderSourceAndText)
{
    const auto provider = slate::add_provider("log.test", "7", false);
    const LogCapture restore;
    int calls = 0;
    slate::set_log_sinks({slate::make_callback_sink([&](const slate::LogRecord& record) {
        ++calls;
        EXPECT_EQ(record.level, slate::WarnLevel);
        EXPECT_EQ(record.provider, "log.test[7]");
        EXPECT_STREQ(record.source.file(), "file.cpp");
        EXPECT_EQ(record.source.line(), 12);
        EXPECT_EQ(record.text, "text\nof two lines");
    })});

    slate::log(provider, slate::WarnLevel, slate::SourceLine("file.cpp", 12), "text\nof two lines");

    slate::remove_provider(provider->name());
    EXPECT_EQ(calls, 1);
}

TEST(Log, HasNoProviderUnlessItIsGivenOne)
{
    const LogCapture capture;

    slate::log(slate::InfoLevel, SLATE_HERE, "a");
    slate::log(nullptr, slate::InfoLevel, SLATE_HERE, "b");
    slate::log_info(SLATE_HERE, "c");
    slate::log_info(nullptr, SLATE_HERE, "d");

    ASSERT_EQ(capture.lines().size(), 4u);
    for (const auto& line : capture.lines())
        EXPECT_EQ(line.provider, "");
}

TEST(Log, WritesOnlyWhatItsLevelAllows)
{
    const LogCapture capture;
    slate::set_log_level(slate::WarnLevel);

    slate::log(slate::InfoLevel, SLATE_HERE, "info");
    slate::log(slate::WarnLevel, SLATE_HERE, "warn");
    slate::log_info(SLATE_HERE, "info");
    slate::log_error(SLATE_HERE, "error");

    EXPECT_EQ(texts(capture), (Texts{"warn", "error"}));
}

TEST(Log, HasAFunctionForEachLevel)
{
    const auto provider = slate::add_provider("log.levels", "", false);
    const LogCapture capture;
    slate::set_log_level(slate::ExtremeLevel);

    slate::log_extreme(SLATE_HERE, "a");
    slate::log_debug(SLATE_HERE, "a", "b");
    slate::log_verbose(SLATE_HERE, "a", "b", "c");
    slate::log_info(SLATE_HERE, "a", "b", "c", "d");
    slate::log_warn(SLATE_HERE, "", "b", "", "d");
    slate::log_error(SLATE_HERE, "");
    slate::log_extreme(provider, SLATE_HERE, "a");
    slate::log_debug(provider, SLATE_HERE, "a", "b");
    slate::log_verbose(provider, SLATE_HERE, "a", "b", "c");
    slate::log_info(provider, SLATE_HERE, "a", "b", "c", "d");
    slate::log_warn(provider, SLATE_HERE, "", "b", "", "d");
    slate::log_error(provider, SLATE_HERE, "");
    slate::remove_provider(provider->name());

    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 12u);
    const Texts wanted{"a", "ab", "abc", "abcd", "bd", ""};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].level, levels[i % 6]);
        EXPECT_EQ(lines[i].text, wanted[i % 6]);
        EXPECT_EQ(lines[i].provider, i < 6 ? "" : "log.levels");
    }
}

TEST(TraceError, LogsAndReturnsTheJoinedText)
{
    const auto provider = slate::add_provider("log.trace", "", false);
    const LogCapture capture;

    EXPECT_EQ(slate::trace_error(SLATE_HERE, "a", "b", "c", "d"), "abcd");
    EXPECT_EQ(slate::trace_error(provider, SLATE_HERE, "x"), "x");
    EXPECT_EQ(slate::trace(slate::WarnLevel, SLATE_HERE, "y"), "y");
    slate::remove_provider(provider->name());

    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "abcd");
    EXPECT_EQ(lines[0].level, slate::ErrorLevel);
    EXPECT_EQ(lines[1].provider, "log.trace");
    EXPECT_EQ(lines[2].level, slate::WarnLevel);
}

TEST(TraceError, ReturnsTheTextEvenIfItsLevelIsOff)
{
    const LogCapture capture;
    slate::set_log_level(static_cast<slate::TraceLevel>(slate::ErrorLevel + 1));

    EXPECT_EQ(slate::trace_error(SLATE_HERE, "a", "b"), "ab");
    EXPECT_EQ(slate::trace(slate::InfoLevel, SLATE_HERE, "y"), "y");

    EXPECT_TRUE(capture.lines().empty());
}

/// Counts how often it is written to a stream.
struct Counted {
    int* written;

    friend std::ostream& operator<<(std::ostream& out, const Counted& counted)
    {
        ++*counted.written;
        return out << "counted";
    }
};

TEST(DebugStream, LogsOneLineWhenItIsDestroyed)
{
    const LogCapture capture;
    slate::set_log_level(slate::DebugLevel);
    int written = 0;

    slate::Debug(__FILE__, __LINE__) << "n = " << 42 << ", " << Counted{&written};

    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "n = 42, counted");
    EXPECT_EQ(capture.lines()[0].level, slate::DebugLevel);
    EXPECT_EQ(written, 1);
}

TEST(DebugStream, FormatsNothingWhileDebugLoggingIsOff)
{
    const LogCapture capture;
    int written = 0;
    {
        slate::Debug debug(__FILE__, __LINE__);
        EXPECT_TRUE(debug.stream().fail());
        debug << "n = " << 42 << Counted{&written};
        debug.stream() << "more";
        slate::set_log_level(slate::DebugLevel); // too late for this stream
    }

    EXPECT_EQ(written, 0);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(LogStream, KeepsItsLevelSourceAndProvider)
{
    const auto provider = slate::add_provider("log.stream", "", false);
    const LogCapture capture;

    {
        slate::Log log(slate::ErrorLevel, "file.cpp", 12, provider);
        log << "a" << 1;
        log.stream() << "b";
        EXPECT_TRUE(capture.lines().empty());
    }
    {
        slate::Log silent(slate::ErrorLevel, "file.cpp", 12);
    }
    slate::remove_provider(provider->name());

    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "a1b");
    EXPECT_EQ(capture.lines()[0].provider, "log.stream");
    EXPECT_EQ(capture.lines()[0].level, slate::ErrorLevel);
}

TEST(LogSinks, AllGetEachLine)
{
    const LogCapture restore;
    Texts first;
    Texts second;
    slate::set_log_sinks(
        {slate::make_callback_sink([&](const auto& record) { first.emplace_back(record.text); }), nullptr,
         slate::make_callback_sink([&](const auto& record) { second.emplace_back(record.text); })});

    slate::log_info(SLATE_HERE, "a");

    EXPECT_EQ(first, Texts{"a"});
    EXPECT_EQ(second, Texts{"a"});
}

TEST(LogSinks, AreReplacedAndReturned)
{
    const LogCapture capture;
    const auto mine = slate::make_callback_sink([](const auto&) {});

    const auto captured = slate::set_log_sinks({mine});
    slate::log_info(SLATE_HERE, "not captured");
    const auto before = slate::set_log_sinks({});
    slate::log_info(SLATE_HERE, "discarded");
    EXPECT_TRUE(slate::set_log_sinks(captured).empty());
    slate::log_info(SLATE_HERE, "captured");

    ASSERT_EQ(before.size(), 1u);
    EXPECT_EQ(before[0], mine);
    EXPECT_EQ(texts(capture), Texts{"captured"});
}

TEST(LogSinks, AreASingleOneAtFirst)
{
    const auto sinks = slate::set_log_sinks({});
    slate::set_log_sinks(sinks);

    EXPECT_EQ(sinks.size(), 1u);
}

TEST(LogSinks, MayThrowWithoutHarm)
{
    const LogCapture restore;
    Texts lines;
    slate::set_log_sinks(
        {slate::make_callback_sink([](const auto&) { throw std::runtime_error("no"); }),
         slate::make_callback_sink([](const auto&) { throw 1; }),
         slate::make_callback_sink([&](const auto& record) { lines.emplace_back(record.text); }),
         slate::make_callback_sink(nullptr)});

    EXPECT_NO_THROW(slate::log_info(SLATE_HERE, "a"));
    EXPECT_NO_THROW(slate::log_info(SLATE_HERE, "b"));

    EXPECT_EQ(lines, (Texts{"a", "b"}));
}

TEST(LogSinks, DontGetTheLinesThatASinkLogs)
{
    const LogCapture restore;
    Texts lines;
    Texts returned;
    slate::set_log_sinks(
        {slate::make_callback_sink([&](const auto& record) {
             slate::log_error(SLATE_HERE, "nested");
             returned.push_back(slate::trace_error(SLATE_HERE, "nested ", "too"));
             slate::Log(slate::ErrorLevel, "f", 1) << "nested as well";
             lines.emplace_back(record.text);
         }),
         slate::make_callback_sink([&](const auto& record) { lines.emplace_back(record.text); })});

    slate::log_info(SLATE_HERE, "outer");

    EXPECT_EQ(lines, (Texts{"outer", "outer"}));
    EXPECT_EQ(returned, Texts{"nested too"});
}

TEST(LogSinks, GetTheLinesOfOtherThreadsMeanwhile)
{
    const LogCapture restore;
    std::atomic<int> lines{0};
    slate::set_log_sinks({slate::make_callback_sink([&](const auto& record) {
        ++lines;
        if (record.text == "outer")
            std::thread([] { slate::log_info(SLATE_HERE, "of another thread"); }).join();
    })});

    slate::log_info(SLATE_HERE, "outer");

    EXPECT_EQ(lines, 2);
}

TEST(LogSinks, CanBeReplacedWhileManyThreadsLog)
{
    const LogCapture restore;
    std::atomic<int> lines{0};
    const auto sink = slate::make_callback_sink([&](const auto&) { ++lines; });
    slate::set_log_sinks({sink});

    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 1000; ++n)
                slate::log_info(SLATE_HERE, "a", "b");
        });
    }
    for (int n = 0; n < 200; ++n)
        slate::set_log_sinks({slate::make_callback_sink([&](const auto&) { ++lines; })});
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(lines, 3000);
}

class ThrowingProvider : public slate::Provider {
public:
    std::shared_ptr<slate::Counter> add_counter(const std::string&, const slate::Rational<int>&,
                                                const std::string&, slate::CounterPolicy) override
    {
        return nullptr;
    }
    std::shared_ptr<slate::Statistic> add_statistic(const std::string&, std::int64_t, std::int64_t,
                                                    unsigned int, const std::string&, double) override
    {
        return nullptr;
    }
    std::string name() const override { throw std::runtime_error("no name"); }
};

TEST(Log, DropsALineRatherThanThrow)
{
    const LogCapture capture;

    EXPECT_NO_THROW(slate::log_info(std::make_shared<ThrowingProvider>(), SLATE_HERE, "a"));
    slate::log_info(SLATE_HERE, "b");

    EXPECT_EQ(texts(capture), Texts{"b"});
}

TEST(StderrSink, ShowsTimeLevelProviderTextAndSource)
{
    const auto provider = slate::add_provider("log.stderr", "1", false);

    EXPECT_EQ(stderr_line(slate::WarnLevel, "text"), "warn text (file.cpp:12)\n");
    EXPECT_EQ(stderr_line(slate::InfoLevel, "text", provider), "info [log.stderr[1]] text (file.cpp:12)\n");
    slate::remove_provider(provider->name());
}

TEST(StderrSink, ShowsOurNamesOfTheLevels)
{
    for (const auto level : levels)
        EXPECT_EQ(stderr_line(level, "text"), std::string(slate::to_string(level)) + " text (file.cpp:12)\n");
}

TEST(StderrSink, EscapesLineBreaksAndControlCharacters)
{
    EXPECT_EQ(stderr_line(slate::InfoLevel, "a\nb\r\t\x1b[2J\x7f"),
              "info a\\nb\\x0d\\x09\\x1b[2J\\x7f (file.cpp:12)\n");
    EXPECT_EQ(stderr_line(slate::InfoLevel, std::string("nu\0ll", 5)), "info nu\\x00ll (file.cpp:12)\n");
    EXPECT_EQ(stderr_line(slate::InfoLevel, "", slate::add_provider("a\nb", "", false)),
              "info [a\\nb]  (file.cpp:12)\n");
    slate::remove_provider("a\nb");
}

TEST(StderrSink, LeavesOtherTextAlone)
{
    EXPECT_EQ(stderr_line(slate::InfoLevel, "gr\xc3\xbc\xc3\x9f %s {} %n \\"),
              "info gr\xc3\xbc\xc3\x9f %s {} %n \\ (file.cpp:12)\n");
}

TEST(StderrSink, IsColouredOnATerminalOnly)
{
    const LogCapture restore;
    setenv("TERM", "xterm", 1);
    int master = -1;
    int terminal = -1;
    ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
    {
        const Redirection redirection(terminal);
        slate::set_log_sinks({slate::make_stderr_sink()});
        slate::log_error(SLATE_HERE, "text");
    }
    std::string line;
    for (char byte = 0; byte != '\n' && read(master, &byte, 1) == 1;)
        line += byte;
    close(terminal);
    close(master);

    EXPECT_NE(line.find("merror\x1b[m text"), std::string::npos) << line; // between two changes of colour
    EXPECT_EQ(stderr_line(slate::ErrorLevel, "text").find('\x1b'), std::string::npos);
}

TEST(SyslogSink, GivesEachLineItsPriority)
{
    const LogCapture restore;
    syslog_lines.clear();
    slate::set_log_level(slate::ExtremeLevel);
    slate::set_log_sinks({slate::make_syslog_sink("program")});

    for (const auto level : levels)
        slate::log(level, slate::SourceLine("lib/file.cpp", 12), "a %s\nb");

    ASSERT_EQ(syslog_lines.size(), 6u);
    const int priorities[] = {LOG_DEBUG, LOG_DEBUG, LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(syslog_lines[i].priority, priorities[i]);
        EXPECT_EQ(syslog_lines[i].text, "a %s\\nb (file.cpp:12)");
    }
}

TEST(SyslogSink, IsNamedByTheLastOneMade)
{
    const LogCapture restore;
    syslog_lines.clear();

    auto first = slate::make_syslog_sink("first");
    EXPECT_EQ(syslog_ident, "first");
    slate::set_log_sinks({slate::make_syslog_sink("second")});
    EXPECT_EQ(syslog_ident, "second");
    first.reset();
    EXPECT_EQ(syslog_ident, "second");

    slate::log_info(SLATE_HERE, "a");
    EXPECT_EQ(syslog_lines.size(), 1u);
}

struct LogsInItsDestructor {
    ~LogsInItsDestructor() { slate::log_error(SLATE_HERE, "a late line"); }
};

TEST(LogDeathTest, LogsWhileStaticObjectsAreDestroyed)
{
    const auto log_and_exit = [] {
        static const LogsInItsDestructor first; // so it is destroyed after all that logging has made since
        slate::log_error(SLATE_HERE, "an early line");
        std::exit(0);
    };

    EXPECT_EXIT(log_and_exit(), testing::ExitedWithCode(0), "an early line.*\n.*a late line");
}

TEST(LogStream, TakesManipulators)
{
    const LogCapture capture;
    slate::set_log_level(slate::DebugLevel);

    slate::Log(slate::InfoLevel, __FILE__, __LINE__) << "a" << std::endl << 1 << std::ends;
    slate::Debug(__FILE__, __LINE__) << "b" << std::endl;

    EXPECT_EQ(texts(capture), (Texts{std::string("a\n1\0", 4), "b\n"}));
}

int calls_of_manipulator = 0;

std::ostream& count_call(std::ostream& out)
{
    ++calls_of_manipulator;
    return out;
}

TEST(DebugStream, CallsNoManipulatorWhileDebugLoggingIsOff)
{
    const LogCapture capture;
    calls_of_manipulator = 0;

    slate::Debug(__FILE__, __LINE__) << "a" << count_call << std::endl;
    EXPECT_EQ(calls_of_manipulator, 0);
    EXPECT_TRUE(capture.lines().empty());

    slate::set_log_level(slate::DebugLevel);
    slate::Debug(__FILE__, __LINE__) << "a" << count_call;
    EXPECT_EQ(calls_of_manipulator, 1);
}

TEST(StderrSink, EscapesControlCharactersBeyondAscii)
{
    // U+0080, U+009B (the same as ESC [ in ASCII) and U+009F are escaped, but not U+00A0 and other characters
    // that have such bytes.
    EXPECT_EQ(stderr_line(slate::InfoLevel, "a\xc2\x80z \xc2\x9b"
                                            "2J \xc2\x9f"),
              "info a\\xc2\\x80z \\xc2\\x9b2J \\xc2\\x9f (file.cpp:12)\n");
    EXPECT_EQ(stderr_line(slate::InfoLevel, "\xc2\xa0 \xc3\x80 \xe2\x82\x9b \xc2"),
              "info \xc2\xa0 \xc3\x80 \xe2\x82\x9b \xc2 (file.cpp:12)\n");
}
} // namespace
