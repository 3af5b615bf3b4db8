// SPDX-License-Identifier: Apache-2.0
#include "output/file.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <slate/strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "command.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
namespace fs = std::filesystem;

constexpr int max_links = 40; // as many as the system follows
constexpr int max_tries = 100;
constexpr std::size_t max_kept_name = 200; // leaves room for what is put behind it
constexpr std::array<int, 5> ending_signals = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM};

/// The file to remove if a signal ends the process; changes only while these signals are blocked.
std::array<char, PATH_MAX> unfinished{};

extern "C" void remove_unfinished(int number)
{
    (void)unlink(unfinished.data());
    (void)raise(number); // which ends the process as if nothing had caught it
}

/// Keeps the signals away while a file and its name in `unfinished` don't agree.
class SignalBlock {
public:
    SignalBlock()
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : ending_signals)
            sigaddset(&set, number);
        pthread_sigmask(SIG_BLOCK, &set, &before_);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t before_{};
};

void set_unfinished(const std::string& name)
{
    unfinished.at(name.copy(unfinished.data(), unfinished.size() - 1)) = '\0';
}

void catch_signals()
{
    for (const int number : ending_signals) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != SIG_DFL)
            continue; // whoever started this wants it ignored
        action.sa_handler = remove_unfinished;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        (void)sigaction(number, &action, nullptr);
    }
}

/// Where a name leads to, also if nothing is there yet.
fs::path follow_links(fs::path path)
{
    std::error_code error;
    for (int i = 0; i < max_links && fs::is_symlink(fs::symlink_status(path, error)); ++i) {
        const fs::path target = fs::read_symlink(path, error);
        if (error)
            break;
        path = path.parent_path() / target; // which is `target` alone if that is absolute
    }
    return path;
}

/// The number of the open file of this process that a name such as /dev/stdout or /dev/fd/7 stands for; -1
/// for other names. To open such a name again, or to replace it, would lose what others write there.
int descriptor_of(fs::path path)
{
    const fs::path own = fs::path("/proc") / std::to_string(getpid()) / "fd";
    std::error_code error;
    for (int i = 0; i < max_links && fs::is_symlink(fs::symlink_status(path, error)); ++i) {
        int number = -1;
        if (fs::canonical(path.parent_path(), error) == own &&
            slate::try_parse(path.filename().string(), &number))
            return number;
        const fs::path target = fs::read_symlink(path, error);
        if (error)
            break;
        path = path.parent_path() / target;
    }
    return -1;
}
} // namespace

OutputFile::OutputFile(std::string name) : name_(std::move(name))
{
    if (const int number = descriptor_of(name_); number >= 0) {
        is_direct_ = true;
        const int descriptor = fcntl(number, F_DUPFD_CLOEXEC, 0);
        file_ = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
        if (!file_)
            fail(errno);
        return;
    }
    std::error_code ignored;
    const auto type = fs::status(name_, ignored).type();
    is_direct_ = type != fs::file_type::regular && type != fs::file_type::not_found;
    if (type == fs::file_type::directory)
        fail(EISDIR);
    if (is_direct_) {
        const int descriptor = open(name_.c_str(), O_WRONLY | O_CLOEXEC);
        file_ = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
        if (!file_)
            fail(errno);
        return;
    }
    target_ = follow_links(name_).string();
    open_beside(target_);
}

void OutputFile::open_beside(const std::string& target)
{
    struct stat before {};
    const bool replaces = stat(target.c_str(), &before) == 0;
    if (replaces && access(target.c_str(), W_OK) != 0)
        fail(errno);

    const fs::path path = target;
    const std::string start =
        (path.parent_path() / path.filename().string().substr(0, max_kept_name)).string() + ".part" +
        std::to_string(getpid());
    catch_signals();
    int descriptor = -1;
    for (int i = 0; descriptor < 0; ++i) {
        const SignalBlock block;
        written_ = i == 0 ? start : start + "-" + std::to_string(i);
        // One that replaces another stays closed to others until it has that one's mode.
        descriptor = open(written_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, replaces ? 0600 : 0666);
        if (descriptor >= 0)
            set_unfinished(written_);
        else if (errno != EEXIST || i == max_tries) // what a killed process has left may be there
            fail(errno);
    }
    file_ = fdopen(descriptor, "w");
    if (!file_)
        fail(errno);
    if (replaces) {
        (void)!fchown(descriptor, before.st_uid, before.st_gid); // as far as this user may
        (void)fchmod(descriptor, before.st_mode & 0777U);
    }
}

OutputFile::~OutputFile()
{
    if (!file_)
        return;
    (void)std::fclose(file_);
    if (is_direct_)
        return;
    const SignalBlock block;
    (void)std::remove(written_.c_str());
    set_unfinished("");
}

void OutputFile::write(std::string_view bytes)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
        fail(errno);
}

void OutputFile::finish()
{
    FILE* file = std::exchange(file_, nullptr);
    bool is_good = std::fclose(file) == 0;
    int error = errno;
    if (!is_direct_) {
        const SignalBlock block;
        if (is_good && std::rename(written_.c_str(), target_.c_str()) != 0) {
            error = errno;
            is_good = false;
        }
        if (!is_good)
            (void)std::remove(written_.c_str());
        set_unfinished("");
    }
    if (!is_good)
        fail(error);
}

void OutputFile::fail(int error) const
{
    throw Failure(ExitOther, "cannot write '" + brief(name_) + "': " +
                                 std::generic_category().message(error) + "; name another file with -o");
}
} // namespace tarn_command
