// SPDX-License-Identifier: Apache-2.0
// The sinks for standard error and for the system log. Neither ever waits for its reader: a reader that
// hangs, or a terminal that somebody has stopped, must not stop the services that log. A line that there is
// no room for is lost, and counted in the next one.
#include "slate/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spdlog/common.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/details/os.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "slate/descriptor.h"
#include "slate/line_limit.h"

namespace slate {
namespace {
// "%n" stands for the name of a logger. We pass our own name of the level there, and colour it.
constexpr const char* stderr_pattern = "%Y-%m-%d %H:%M:%S.%e %^%n%$ %v";

constexpr const char* syslog_socket = "/dev/log";

// How long a line waits for a reader that has kept up until now.
constexpr std::chrono::milliseconds patience{100};

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

std::string count_of(std::uint64_t lines)
{
    return std::to_string(lines) + (lines == 1 ? " line" : " lines");
}

/// Says how many lines were lost. The text must outlive it.
LogRecord lost_lines(const std::string& text)
{
    return {WarnLevel, "", SLATE_HERE, text};
}

/// Waits until there is room, for that time at most.
bool wait_for_room(int descriptor, std::chrono::milliseconds time)
{
    pollfd polled{descriptor, POLLOUT, 0};
    return poll(&polled, 1, static_cast<int>(time.count())) == 1 && (polled.revents & POLLOUT) != 0;
}

/// Keeps the signal that a pipe without readers raises from ending the process, in this thread and as long as
/// it exists.
class WithoutSigpipe {
public:
    WithoutSigpipe()
    {
        sigset_t pending{};
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
    }
    ~WithoutSigpipe()
    {
        const int error = errno;
        const timespec at_once{};
        if (!was_pending_) // else the application is to get it
            (void)retry_interrupted([&] { return sigtimedwait(&sigpipe_, nullptr, &at_once); });
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = error;
    }
    WithoutSigpipe(const WithoutSigpipe&) = delete;
    WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;

private:
    sigset_t sigpipe_{};
    sigset_t before_{};
    bool was_pending_ = false;
};

/// Has a function called at the end of the process if the object still exists then, as the sinks do that are
/// in use: they are never destroyed.
class AtExit {
public:
    explicit AtExit(std::function<void()> function)
    {
        static const int registered = std::atexit(&AtExit::call_all);
        (void)registered; // out of memory: the process ends without it
        const std::lock_guard lock(all().mutex);
        place_ = all().functions.insert(all().functions.end(), std::move(function));
    }
    ~AtExit()
    {
        const std::lock_guard lock(all().mutex);
        all().functions.erase(place_);
    }
    AtExit(const AtExit&) = delete;
    AtExit& operator=(const AtExit&) = delete;

private:
    struct All {
        std::mutex mutex; // held while the functions are called
        std::list<std::function<void()>> functions;
    };

    /// Never destroyed, like the sinks.
    static All& all()
    {
        static All* const instance = new All;
        return *instance;
    }

    static void call_all()
    {
        const std::lock_guard lock(all().mutex);
        for (const auto& function : all().functions)
            function();
    }

    std::list<std::function<void()>>::iterator place_;
};

class StandardError {
public:
    /// Writes as much as there is room for within that time, and returns how many bytes that is.
    static std::size_t write(std::string_view bytes, std::chrono::milliseconds time)
    {
        const WithoutSigpipe guard;
        using Clock = std::chrono::steady_clock;
        const auto end = Clock::now() + time;
        std::size_t written = write_now(bytes);
        while (written < bytes.size() && time.count() > 0 && wait_for_room(STDERR_FILENO, time)) {
            const std::size_t more = write_now(bytes.substr(written));
            if (more == 0)
                break;
            written += more;
            time = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        }
        return written;
    }

private:
    /// Writes as much as fits without waiting.
    static std::size_t write_now(std::string_view bytes)
    {
        struct stat status {};
        if (fstat(STDERR_FILENO, &status) != 0)
            return 0;
        if (S_ISSOCK(status.st_mode))
            return count(
                [&] { return send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL); });
        if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) // a disk is never full for long
            return count([&] { return ::write(STDERR_FILENO, bytes.data(), bytes.size()); });

        // Opened once more, because O_NONBLOCK on the descriptor that we have would hold for each process
        // that shares it. Each time, because we would keep a pipe open that the application has closed.
        const Descriptor own(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (own.is_open())
            return count([&] { return ::write(own.get(), bytes.data(), bytes.size()); });
        // For example because another user, who has started us, owns it.
        return S_ISFIFO(status.st_mode) ? splice_into_pipe(bytes) : write_with_care(bytes);
    }

    template <class Call>
    static std::size_t count(Call call)
    {
        const auto result = retry_interrupted(call);
        return result < 0 ? 0 : static_cast<std::size_t>(result);
    }

    /// splice can be told not to wait, unlike write, but takes its bytes from a pipe.
    static std::size_t splice_into_pipe(std::string_view bytes)
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) != 0)
            return 0;
        const Descriptor out(ends[0]);
        const Descriptor in(ends[1]);
        const std::size_t filled = count([&] { return ::write(in.get(), bytes.data(), bytes.size()); });
        return count(
            [&] { return splice(out.get(), nullptr, STDERR_FILENO, nullptr, filled, SPLICE_F_NONBLOCK); });
    }

    /// Byte by byte: a terminal that has room at all takes one.
    static std::size_t write_with_care(std::string_view bytes)
    {
        std::size_t written = 0;
        while (written < bytes.size() && wait_for_room(STDERR_FILENO, std::chrono::milliseconds(0)) &&
               ::write(STDERR_FILENO, bytes.data() + written, 1) == 1)
            ++written;
        return written;
    }
};

class StderrSink : public LogSink {
public:
    StderrSink()
        : formatter_(stderr_pattern),
          at_exit_([this] { finish(); }),
          is_coloured_(spdlog::details::os::in_terminal(stderr) && spdlog::details::os::is_color_terminal())
    {
    }
    ~StderrSink() override { finish(); }

    void write(const LogRecord& record) override
    {
        const std::lock_guard lock(mutex_);
        limit_.pass(record, [this](const LogRecord& line) { write_line(line); });
    }

private:
    /// Writes the counts that are still to come.
    void finish() noexcept
    {
        try {
            const std::lock_guard lock(mutex_);
            limit_.finish([this](const LogRecord& line) { write_line(line); });
        }
        catch (...) {
            // Out of memory; the counts are lost.
        }
    }

    void write_line(const LogRecord& record)
    {
        std::string first = is_torn_ ? "\n" : "";
        if (lost_ > 0)
            first += formatted(lost_lines(count_of(lost_) + " lost, standard error was full"));
        const std::string bytes = first + formatted(record);

        const std::size_t written =
            StandardError::write(bytes, lost_ == 0 ? patience : std::chrono::milliseconds(0));
        if (written > 0)
            is_torn_ = bytes[written - 1] != '\n';
        if (written >= first.size()) // so it says how many were lost before
            lost_ = 0;
        if (written < bytes.size())
            ++lost_;
    }

    std::string formatted(const LogRecord& record)
    {
        const std::string line = to_line(record);
        const std::string_view level = to_string(record.level);
        spdlog::details::log_msg message({level.data(), level.size()}, spdlog::level::info,
                                         {line.data(), line.size()});
        spdlog::memory_buf_t buffer;
        formatter_.format(message, buffer);

        std::string result(buffer.data(), buffer.size());
        if (is_coloured_) {
            result.insert(message.color_range_end, "\033[m");
            result.insert(message.color_range_start, colour_of(record.level));
        }
        return result;
    }

    static const char* colour_of(TraceLevel level)
    {
        switch (level) {
        case DebugLevel:
        case VerboseLevel:
            return "\033[36m"; // cyan
        case InfoLevel:
            return "\033[32m"; // green
        case WarnLevel:
            return "\033[33m\033[1m"; // bold yellow
        case ExtremeLevel:
        case ErrorLevel:
            break;
        }
        return level <= ExtremeLevel ? "\033[37m" : "\033[31m\033[1m"; // white, bold red
    }

    std::mutex mutex_; // guards the rest, and is held while a line is written, which never takes long
    LineLimit limit_;
    spdlog::pattern_formatter formatter_;
    const AtExit at_exit_;
    std::uint64_t lost_ = 0; // lines since the last one that was written
    bool is_torn_ = false;   // whether the last line was written in part
    const bool is_coloured_;
};

int priority_of(TraceLevel level)
{
    switch (level) {
    case ExtremeLevel:
    case DebugLevel:
    case VerboseLevel:
        return LOG_DEBUG;
    case InfoLevel:
        return LOG_INFO;
    case WarnLevel:
        return LOG_WARNING;
    case ErrorLevel:
        break;
    }
    return level < ExtremeLevel ? LOG_DEBUG : LOG_ERR;
}

/// The connection to the system log, of which a process has only one. Of our own, because syslog(3) waits for
/// the daemon while its queue is full.
class SystemLog {
public:
    /// Writes the counts that are still to come.
    void finish() noexcept
    {
        try {
            const std::lock_guard lock(mutex_);
            limit_.finish([this](const LogRecord& line) { write_line(line); });
        }
        catch (...) {
            // Out of memory; the counts are lost.
        }
    }

    void set_ident(const std::string& ident)
    {
        const std::lock_guard lock(mutex_);
        ident_ = ident;
    }

    void write(const LogRecord& record)
    {
        const std::lock_guard lock(mutex_);
        limit_.pass(record, [this](const LogRecord& line) { write_line(line); });
    }

private:
    void write_line(const LogRecord& record)
    {
        if (lost_ > 0 && send(lost_lines(count_of(lost_) + " lost, the system log was full")))
            lost_ = 0;
        if (lost_ > 0 || !send(record))
            ++lost_;
    }

    bool send(const LogRecord& record)
    {
        const std::string message = header_of(record.level) + to_line(record);
        int error = send_patiently(message);
        if (error != 0 && error != EAGAIN && connect_socket())
            error = send_patiently(message); // the first line, or the daemon has been started again
        return error == 0;
    }

    /// Sends a message; waits a moment for room if there was room for all messages until now. 0, or an errno.
    int send_patiently(const std::string& message) const
    {
        int error = try_send(message);
        if (error == EAGAIN && lost_ == 0 && wait_for_room(socket_.get(), patience))
            error = try_send(message);
        return error;
    }

    /// 0, or an errno.
    int try_send(const std::string& message) const
    {
        const auto sent = retry_interrupted([&] {
            return ::send(socket_.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        });
        return sent < 0 ? errno : 0;
    }

    bool connect_socket()
    {
        socket_ = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, syslog_socket, sizeof address.sun_path - 1);
        return socket_.is_open() &&
               connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    /// The form that syslog(3) sends: "<14>Jan  1 00:00:00 ident[123]: ".
    std::string header_of(TraceLevel level) const
    {
        constexpr std::array months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        std::array<char, 64> text{};
        (void)std::snprintf(text.data(), text.size(), "<%d>%s %2d %02d:%02d:%02d ",
                            LOG_USER | priority_of(level), months.at(static_cast<std::size_t>(local.tm_mon)),
                            local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        return text.data() + ident_ + '[' + std::to_string(getpid()) + "]: ";
    }

    std::mutex mutex_; // guards the rest, and is held while a line is sent, which never takes long
    std::string ident_;
    LineLimit limit_;
    Descriptor socket_;
    std::uint64_t lost_ = 0; // lines since the last one that was sent
};

/// Never destroyed, since objects of static lifetime may still log in their destructors, in whatever order.
SystemLog& system_log()
{
    static SystemLog* const instance = new SystemLog;
    return *instance;
}

class SyslogSink : public LogSink {
public:
    SyslogSink() : at_exit_([] { system_log().finish(); }) {}
    ~SyslogSink() override { system_log().finish(); }

    void write(const LogRecord& record) override { system_log().write(record); }

private:
    const AtExit at_exit_;
};
} // namespace

std::shared_ptr<LogSink> make_stderr_sink()
{
    return std::make_shared<StderrSink>();
}

std::shared_ptr<LogSink> make_syslog_sink(const std::string& ident)
{
    system_log().set_ident(ident);
    return std::make_shared<SyslogSink>();
}
} // namespace slate
