// SPDX-License-Identifier: Apache-2.0
#include "slate/file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "slate/strings.h"
#include "support/clock_jump.h"
#include "support/scratch_folder.h"
#include "support/wait_until.h"

namespace {
namespace fs = std::filesystem;

using Names = std::vector<std::string>;

/// While it exists, records the system calls of this thread that matter in a power cut, and can make one of
/// them fail.
class SystemCalls {
public:
    SystemCalls() { of_this_thread = this; }
    ~SystemCalls() { of_this_thread = nullptr; }
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    /// Makes every call of that name fail with that errno.
    void fail(const std::string& name, int reason)
    {
        failing_ = name;
        reason_ = reason;
    }

    /// Calls a function before each call of that name.
    void before(const std::string& name, std::function<void()> action)
    {
        awaited_ = name;
        action_ = std::move(action);
    }

    const Names& made() const { return made_; }

    /// The folders that were synced.
    const Names& synced_folders() const { return synced_folders_; }

    static void note_synced_folder(int file)
    {
        if (of_this_thread)
            of_this_thread->synced_folders_.push_back(
                fs::read_symlink("/proc/self/fd/" + std::to_string(file)).string());
    }

    /// How many times any thread has asked for a lock.
    static std::atomic<int> locks;

    /// Records a call, and returns the errno with which it is to fail, or 0.
    static int make(const std::string& name)
    {
        if (name == "flock")
            ++locks;
        if (!of_this_thread)
            return 0;
        of_this_thread->made_.push_back(name);
        if (of_this_thread->awaited_ == name)
            of_this_thread->action_();
        return of_this_thread->failing_ == name ? of_this_thread->reason_ : 0;
    }

private:
    static thread_local SystemCalls* of_this_thread;

    Names made_;
    Names synced_folders_;
    std::string awaited_;
    std::function<void()> action_;
    std::string failing_;
    int reason_ = 0;
};
thread_local SystemCalls* SystemCalls::of_this_thread = nullptr;
std::atomic<int> SystemCalls::locks{0};

int refuse(int reason)
{
    errno = reason;
    return -1;
}
} // namespace

// These take the place of the C library's functions.
extern "C" {
int flock(int file, int operation) noexcept
{
    if (operation == LOCK_UN) // its result is never looked at
        return static_cast<int>(syscall(SYS_flock, file, operation));
    const int reason = SystemCalls::make("flock");
    return reason ? refuse(reason) : static_cast<int>(syscall(SYS_flock, file, operation));
}

int fsync(int file)
{
    struct stat status {};
    const bool is_folder = fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
    const int reason = SystemCalls::make(is_folder ? "fsync folder" : "fsync file");
    if (is_folder)
        SystemCalls::note_synced_folder(file);
    return reason ? refuse(reason) : static_cast<int>(syscall(SYS_fsync, file));
}

int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept
{
    const int reason = SystemCalls::make("rename");
    return reason ? refuse(reason)
                  : static_cast<int>(syscall(SYS_renameat2, from_folder, from, to_folder, to, 0));
}

int fchown(int file, uid_t owner, gid_t group) noexcept
{
    const int reason = SystemCalls::make(owner == static_cast<uid_t>(-1) ? "fchown group" : "fchown");
    return reason ? refuse(reason) : static_cast<int>(syscall(SYS_fchown, file, owner, group));
}

int fchmod(int file, mode_t mode) noexcept
{
    const int reason = SystemCalls::make("fchmod");
    return reason ? refuse(reason) : static_cast<int>(syscall(SYS_fchmod, file, mode));
}
}

namespace {
std::string content(const fs::path& path)
{
    return slate::slurp_file<std::string>(path.string(), std::ios::binary);
}

void put(const fs::path& path, std::string_view text)
{
    std::ofstream(path, std::ios::binary) << text;
}

void write(const fs::path& path, std::string_view text)
{
    slate::powersafe_write(path, [&](std::ofstream& out) { out << text; });
}

/// The names of the files in a folder, sorted.
Names files(const fs::path& folder)
{
    Names names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

unsigned int mode_of(const fs::path& path)
{
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

/// Runs `call` and expects it to throw a filesystem_error with this path and errno.
template <class Call>
void expect_error(const fs::path& path, int reason, Call call)
{
    try {
        call();
        ADD_FAILURE() << "no error for " << path;
    }
    catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.path1(), path);
        EXPECT_EQ(error.code(), std::error_code(reason, std::generic_category())) << error.what();
    }
}

void expect_write_error(const fs::path& path, int reason)
{
    expect_error(path, reason, [&] { write(path, "new"); });
}

class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : saved_(umask(mask)) {}
    ~UmaskScope() { umask(saved_); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

private:
    mode_t saved_;
};

/// A forked process that runs `body` and exits with its result.
class Child {
public:
    template <class Body>
    explicit Child(Body body) : pid_(fork())
    {
        if (pid_ == 0)
            _exit(body());
    }

    void kill() const { ::kill(pid_, SIGKILL); }

    /// Its exit status, or minus the signal that ended it.
    int wait() const
    {
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t pid_;
};

class Slurp : public testing::Test {
protected:
    tarn_test::ScratchFolder scratch_;
    const fs::path path_ = scratch_.path() / "file";
};

using PowersafeWrite = Slurp;

TEST_F(Slurp, TurnsTextIntoBytesAndBack)
{
    const std::string text("a\0\xff", 3);

    EXPECT_EQ(slate::slurp_bytes(text), (std::vector<unsigned char>{'a', 0, 0xff}));
    EXPECT_EQ(slate::slurp(slate::slurp_bytes(text)), text);
    EXPECT_TRUE(slate::slurp_bytes("").empty());
    EXPECT_EQ(slate::slurp(std::vector<unsigned char>()), "");
}

TEST_F(Slurp, ReadsTheRestOfAStream)
{
    std::istringstream stream("first rest\nof it ");
    std::string first;
    stream >> first;

    EXPECT_EQ(slate::slurp(stream), " rest\nof it ");
    EXPECT_EQ(slate::slurp(stream), "");
}

TEST_F(Slurp, ReadsAWholeFile)
{
    for (const std::size_t size : {0u, 1u, 16'384u, 16'385u, 1'000'000u}) {
        std::string text(size, 'x');
        if (size > 1)
            text[1] = '\0';
        put(path_, text);
        EXPECT_EQ(content(path_), text) << size;
    }
}

TEST_F(Slurp, ReadsAFileWhoseSizeIsShownAsZero)
{
    EXPECT_NE(content("/proc/self/status").find("Name:"), std::string::npos);
}

TEST_F(Slurp, RefusesAMissingFileAndADirectory)
{
    expect_error(path_, ENOENT, [&] { content(path_); });
    expect_error(scratch_.path(), EISDIR, [&] { content(scratch_.path()); });
    expect_error("", ENOENT, [&] { content(""); });
}

TEST_F(PowersafeWrite, ReplacesAFileWhoseSizeOrTimeNeedsMoreThan32Bits)
{
    put(path_, "old");
    ASSERT_EQ(truncate(path_.c_str(), off_t{5} << 30), 0)
        << std::strerror(errno); // takes no room on the disk
    const timespec in_2040 = {std::time_t{2'208'988'800}, 0};
    const timespec times[] = {in_2040, in_2040};
    ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0) << std::strerror(errno);

    write(path_, "new");

    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, WritesAFileOfMoreThanTwoGibibytes)
{
    constexpr std::streamoff hole = (std::streamoff{2} << 30) + 1;

    slate::powersafe_write(path_, [&](std::ofstream& out) { out.seekp(hole) << "end"; });

    EXPECT_EQ(fs::file_size(path_), static_cast<std::uintmax_t>(hole) + 3);
}

TEST_F(PowersafeWrite, MakesAFileWithTheUsualMode)
{
    const UmaskScope mask(027);

    write(path_, std::string_view("a\0\n", 3));

    EXPECT_EQ(content(path_), std::string("a\0\n", 3));
    EXPECT_EQ(mode_of(path_), 0640u);
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, ReplacesTheContent)
{
    put(path_, "old, and longer");

    write(path_, "new");
    EXPECT_EQ(content(path_), "new");
    write(path_, "");
    EXPECT_EQ(content(path_), "");

    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, KeepsTheModeOfTheFile)
{
    const UmaskScope mask(022);
    for (const mode_t mode : {0640u, 0600u, 0666u, 0444u, 0755u, 0000u}) {
        put(path_, "old");
        ASSERT_EQ(chmod(path_.c_str(), mode), 0);

        write(path_, "new");

        EXPECT_EQ(mode_of(path_), mode);
        fs::remove(path_);
    }
}

TEST_F(PowersafeWrite, KeepsTheNewContentPrivateWhileItIsWritten)
{
    put(path_, "old");
    ASSERT_EQ(chmod(path_.c_str(), 0644), 0);

    slate::powersafe_write(path_, [&](std::ofstream& out) {
        out << "new";
        EXPECT_EQ(files(scratch_.path()), (Names{".file.tmp", "file"}));
        EXPECT_EQ(mode_of(scratch_.path() / ".file.tmp"), 0600u);
        EXPECT_EQ(content(path_), "old");
    });

    EXPECT_EQ(mode_of(path_), 0644u);
}

TEST_F(PowersafeWrite, KeepsTheOwnerIfItMay)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may give files away";
    put(path_, "old");
    ASSERT_EQ(chown(path_.c_str(), 12345, 54321), 0);

    write(path_, "new");

    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_EQ(status.st_gid, 54321u);
}

TEST_F(PowersafeWrite, KeepsTheGroupIfItMayNotKeepTheOwner)
{
    put(path_, "old");
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path_.c_str(), 12345, 54321), 0);
    }
    struct stat old {};
    ASSERT_EQ(stat(path_.c_str(), &old), 0);

    {
        SystemCalls calls;
        calls.fail("fchown", EPERM);
        write(path_, "new");
        EXPECT_EQ(calls.made(), (Names{"flock", "fchown", "fchown group", "fchmod", "fsync file", "rename",
                                       "fsync folder"}));
    }

    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, geteuid());
    EXPECT_EQ(status.st_gid, old.st_gid);
    EXPECT_EQ(status.st_mode, old.st_mode);
}

TEST_F(PowersafeWrite, ChangesNothingIfTheWriterThrows)
{
    put(path_, "old");

    EXPECT_THROW(slate::powersafe_write(path_,
                                        [](std::ofstream& out) {
                                            out << "half of the new" << std::flush;
                                            throw std::runtime_error("changed my mind");
                                        }),
                 std::runtime_error);
    EXPECT_EQ(content(path_), "old");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});

    EXPECT_THROW(slate::powersafe_write(scratch_.path() / "other", [](std::ofstream&) { throw 42; }), int);
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
    write(path_, "new"); // no lock is left
    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, FailsIfTheStreamDid)
{
    put(path_, "old");

    expect_error(path_, EIO, [&] {
        slate::powersafe_write(path_, [](std::ofstream& out) {
            errno = ENOENT; // left by some other call
            out.setstate(std::ios::failbit);
        });
    });

    EXPECT_EQ(content(path_), "old");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, TellsWhyTheContentCouldNotBeWritten)
{
    put(path_, "old");
    for (const std::size_t size : {6'000u, 1'000'000u}) { // fails at the end, and while writing
        const Child child([&] {
            (void)signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{5000, 5000};
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                return 2;
            try {
                slate::powersafe_write(path_, [&](std::ofstream& out) {
                    if (size < 8'000) // fails after the writer, which wants an exception, has returned
                        out.exceptions(std::ios::badbit | std::ios::failbit);
                    for (std::size_t i = 0; i < size; ++i)
                        out.put('x');
                });
                return 3;
            }
            catch (const fs::filesystem_error& error) {
                return error.path1() == path_ && error.code().value() == EFBIG ? 0 : 1;
            }
        });

        EXPECT_EQ(child.wait(), 0);
        EXPECT_EQ(content(path_), "old");
        EXPECT_EQ(files(scratch_.path()), Names{"file"});
    }
}

TEST_F(PowersafeWrite, AllowsAWriterThatClosesOrWantsExceptions)
{
    slate::powersafe_write(path_, [](std::ofstream& out) {
        out << "closed";
        out.close();
    });
    EXPECT_EQ(content(path_), "closed");

    slate::powersafe_write(path_, [](std::ofstream& out) {
        out.exceptions(std::ios::badbit | std::ios::failbit);
        out << "careful";
    });
    EXPECT_EQ(content(path_), "careful");
}

TEST_F(PowersafeWrite, RefusesAMissingFolder)
{
    expect_write_error(scratch_.path() / "missing" / "file", ENOENT);
    put(path_, "old");
    expect_write_error(path_ / "below a file", ENOTDIR);
    expect_write_error("", ENOENT);

    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, RefusesAPathThatIsNoRegularFile)
{
    const auto folder = scratch_.path() / "folder";
    fs::create_directory(folder);
    const auto pipe = scratch_.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    bool called = false;
    const auto note = [&](std::ofstream&) { called = true; };

    expect_error(folder, EISDIR, [&] { slate::powersafe_write(folder, note); });
    expect_error(folder / "", EISDIR, [&] { slate::powersafe_write(folder / "", note); });
    expect_error(folder / "..", EISDIR, [&] { slate::powersafe_write(folder / "..", note); });
    expect_error(path_ / "", EISDIR, [&] { slate::powersafe_write(path_ / "", note); });
    expect_error(pipe, EINVAL, [&] { slate::powersafe_write(pipe, note); });

    EXPECT_FALSE(called);
    EXPECT_TRUE(fs::is_fifo(pipe));
    EXPECT_EQ(files(scratch_.path()), (Names{"folder", "pipe"}));
    EXPECT_TRUE(files(folder).empty());
}

TEST_F(PowersafeWrite, FollowsSymbolicLinks)
{
    const auto folder = scratch_.path() / "folder";
    fs::create_directory(folder);
    put(folder / "target", "old");
    ASSERT_EQ(chmod((folder / "target").c_str(), 0640), 0);
    fs::create_symlink("target", folder / "second"); // relative to the link's folder
    fs::create_symlink(folder / "second", path_);    // absolute
    fs::create_symlink("folder/dangling", scratch_.path() / "file2");

    write(path_, "new");
    write(scratch_.path() / "file2", "made");

    EXPECT_EQ(content(folder / "target"), "new");
    EXPECT_EQ(mode_of(folder / "target"), 0640u);
    EXPECT_EQ(content(folder / "dangling"), "made");
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_TRUE(fs::is_symlink(scratch_.path() / "file2"));
    EXPECT_TRUE(fs::is_symlink(folder / "second"));
    EXPECT_EQ(files(scratch_.path()), (Names{"file", "file2", "folder"}));
    EXPECT_EQ(files(folder), (Names{"dangling", "second", "target"}));
}

TEST_F(PowersafeWrite, RefusesLinksInACircle)
{
    fs::create_symlink("other", path_);
    fs::create_symlink("file", scratch_.path() / "other");

    expect_write_error(path_, ELOOP);
}

TEST_F(PowersafeWrite, WritesABareNameInTheCurrentFolder)
{
    const auto before = fs::current_path();
    fs::current_path(scratch_.path());

    write("file", "new");

    fs::current_path(before);
    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, ReplacesAFileThatACrashLeftBehind)
{
    const auto leftover = scratch_.path() / ".file.tmp";
    for (const mode_t mode : {0600u, 0444u}) {
        put(leftover, "half of something, and longer than the new content");
        ASSERT_EQ(chmod(leftover.c_str(), mode), 0);

        write(path_, "new");

        EXPECT_EQ(content(path_), "new");
        EXPECT_EQ(files(scratch_.path()), Names{"file"});
    }
}

/// Runs an action in a process without privileges, to which permissions apply. Returns the errno of the
/// filesystem_error that it throws, or 0.
template <class Action>
int without_privileges(Action action)
{
    constexpr uid_t nobody = 65534;
    return Child([&] {
               if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0))
                   return 255;
               try {
                   action();
                   return 0;
               }
               catch (const fs::filesystem_error& error) {
                   return error.code().value();
               }
           })
        .wait();
}

TEST_F(PowersafeWrite, ReplacesALeftoverThatItMayNotOpen)
{
    ASSERT_EQ(chmod(scratch_.path().c_str(), 0777), 0);
    put(scratch_.path() / ".file.tmp", "half, by another user");
    ASSERT_EQ(chmod((scratch_.path() / ".file.tmp").c_str(), 0000), 0);

    EXPECT_EQ(without_privileges([&] { write(path_, "new"); }), 0);

    EXPECT_EQ(files(scratch_.path()), Names{"file"});
    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, FailsIfItMayNeitherOpenNorUnlinkALeftover)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may make files of another user";
    ASSERT_EQ(chmod(scratch_.path().c_str(), 01777), 0); // only its owner may unlink a file there
    put(scratch_.path() / ".file.tmp", "half");
    ASSERT_EQ(chmod((scratch_.path() / ".file.tmp").c_str(), 0000), 0);

    EXPECT_EQ(without_privileges([&] { write(path_, "new"); }), EPERM);
    EXPECT_EQ(without_privileges([&] { slate::remove_powersafe_leftover(path_); }), 0);

    EXPECT_EQ(files(scratch_.path()), Names{".file.tmp"});
}

TEST_F(PowersafeWrite, LosesOnlyItsLeftoverWhenThatIsRemoved)
{
    put(path_, "old");
    put(scratch_.path() / ".file.tmp", "half");
    put(scratch_.path() / ".other.tmp", "of another file");
    fs::create_symlink("file", scratch_.path() / "link");

    slate::remove_powersafe_leftover(scratch_.path() / "link");
    EXPECT_EQ(files(scratch_.path()), (Names{".other.tmp", "file", "link"}));

    // Paths without a leftover, without a file, without a folder, and such as no file can have.
    for (const fs::path& path : {path_, scratch_.path() / "missing", scratch_.path() / "missing" / "file",
                                 path_ / "below a file", scratch_.path(), fs::path()})
        slate::remove_powersafe_leftover(path);
    EXPECT_EQ(files(scratch_.path()), (Names{".other.tmp", "file", "link"}));
    EXPECT_EQ(content(path_), "old");
}

TEST_F(PowersafeWrite, IsNotDisturbedByARemovalOfLeftovers)
{
    std::thread removing;
    slate::powersafe_write(path_, [&](std::ofstream& out) {
        const int locks = SystemCalls::locks;
        removing = std::thread([&] { slate::remove_powersafe_leftover(path_); });
        EXPECT_TRUE(tarn_test::wait_until([&] { return SystemCalls::locks > locks; }));
        out << "new";
    });
    removing.join();

    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, FollowsNoLinkInPlaceOfItsTemporaryFileAndRemovesIt)
{
    const auto precious = scratch_.path() / "precious";
    put(precious, "precious");
    for (const fs::path& target : {precious, scratch_.path() / "missing", scratch_.path()}) {
        fs::create_symlink(target, scratch_.path() / ".file.tmp");

        write(path_, "new");

        EXPECT_EQ(content(path_), "new");
        EXPECT_EQ(content(precious), "precious");
        EXPECT_EQ(files(scratch_.path()), (Names{"file", "precious"}));
    }
}

TEST_F(PowersafeWrite, PassesAFolderInPlaceOfItsTemporaryFileBy)
{
    const auto folder = scratch_.path() / ".file.tmp";
    fs::create_directory(folder);

    write(path_, "old"); // an empty folder goes
    EXPECT_EQ(files(scratch_.path()), Names{"file"});

    fs::create_directory(folder);
    put(folder / "precious", "precious");
    put(scratch_.path() / ".file.1.tmp", "left by a crash");
    write(path_, "new");
    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(content(folder / "precious"), "precious");
    EXPECT_EQ(files(scratch_.path()), (Names{".file.tmp", "file"}));

    for (const char* name : {".file.1.tmp", ".file.2.tmp", ".file.3.tmp"})
        fs::create_directories(scratch_.path() / name / "full");
    expect_write_error(path_, EISDIR);
    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, RemovesAPipeOrSocketInPlaceOfItsTemporaryFile)
{
    ASSERT_EQ(mkfifo((scratch_.path() / ".file.tmp").c_str(), 0600), 0);

    write(path_, "new");

    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, KeepsANewFilePrivateUntilItIsComplete)
{
    const UmaskScope mask(002);

    slate::powersafe_write(path_, [&](std::ofstream& out) {
        out << "new";
        EXPECT_EQ(mode_of(scratch_.path() / ".file.tmp"), 0600u);
    });

    EXPECT_EQ(mode_of(path_), 0664u);
}

TEST_F(PowersafeWrite, OpensItsTemporaryFileByNameOnlyOnce)
{
    ASSERT_EQ(chmod(scratch_.path().c_str(), 0777), 0);

    // By another user than root, who could open it by name whatever its mode.
    EXPECT_EQ(without_privileges([&] {
                  SystemCalls calls;
                  calls.before("flock", [&] { (void)!chmod((scratch_.path() / ".file.tmp").c_str(), 0); });
                  write(path_, "new");
              }),
              0);

    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, WaitsOnlyTenSecondsForALockThatSomebodyElseHolds)
{
    put(path_, "old");
    const auto temporary = scratch_.path() / ".file.tmp";
    put(temporary, "half");
    const int other = open(temporary.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);

    for (const bool writes : {true, false}) {
        tarn_test::ClockJump clock;
        std::atomic<bool> done{false};
        int locks = SystemCalls::locks;
        std::thread waiting([&] {
            if (writes)
                expect_write_error(path_, ETIMEDOUT);
            else
                slate::remove_powersafe_leftover(path_);
            done = true;
        });
        EXPECT_TRUE(tarn_test::wait_until([&] { return SystemCalls::locks > locks; }));
        clock.add(slate::powersafe_patience / 2);
        locks = SystemCalls::locks;
        EXPECT_TRUE(tarn_test::wait_until([&] { return SystemCalls::locks > locks + 1; }));
        EXPECT_FALSE(done);
        clock.add(slate::powersafe_patience / 2);
        waiting.join();
    }

    EXPECT_EQ(content(path_), "old");
    EXPECT_EQ(files(scratch_.path()), (Names{".file.tmp", "file"}));
    close(other);
    write(path_, "new");
    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, FollowsALinkOfAnotherUserOnlyWhereNobodyElseMayPlantOne)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may make files of another user";
    constexpr uid_t somebody = 12345;
    constexpr uid_t owner = 12346;
    const auto folder = scratch_.path() / "folder";
    fs::create_directory(folder);
    const auto precious = scratch_.path() / "precious";
    put(precious, "precious");
    const auto link = folder / "link";
    fs::create_symlink(precious, link);
    ASSERT_EQ(lchown(link.c_str(), somebody, somebody), 0);
    ASSERT_EQ(chown(folder.c_str(), owner, owner), 0);

    for (const mode_t mode : {0777u, 01777u, 0775u}) {
        ASSERT_EQ(chmod(folder.c_str(), mode), 0);
        expect_write_error(link, EACCES);
        expect_error(link, EACCES, [&] { slate::slurp_trusted_file(link); });
    }
    EXPECT_EQ(content(precious), "precious");
    EXPECT_EQ(content(link), "precious"); // of any file, whoever planted a link to it

    // Nobody else may write to the folder; the folder's owner has made the link; we have.
    ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
    EXPECT_EQ(slate::slurp_trusted_file(link), "precious");
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    for (const uid_t user : {owner, geteuid()}) {
        ASSERT_EQ(lchown(link.c_str(), user, user), 0);
        EXPECT_EQ(slate::slurp_trusted_file(link), content(precious));
        write(link, "by " + std::to_string(user));
        EXPECT_EQ(content(precious), "by " + std::to_string(user));
    }
}

TEST_F(PowersafeWrite, FollowsNoLinkOfAnotherUserAtTheEndOfItsOwn)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may make files of another user";
    const auto open_folder = scratch_.path() / "open";
    fs::create_directory(open_folder);
    ASSERT_EQ(chmod(open_folder.c_str(), 0777), 0);
    put(scratch_.path() / "precious", "precious");
    fs::create_symlink("../precious", open_folder / "link");
    ASSERT_EQ(lchown((open_folder / "link").c_str(), 12345, 12345), 0);
    fs::create_symlink("open/link", path_);

    expect_write_error(path_, EACCES);
    expect_error(path_, EACCES, [&] { slate::slurp_trusted_file(path_); });

    EXPECT_EQ(content(scratch_.path() / "precious"), "precious");
}

using PowersafeRemove = Slurp;

TEST_F(PowersafeRemove, ReachesTheDisk)
{
    put(path_, "old");

    SystemCalls calls;
    EXPECT_TRUE(slate::powersafe_remove(path_));
    EXPECT_FALSE(slate::powersafe_remove(path_));
    EXPECT_FALSE(slate::powersafe_remove(scratch_.path() / "missing" / "file"));

    EXPECT_FALSE(fs::exists(path_));
    EXPECT_EQ(calls.synced_folders(), Names(2, scratch_.path().string()));
    calls.fail("fsync folder", EIO);
    expect_error(path_, EIO, [&] { slate::powersafe_remove(path_); });
}

using PowersafeCreateDirectories = Slurp;

TEST_F(PowersafeCreateDirectories, BringsEachNewNameToTheDisk)
{
    const std::string top = scratch_.path().string();

    const SystemCalls calls;
    slate::powersafe_create_directories(scratch_.path() / "a" / "b" / "c" / "");
    EXPECT_TRUE(fs::is_directory(scratch_.path() / "a" / "b" / "c"));
    EXPECT_EQ(calls.synced_folders(), (Names{top, top + "/a", top + "/a/b"}));

    slate::powersafe_create_directories(scratch_.path() / "a" / "b");
    EXPECT_EQ(calls.synced_folders().size(), 3u); // nothing new
}

TEST_F(PowersafeCreateDirectories, TellsWhyItCannot)
{
    put(path_, "no folder");
    EXPECT_THROW(slate::powersafe_create_directories(path_), fs::filesystem_error);
    EXPECT_THROW(slate::powersafe_create_directories(path_ / "below"), fs::filesystem_error);
    EXPECT_THROW(slate::powersafe_create_directories(""), fs::filesystem_error);
    SystemCalls calls;
    calls.fail("fsync folder", EIO);
    EXPECT_THROW(slate::powersafe_create_directories(scratch_.path() / "new"), fs::filesystem_error);
}

TEST_F(PowersafeWrite, NeverMixesTheContentsOfThreads)
{
    constexpr int writers = 6;
    constexpr int rounds = 15;
    constexpr std::size_t length = 20'000;
    const auto is_whole = [](const std::string& text) {
        return text.size() == length && text.find_first_not_of(text[0]) == std::string::npos;
    };
    put(path_, std::string(length, '-'));

    std::atomic<int> inside{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < writers; ++i) {
        threads.emplace_back([&, letter = static_cast<char>('a' + i)] {
            for (int n = 0; n < rounds; ++n) {
                slate::powersafe_write(path_, [&](std::ofstream& out) {
                    EXPECT_EQ(++inside, 1);
                    for (int part = 0; part < 10; ++part)
                        out << std::string(length / 10, letter) << std::flush;
                    --inside;
                });
            }
        });
    }
    std::thread reader([&] {
        while (!done)
            EXPECT_TRUE(is_whole(content(path_)));
    });
    for (auto& thread : threads)
        thread.join();
    done = true;
    reader.join();

    EXPECT_TRUE(is_whole(content(path_)));
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, NeverMixesTheContentsOfProcesses)
{
    const auto log = scratch_.path() / "log";
    put(log, "");
    std::vector<Child> children;
    for (int i = 0; i < 4; ++i) {
        children.emplace_back([&] {
            for (int n = 0; n < 15; ++n) {
                // Adds a line to the contents. If others could do so meanwhile, some lines would be lost.
                slate::powersafe_write(log, [&](std::ofstream& out) { out << content(log) << "line\n"; });
            }
            return 0;
        });
    }
    for (const auto& child : children)
        EXPECT_EQ(child.wait(), 0);

    EXPECT_EQ(content(log).size(), 4u * 15u * 5u);
    EXPECT_EQ(files(scratch_.path()), Names{"log"});
}

TEST_F(PowersafeWrite, KeepsTheOldContentIfItsProcessIsKilled)
{
    put(path_, "old");
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe(ready.data()), 0);
    const Child child([&] {
        slate::powersafe_write(path_, [&](std::ofstream& out) {
            out << "half of the new" << std::flush;
            (void)!::write(ready[1], "x", 1);
            while (true)
                pause();
        });
        return 0;
    });
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);

    child.kill();
    EXPECT_EQ(child.wait(), -SIGKILL);

    EXPECT_EQ(content(path_), "old");
    EXPECT_EQ(files(scratch_.path()), (Names{".file.tmp", "file"}));
    write(path_, "new");
    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, ContinuesWhenTheProcessItWaitsForIsKilled)
{
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe(ready.data()), 0);
    const Child child([&] {
        slate::powersafe_write(path_, [&](std::ofstream& out) {
            out << "half" << std::flush;
            (void)!::write(ready[1], "x", 1);
            while (true)
                pause();
        });
        return 0;
    });
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);

    std::atomic<bool> written{false};
    const int locks = SystemCalls::locks;
    std::thread waiting([&] {
        write(path_, "new");
        written = true;
    });
    EXPECT_TRUE(tarn_test::wait_until([&] { return SystemCalls::locks > locks; }));
    EXPECT_FALSE(written);
    child.kill();
    EXPECT_EQ(child.wait(), -SIGKILL);
    waiting.join();

    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, ReachesTheDiskInAnOrderThatSurvivesAPowerCut)
{
    {
        const SystemCalls calls;
        write(path_, "new");
        EXPECT_EQ(calls.made(), (Names{"flock", "fchmod", "fsync file", "rename", "fsync folder"}));
        EXPECT_EQ(calls.synced_folders(), Names{scratch_.path().string()});
    }
    const SystemCalls calls;
    write(path_, "newer");
    EXPECT_EQ(calls.made(), (Names{"flock", "fchown", "fchmod", "fsync file", "rename", "fsync folder"}));
}

TEST_F(PowersafeWrite, ChangesNothingIfTheDiskFails)
{
    put(path_, "old");
    for (const std::string call : {"flock", "fchmod", "fsync file", "rename"}) {
        SCOPED_TRACE(call);
        {
            SystemCalls calls;
            calls.fail(call, EIO);
            expect_write_error(path_, EIO);
            EXPECT_EQ(calls.made().back(), call);
        }
        EXPECT_EQ(content(path_), "old");
        EXPECT_EQ(files(scratch_.path()), Names{"file"});
    }
    write(path_, "new"); // no lock is left
    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, FailsIfTheFolderCannotBeSyncedThoughTheFileIsReplaced)
{
    put(path_, "old");
    {
        SystemCalls calls;
        calls.fail("fsync folder", EIO);
        expect_write_error(path_, EIO);
    }
    EXPECT_EQ(content(path_), "new");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, WorksOnAFilesystemThatCannotSyncFolders)
{
    SystemCalls calls;
    calls.fail("fsync folder", EINVAL);

    write(path_, "new");

    EXPECT_EQ(content(path_), "new");
}

TEST_F(PowersafeWrite, WorksOnAFilesystemWithoutLocks)
{
    const auto leftover = scratch_.path() / ".file.tmp";
    for (const int reason : {ENOLCK, EOPNOTSUPP, ENOSYS}) {
        SCOPED_TRACE(std::generic_category().message(reason));
        put(leftover, "half");
        {
            SystemCalls calls;
            calls.fail("flock", reason);
            write(path_, "new");
        }
        EXPECT_EQ(content(path_), "new");
        EXPECT_EQ(files(scratch_.path()), Names{"file"});
        fs::remove(path_);
    }
}

TEST_F(PowersafeWrite, GivesUpIfItsFileIsTakenAwayOnAFilesystemWithoutLocks)
{
    put(path_, "old");
    SystemCalls calls;
    calls.fail("flock", ENOLCK);

    expect_error(path_, EBUSY, [&] {
        slate::powersafe_write(path_, [&](std::ofstream& out) {
            out << "first";
            write(path_, "second"); // as if by another process, which sees no lock
        });
    });

    EXPECT_EQ(content(path_), "second");
    EXPECT_EQ(files(scratch_.path()), Names{"file"});
}

TEST_F(PowersafeWrite, WritesFilesWithTheLongestNames)
{
    for (std::size_t length = 248; length <= 255; ++length) {
        const auto path = scratch_.path() / std::string(length, 'n');
        Names during;
        slate::powersafe_write(path, [&](std::ofstream& out) {
            out << length;
            during = files(scratch_.path());
        });

        EXPECT_EQ(content(path), std::to_string(length));
        EXPECT_EQ(files(scratch_.path()), Names{path.filename().string()});
        ASSERT_EQ(during.size(), 1u);
        EXPECT_LE(during[0].size(), 255u);
        EXPECT_TRUE(during[0].starts_with(".nnn"));
        EXPECT_TRUE(during[0].ends_with(".tmp"));
        fs::remove(path);
    }
    expect_write_error(scratch_.path() / std::string(256, 'n'), ENAMETOOLONG);
}

TEST_F(PowersafeWrite, KeepsTheTemporaryFilesOfLongNamesApart)
{
    // The names differ only at their ends, and a cut could be within a character of two bytes.
    std::string characters;
    while (characters.size() < 250)
        characters += "\xc3\xa4";
    const auto first = scratch_.path() / (characters + "a");
    const auto second = scratch_.path() / (characters + "b");

    slate::powersafe_write(first, [&](std::ofstream& out) {
        out << "first";
        const Names one = files(scratch_.path());
        slate::powersafe_write(second, [&](std::ofstream& inner) {
            inner << "second";
            EXPECT_EQ(files(scratch_.path()).size(), 2u);
        });
        for (const std::string& name : one)
            EXPECT_TRUE(slate::is_utf8(name)) << name;
    });

    EXPECT_EQ(content(first), "first");
    EXPECT_EQ(content(second), "second");
}

TEST_F(PowersafeWrite, FindsTheTemporaryFileOfALongNameAgain)
{
    const auto path = scratch_.path() / std::string(255, 'n');
    const Child child([&] {
        slate::powersafe_write(path, [](std::ofstream&) { _exit(0); });
        return 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(files(scratch_.path()).size(), 1u);

    write(path, "new");

    EXPECT_EQ(files(scratch_.path()), Names{path.filename().string()});
}
} // namespace
