// SPDX-License-Identifier: Apache-2.0
#include "slate/log.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <memory>
#include <ostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include "slate/file.h"
#include "slate/provider.h"
#include "support/clock_jump.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"

namespace {
std::string system_log_path; // of a socket that stands in for the system's
} // namespace

// Takes the place of the C library's function, so that the tests don't write to the system log.
extern "C" int connect(int socket, const struct sockaddr* address, socklen_t size)
{
    sockaddr_un unix_address{};
    std::memcpy(&unix_address, address, std::min<std::size_t>(size, sizeof unix_address));
    if (unix_address.sun_family == AF_UNIX && std::string_view(unix_address.sun_path) == "/dev/log") {
        unix_address.sun_path[system_log_path.copy(unix_address.sun_path, sizeof unix_address.sun_path - 1)] =
            '\0';
        size = sizeof unix_address;
    }
    return static_cast<int>(syscall(SYS_connect, socket, &unix_address, size));
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

/// Lines of different places.
void log_many_lines(int count, std::size_t length = 100)
{
    for (int i = 0; i < count; ++i)
        slate::log(slate::WarnLevel, slate::SourceLine("many.cpp", i), std::string(length, 'x'));
}

/// A pipe that standard error goes to, and that nobody reads but the test.
class StderrPipe {
public:
    StderrPipe() { EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0); }
    ~StderrPipe()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    StderrPipe(const StderrPipe&) = delete;
    StderrPipe& operator=(const StderrPipe&) = delete;

    int writing_end() const { return ends_[1]; }

    /// What is in the pipe.
    std::string read() const
    {
        std::string text;
        pollfd readable{ends_[0], POLLIN, 0};
        char buffer[4096];
        while (poll(&readable, 1, 0) == 1) {
            const ssize_t count = ::read(ends_[0], buffer, sizeof buffer);
            if (count <= 0)
                break;
            text.append(buffer, static_cast<std::size_t>(count));
        }
        return text;
    }

private:
    int ends_[2] = {-1, -1};
};

/// The texts of lines on standard error that contain a word.
std::size_t count_lines(const std::string& text, const std::string& word)
{
    std::size_t lines = 0;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines += line.find(word) != std::string::npos ? 1u : 0u;
    return lines;
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

/// A daemon of the system log, which reads only when it is asked to.
class SystemLog {
public:
    SystemLog()
    {
        system_log_path = (folder_.path() / "log").string();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        system_log_path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~SystemLog() { close(socket_); }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    /// All that has come.
    Texts read() const
    {
        Texts messages;
        std::string message(300'000, '\0');
        for (ssize_t size = 0; (size = recv(socket_, message.data(), message.size(), MSG_DONTWAIT)) >= 0;)
            messages.push_back(message.substr(0, static_cast<std::size_t>(size)));
        return messages;
    }

private:
    const tarn_test::ScratchFolder folder_;
    const int socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

/// A message without its time, whose shape it checks.
std::string without_time(const std::string& message)
{
    const std::regex shape("(<\\d+>)[A-Z][a-z]{2} [ 1-3]\\d \\d{2}:\\d{2}:\\d{2} ([^]*)");
    std::smatch parts;
    EXPECT_TRUE(std::regex_match(message, parts, shape)) << message;
    return parts[1].str() + parts[2].str();
}

TEST(SyslogSink, GivesEachLineItsPriority)
{
    const SystemLog system_log;
    const LogCapture restore;
    slate::set_log_level(slate::ExtremeLevel);
    slate::set_log_sinks({slate::make_syslog_sink("program")});

    for (const auto level : levels)
        slate::log(level, slate::SourceLine("lib/file.cpp", 12), "a %s\nb");

    const Texts messages = system_log.read();
    ASSERT_EQ(messages.size(), 6u);
    const int priorities[] = {LOG_DEBUG, LOG_DEBUG, LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR};
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_EQ(without_time(messages[i]), "<" + std::to_string(LOG_USER | priorities[i]) + ">program[" +
                                                 std::to_string(getpid()) + "]: a %s\\nb (file.cpp:12)");
}

TEST(SyslogSink, IsNamedByTheLastOneMade)
{
    const SystemLog system_log;
    const LogCapture restore;

    auto first = slate::make_syslog_sink("first");
    slate::set_log_sinks({slate::make_syslog_sink("second")});
    first.reset();

    slate::log_info(SLATE_HERE, "a");
    const Texts messages = system_log.read();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find(" second["), std::string::npos) << messages[0];
}

TEST(SyslogSink, FindsADaemonThatWasStartedAgain)
{
    const LogCapture restore;
    auto system_log = std::make_unique<SystemLog>();
    slate::set_log_sinks({slate::make_syslog_sink("program")});
    slate::log_info(SLATE_HERE, "first");
    system_log.reset();
    slate::log_info(SLATE_HERE, "to nobody");
    system_log = std::make_unique<SystemLog>();
    slate::log_info(SLATE_HERE, "second");

    const Texts messages = system_log->read();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("1 line lost, the system log was full"), std::string::npos) << messages[0];
    EXPECT_NE(messages[1].find("second"), std::string::npos) << messages[1];
}

TEST(SyslogSink, NeverWaitsForADaemonThatHangs)
{
    const SystemLog system_log;
    const LogCapture restore;
    slate::set_log_sinks({slate::make_syslog_sink("program")});

    log_many_lines(2000);

    const std::size_t taken = system_log.read().size();
    EXPECT_LT(taken, 2000u);
    slate::log_info(SLATE_HERE, "again");
    const Texts messages = system_log.read();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find(std::to_string(2000 - taken) + " lines lost"), std::string::npos)
        << messages[0];
}

TEST(SyslogSink, SendsTheLongestLineThatThereIs)
{
    const SystemLog system_log;
    const LogCapture restore;
    slate::set_log_sinks({slate::make_syslog_sink("program")});

    slate::log_info(SLATE_HERE, std::string(10'000'000, '\1')); // which takes most room when it is escaped

    const Texts messages = system_log.read();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("… (10000000 bytes)"), std::string::npos);
}

TEST(LogDeathTest, SaysAtTheEndOfTheProcessHowManyLinesWereLeftOut)
{
    const auto log_and_exit = [] {
        slate::set_log_sinks({slate::make_stderr_sink()});
        for (int i = 0; i < 23; ++i)
            slate::log_error(SLATE_HERE, "again");
        std::exit(0);
    };
    EXPECT_EXIT(log_and_exit(), testing::ExitedWithCode(0), "again.*\n.*3 equal lines left out");
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

// --- A reader that doesn't read -----------------------------------------------------------------------

/// Logs more than `taken` can hold, and then, when it has been read, one more line.
std::string log_too_much(std::size_t length)
{
    const LogCapture restore;
    const StderrPipe pipe;
    std::string text;
    {
        const Redirection redirection(pipe.writing_end());
        slate::set_log_sinks({slate::make_stderr_sink()});
        log_many_lines(2000, length);
        text = pipe.read();
        slate::log_error(SLATE_HERE, "again");
        text += pipe.read();
    }
    EXPECT_EQ(fcntl(pipe.writing_end(), F_GETFL) & O_NONBLOCK, 0); // others share it
    return text;
}

TEST(StderrSink, NeverWaitsForAPipeThatNobodyReads)
{
    const std::string text = log_too_much(100);

    const std::size_t written = count_lines(text, "many.cpp");
    EXPECT_GT(written, 100u);
    EXPECT_EQ(
        count_lines(text, "warn " + std::to_string(2000 - written) + " lines lost, standard error was full"),
        1u);
    EXPECT_TRUE(text.find("error again") != std::string::npos);
    EXPECT_EQ(count_lines(text, "xx"), written); // no line in part
}

TEST(StderrSink, LosesNothingToAReaderThatReads)
{
    const LogCapture restore;
    const StderrPipe pipe;
    std::atomic<bool> done{false};
    std::string text;
    {
        const Redirection redirection(pipe.writing_end());
        slate::set_log_sinks({slate::make_stderr_sink()});
        std::thread reader([&] {
            while (!done)
                text += pipe.read();
            text += pipe.read();
        });
        log_many_lines(2000, 3000); // a hundred times what the pipe holds
        done = true;
        reader.join();
    }
    // All, but on a machine that lets the reader wait.
    EXPECT_GT(count_lines(text, "many.cpp"), 1000u);
}

TEST(StderrSink, EndsALineThatDidNotFitAsAWhole)
{
    const std::string text = log_too_much(10'000); // more than a pipe takes at once

    EXPECT_EQ(count_lines(text, "lines lost"), 1u);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.starts_with("20")) << line.substr(0, 100);
}

TEST(StderrSink, OutlivesTheReaderOfAPipe)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int ends[2];
        if (std::signal(SIGPIPE, SIG_DFL) == SIG_ERR || pipe2(ends, O_CLOEXEC) != 0)
            _exit(1);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        slate::set_log_sinks({slate::make_stderr_sink()});
        log_many_lines(2);
        sigset_t pending{};
        sigset_t blocked{};
        sigpending(&pending);
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        _exit(sigismember(&pending, SIGPIPE) == 0 && sigismember(&blocked, SIGPIPE) == 0 ? 0 : 2);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(StderrSink, LeavesABrokenPipeOfTheApplicationPending)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int ends[2];
        sigset_t sigpipe{};
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        if (pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr) != 0 || pipe2(ends, O_CLOEXEC) != 0 ||
            pthread_kill(pthread_self(), SIGPIPE) != 0)
            _exit(1);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        slate::set_log_sinks({slate::make_stderr_sink()});
        log_many_lines(2);
        sigset_t pending{};
        sigpending(&pending);
        _exit(sigismember(&pending, SIGPIPE) == 1 ? 0 : 2);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(StderrSink, NeverWaitsForAPipeThatItMayNotOpenAgain)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may become another user";
    const StderrPipe pipe;
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipe.writing_end(), STDERR_FILENO);
        if (fchmod(pipe.writing_end(), 0600) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            _exit(1);
        slate::set_log_sinks({slate::make_stderr_sink()});
        log_many_lines(2000);
        _exit(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK) < 0 ? 0 : 2);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);

    EXPECT_EQ(status, 0);
    const std::string text = pipe.read();
    EXPECT_GE(count_lines(text, "many.cpp"), 10u);
    EXPECT_TRUE(text.ends_with(")\n"));
}

TEST(StderrSink, NeverWaitsForASocketThatNobodyReads)
{
    const LogCapture restore;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    {
        const Redirection redirection(ends[1]);
        slate::set_log_sinks({slate::make_stderr_sink()});
        log_many_lines(5000, 1000);
    }
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    close(ends[0]);
    close(ends[1]);
}

TEST(StderrSink, NeverWaitsForATerminalThatWasStopped)
{
    int master = -1;
    int terminal = -1;
    ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
    for (const bool as_another_user : {false, true}) {
        if (as_another_user && geteuid() != 0)
            continue;
        ASSERT_EQ(tcflow(terminal, TCOOFF), 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(terminal, STDERR_FILENO);
            if (as_another_user && (fchmod(terminal, 0600) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
                _exit(1);
            slate::set_log_sinks({slate::make_stderr_sink()});
            log_many_lines(100);
            if (tcflow(STDERR_FILENO, TCOON) != 0)
                _exit(2);
            slate::log_error(SLATE_HERE, "again");
            _exit(0);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        std::string text;
        for (char byte = 0; text.find("again") == std::string::npos && read(master, &byte, 1) == 1;)
            text += byte;
        EXPECT_EQ(count_lines(text, "100 lines lost"), 1u) << text;
    }
    close(terminal);
    close(master);
}

// --- Equal lines --------------------------------------------------------------------------------------

class EqualLines : public testing::Test {
protected:
    EqualLines() { slate::set_log_sinks({slate::make_stderr_sink()}); }

    static void repeat(int count, slate::TraceLevel level = slate::WarnLevel, int line = 1)
    {
        for (int i = 0; i < count; ++i)
            slate::log(level, slate::SourceLine("equal.cpp", line), "bad request " + std::to_string(i));
    }

    const LogCapture restore_;
    tarn_test::ClockJump clock_;
    const StderrPipe pipe_;
    const Redirection redirection_{pipe_.writing_end()};
};

TEST_F(EqualLines, AreLeftOutFromTheTwentyFirstInTenSecondsWhateverTheySay)
{
    repeat(20);
    EXPECT_EQ(count_lines(pipe_.read(), "equal.cpp"), 20u);
    repeat(500);
    EXPECT_EQ(pipe_.read(), "");
    clock_.add(std::chrono::seconds(9));
    repeat(1);
    EXPECT_EQ(pipe_.read(), "");
}

TEST_F(EqualLines, AreWrittenAgainAfterTenSecondsBehindTheNumberOfThoseLeftOut)
{
    repeat(521);
    pipe_.read();
    clock_.add(std::chrono::seconds(10));

    repeat(30);

    const std::string text = pipe_.read();
    EXPECT_EQ(count_lines(text, "bad request"), 20u);
    EXPECT_EQ(text.find("warn 501 equal lines left out (equal.cpp:1)\n"),
              std::string("0000-00-00 00:00:00.000 ").size())
        << text;
}

TEST_F(EqualLines, AreCountedWhenAnotherLineIsLoggedLater)
{
    repeat(21);
    slate::log_info(SLATE_HERE, "another");
    std::string text = pipe_.read();
    EXPECT_EQ(count_lines(text, "another"), 1u);
    EXPECT_EQ(count_lines(text, "left out"), 0u); // or lines in turn would be as many as before

    clock_.add(std::chrono::seconds(10));
    slate::log_info(SLATE_HERE, "another one");
    text = pipe_.read();
    EXPECT_EQ(count_lines(text, "warn 1 equal line left out (equal.cpp:1)"), 1u);
    EXPECT_EQ(count_lines(text, "another one"), 1u);
    clock_.add(std::chrono::seconds(10));
    slate::log_info(SLATE_HERE, "a third");
    EXPECT_EQ(count_lines(pipe_.read(), "left out"), 0u); // once is enough
}

TEST_F(EqualLines, AreCountedWhenTheSinkGoes)
{
    repeat(25);
    pipe_.read();
    slate::set_log_sinks({});
    EXPECT_EQ(count_lines(pipe_.read(), "5 equal lines left out"), 1u);
}

TEST_F(EqualLines, HaveTheSameLevelProviderAndPlace)
{
    const auto provider = slate::add_provider("log.equal", "", false);
    repeat(20);
    repeat(1);
    repeat(1, slate::ErrorLevel);
    repeat(1, slate::WarnLevel, 2);
    slate::log(provider, slate::WarnLevel, slate::SourceLine("equal.cpp", 1), "bad request");
    slate::log(slate::WarnLevel, slate::SourceLine("other.cpp", 1), "bad request");
    slate::remove_provider(provider->name());

    EXPECT_EQ(count_lines(pipe_.read(), "bad request"), 24u);
}

TEST_F(EqualLines, BelowInfoHaveTheSameTextToo)
{
    slate::set_log_level(slate::ExtremeLevel);
    repeat(50, slate::DebugLevel);
    EXPECT_EQ(count_lines(pipe_.read(), "bad request"), 50u);
    for (int i = 0; i < 50; ++i)
        slate::log_debug(SLATE_HERE, "the same");
    EXPECT_EQ(count_lines(pipe_.read(), "the same"), 20u);
}

TEST_F(EqualLines, AreForgottenBeyondTheLast256Places)
{
    repeat(21);
    pipe_.read();
    for (int i = 0; i < 256; ++i) {
        slate::log(slate::WarnLevel, slate::SourceLine("many.cpp", i), "x");
        if (i == 254) {
            EXPECT_EQ(count_lines(pipe_.read(), "left out"), 0u);
        }
    }
    EXPECT_EQ(count_lines(pipe_.read(), "1 equal line left out"), 1u);
}

TEST_F(EqualLines, ReachTheSinksOfTheApplicationOneByOne)
{
    int lines = 0;
    slate::set_log_sinks({slate::make_callback_sink([&](const auto&) { ++lines; })});
    repeat(1000);
    EXPECT_EQ(lines, 1000);
}

TEST_F(EqualLines, AreLeftOutInTheSystemLogToo)
{
    const SystemLog system_log;
    slate::set_log_sinks({slate::make_syslog_sink("program")});
    slate::log_info(SLATE_HERE, "first"); // counts what tests before have left out
    for (int i = 0; i < 2; ++i)           // a line may have to wait for the counts
        (void)system_log.read();

    repeat(5, slate::ErrorLevel, __LINE__);
    EXPECT_EQ(system_log.read().size(), 5u);
    std::size_t written = 0;
    for (int i = 0; i < 40; ++i) { // one by one, as the socket's queue is short
        repeat(1, slate::ErrorLevel, 4711);
        written += system_log.read().size();
    }
    EXPECT_EQ(written, 20u);
    clock_.add(std::chrono::seconds(10));
    slate::log_info(SLATE_HERE, "another");
    const Texts messages = system_log.read();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("20 equal lines left out"), std::string::npos) << messages[0];
}
} // namespace
