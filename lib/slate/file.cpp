// SPDX-License-Identifier: Apache-2.0
#include "slate/file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "slate/descriptor.h"

// How powersafe_write replaces a file:
// 1. A temporary file is made in the target's directory and locked. If there is one already, its lock tells
//    whether it is in use: if the file is still there once we have the lock, its writer has died.
// 2. The caller's function fills the file, which then gets its final mode and is synced to the disk.
// 3. The file is renamed over the target, and the directory, which holds the names, is synced.
//
// Only the holder of its lock unlinks or renames a temporary file, or a process that may not open the file
// and so can't lock it. Such writers of one file, and writers on a filesystem without locks, can't be kept
// apart; a writer that finds its temporary file taken away gives up.
//
// All of this happens in the directory that was opened first, whatever its path leads to meanwhile, and the
// temporary file is opened by name only once, when it is made: nobody can put a link in its place.

namespace slate {
namespace {
namespace fs = std::filesystem;

constexpr mode_t new_file_mode = 0666; // less the process's umask
constexpr mode_t private_mode = 0600;
constexpr mode_t permission_bits = 07777;

// The kernel follows no more in one path.
constexpr int max_symbolic_links = 40;

// The limit of the common filesystems for a name, and of the kernel for any.
constexpr std::size_t max_name_bytes = 255;

constexpr std::size_t read_chunk_bytes = 16 * 1024;

// Between two attempts to lock a file: short at first, since most writes are short.
constexpr std::chrono::milliseconds first_pause{1};
constexpr std::chrono::milliseconds longest_pause{20};

// Names that are tried for the temporary file, for as long as a folder has the one before.
constexpr int max_temporary_names = 4;

[[noreturn]] void fail(const char* what, const fs::path& path, int error)
{
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

/// From /proc: umask(2) tells it only by changing it, for all threads.
std::optional<mode_t> current_umask()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        unsigned int mask = 0;
        if (word == "Umask:" && status >> std::oct >> mask)
            return static_cast<mode_t>(mask);
    }
    return std::nullopt;
}

Descriptor open_file(int folder, const std::string& name, int flags, mode_t mode = 0)
{
    return Descriptor(
        retry_interrupted([&] { return openat(folder, name.c_str(), flags | O_CLOEXEC, mode); }));
}

Descriptor open_file(const fs::path& path, int flags)
{
    return open_file(AT_FDCWD, path.native(), flags);
}

std::optional<struct stat> status_of(const fs::path& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return status;
}

fs::path folder_of(const fs::path& path)
{
    return path.has_parent_path() ? path.parent_path() : fs::path(".");
}

/// Whether somebody else can have planted this link, to lead us to another file. Root may do anything anyway.
bool is_foreign_link(const struct stat& link, const struct stat& folder)
{
    const bool open_to_others = (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return open_to_others && link.st_uid != folder.st_uid && link.st_uid != geteuid() && link.st_uid != 0;
}

/// Where the link at a path leads, as it is written there; nothing if there is no link. Throws for a foreign
/// one.
std::optional<fs::path> read_link(const fs::path& path, const fs::path& shown)
{
    // Opened, so that the link whose owner is checked is the one that is read.
    const Descriptor link = open_file(path, O_PATH | O_NOFOLLOW);
    struct stat status {};
    if (!link.is_open() || fstat(link.get(), &status) != 0 || !S_ISLNK(status.st_mode))
        return std::nullopt;
    const auto folder = status_of(folder_of(path));
    if (!folder || is_foreign_link(status, *folder))
        fail("can't follow a link of another user", shown, EACCES);

    std::array<char, PATH_MAX> target;
    const ssize_t size = readlinkat(link.get(), "", target.data(), target.size());
    if (size < 0)
        fail("can't follow the link", shown, errno);
    return fs::path(std::string(target.data(), static_cast<std::size_t>(size)));
}

/// The path at the end of a chain of symbolic links. The file there need not exist.
fs::path follow_links(const fs::path& path)
{
    fs::path target = path;
    for (int i = 0; i <= max_symbolic_links; ++i) {
        const auto link = read_link(target, path);
        if (!link)
            return target;
        target = target.parent_path() / *link; // the link alone if it is absolute
    }
    fail("can't follow the link", path, ELOOP);
}

/// The reason why a stream went bad. Other calls may have changed errno since, so only values that fit a
/// failed write are believed.
int write_error(int last_error)
{
    switch (last_error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
    case EROFS:
    case ENOMEM:
        return last_error;
    default:
        return EIO;
    }
}

/// FNV-1a, which gives the same number in every process and in every release.
std::uint64_t hash(std::string_view text)
{
    std::uint64_t value = 0xcbf29ce484222325;
    for (const char c : text)
        value = (value ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return value;
}

/// The name of the temporary file: always the same for a target, so that the next writer finds a file that
/// was left behind. A long name is cut, and the hash tells it from other names with the same beginning.
/// `number` is 0 but where folders have the names before.
std::string temporary_name(const std::string& name, int number)
{
    const std::string ending = (number == 0 ? "" : "." + std::to_string(number)) + ".tmp";
    std::string whole = "." + name + ending;
    if (whole.size() <= max_name_bytes)
        return whole;

    const std::string end = "." + std::to_string(hash(name)) + ending;
    std::size_t kept = max_name_bytes - 1 - end.size();
    // The cut is not within a character, since some filesystems accept only names in UTF-8.
    while (kept > 0 && (static_cast<unsigned char>(name[kept]) & 0xC0) == 0x80)
        --kept;
    return "." + name.substr(0, kept) + end;
}

/// Whether this error of flock means that there are no locks here, as on some network filesystems.
bool is_without_locks(int error)
{
    return error == ENOLCK || error == EOPNOTSUPP || error == ENOSYS;
}

void sync(const Descriptor& file, const fs::path& path)
{
    // EINVAL: some filesystems can't sync directories.
    if (retry_interrupted([&] { return fsync(file.get()); }) != 0 && errno != EINVAL)
        fail("can't sync file", path, errno);
}

/// Brings the names in a folder to the disk.
void sync_folder(const fs::path& folder, const fs::path& shown)
{
    const Descriptor opened = open_file(folder, O_RDONLY | O_DIRECTORY);
    if (!opened.is_open())
        fail("can't open the folder of", shown, errno);
    sync(opened, shown);
}

/// A stream into an open file, whose descriptor it shares.
void open_stream(std::ofstream& stream, const Descriptor& file)
{
    const int copy = fcntl(file.get(), F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        return;
    __gnu_cxx::stdio_filebuf<char> buffer(copy, std::ios::out | std::ios::binary);
    if (buffer.is_open())
        stream.rdbuf()->swap(buffer);
    else
        (void)close(copy);
}

class PowersafeFile {
public:
    explicit PowersafeFile(const fs::path& path)
        : path_(path),
          end_(std::chrono::steady_clock::now() + powersafe_patience),
          target_(follow_links(path))
    {
        const auto old = status_of(target_);
        if (old && S_ISDIR(old->st_mode))
            fail("can't write file", path_, EISDIR);
        // Renaming would replace a device or a pipe with a regular file.
        if (old && !S_ISREG(old->st_mode))
            fail("can't write file", path_, EINVAL);
        if (!target_.has_filename())
            fail("can't write file", path_, path_.empty() ? ENOENT : EISDIR);
        name_ = target_.filename().native();
        folder_ = open_file(folder_of(target_), O_PATH | O_DIRECTORY);
        if (!folder_.is_open())
            fail("can't open the folder of", path_, errno);
    }

    void write(const std::function<void(std::ofstream&)>& writer)
    {
        // Opened before anything else: after the rename it would be too late to refuse the write.
        const Descriptor directory = open_file(folder_.get(), ".", O_RDONLY | O_DIRECTORY);
        if (!directory.is_open())
            fail("can't open the folder of", path_, errno);

        const Descriptor file = make_temporary();
        try {
            fill(file, writer);
            set_mode(file);
            sync(file, path_);
            if (!is_temporary(file))
                fail("another writer took the file beside", path_, EBUSY);
            if (renameat(folder_.get(), temporary_.c_str(), folder_.get(), name_.c_str()) != 0)
                fail("can't replace file", path_, errno);
        }
        catch (...) {
            remove(file);
            throw;
        }
        sync(directory, path_);
    }

    /// Waits until nobody writes to a temporary file, and unlinks it if its writer has died.
    void remove_leftovers()
    {
        for (int number = 0; number < max_temporary_names; ++number) {
            temporary_ = temporary_name(name_, number);
            if (remove_leftover())
                return;
        }
    }

private:
    /// Removes what has the name of the temporary file and is in nobody's use. False if that is a folder with
    /// something in it.
    bool remove_leftover() const
    {
        struct stat status {};
        if (fstatat(folder_.get(), temporary_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                return true;
            fail("can't take over the file beside", path_, errno);
        }
        if (S_ISDIR(status.st_mode))
            return unlinkat(folder_.get(), temporary_.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
        Descriptor leftover; // keeps its lock until the file is unlinked
        if (S_ISREG(status.st_mode)) {
            leftover = open_leftover();
            const int error = leftover.is_open() ? 0 : errno;
            if (error == ENOENT)
                return true;
            // EACCES: we may still be allowed to unlink the file, and otherwise could never write again.
            // ELOOP: a link has just taken its place.
            if (error != 0 && error != EACCES && error != ELOOP)
                fail("can't take over the file beside", path_, error);
            if (leftover.is_open()) {
                lock(leftover);
                if (!is_temporary(leftover))
                    return true;
            }
        }
        // The name of a link goes, and not what it leads to.
        if (unlinkat(folder_.get(), temporary_.c_str(), 0) != 0 && errno != ENOENT && errno != EISDIR)
            fail("can't remove the file beside", path_, errno);
        return true;
    }

    /// A new temporary file, empty and locked.
    Descriptor make_temporary()
    {
        int number = 0;
        while (true) {
            temporary_ = temporary_name(name_, number);
            Descriptor made = create_temporary();
            if (made.is_open()) {
                try {
                    lock(made);
                }
                catch (...) {
                    remove(made);
                    throw;
                }
                // Before we had the lock, another writer may have taken the file for one left behind.
                if (is_temporary(made))
                    return made;
            }
            else if (errno != EEXIST) {
                fail("can't make a file beside", path_, errno);
            }
            else if (!remove_leftover() && ++number == max_temporary_names) {
                fail("can't make a file beside", path_, EISDIR);
            }
            if (is_late())
                fail("can't lock the file beside", path_, ETIMEDOUT);
        }
    }

    /// Nobody else may read or write it while it is written.
    Descriptor create_temporary()
    {
        if (!status_of(target_) && !mode_) {
            mode_ = usual_mode();
            if (!mode_) // nothing tells: so it has that mode from the beginning
                return open_file(folder_.get(), temporary_, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW,
                                 new_file_mode);
        }
        return open_file(folder_.get(), temporary_, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, private_mode);
    }

    /// The mode of new files in this folder, by the umask or by its access lists. Nothing if it can't be
    /// found out.
    std::optional<mode_t> usual_mode() const
    {
        const Descriptor nameless = open_file(folder_.get(), ".", O_TMPFILE | O_WRONLY, new_file_mode);
        struct stat status {};
        if (nameless.is_open() && fstat(nameless.get(), &status) == 0)
            return status.st_mode & permission_bits;
        const auto mask = current_umask(); // a filesystem without nameless files rarely has access lists
        return mask ? std::optional<mode_t>(new_file_mode & ~*mask) : std::nullopt;
    }

    Descriptor open_leftover() const
    {
        Descriptor leftover = open_file(folder_.get(), temporary_, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
        if (leftover.is_open() || errno != EACCES)
            return leftover;
        // It may have got the mode of a read-only file. On a local disk, reading is enough for a lock.
        return open_file(folder_.get(), temporary_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    }

    bool is_temporary(const Descriptor& file) const { return is_in(file, folder_.get(), temporary_.c_str()); }

    /// Unlinks our temporary file after a failure. Only that first failure is reported.
    void remove(const Descriptor& file) const
    {
        if (is_temporary(file))
            (void)unlinkat(folder_.get(), temporary_.c_str(), 0);
    }

    bool is_late() const { return std::chrono::steady_clock::now() >= end_; }

    void lock(const Descriptor& file) const
    {
        auto pause = first_pause;
        while (retry_interrupted([&] { return flock(file.get(), LOCK_EX | LOCK_NB); }) != 0) {
            if (is_without_locks(errno))
                return;
            if (errno != EWOULDBLOCK)
                fail("can't lock the file beside", path_, errno);
            if (is_late())
                fail("can't lock the file beside", path_, ETIMEDOUT);
            // There is no event to wait for: nothing but flock itself tells when a lock is free, and it
            // would wait for ever.
            std::this_thread::sleep_for(pause);
            pause = std::min(pause * 2, longest_pause);
        }
    }

    void fill(const Descriptor& file, const std::function<void(std::ofstream&)>& writer) const
    {
        errno = 0;
        std::ofstream stream;
        open_stream(stream, file);
        if (!stream.is_open())
            fail("can't open the file beside", path_, errno);
        writer(stream);

        stream.exceptions(std::ios::goodbit); // the failure is ours to report, with path and reason
        if (stream.is_open())
            stream.close();
        if (!stream)
            fail("can't write file", path_, write_error(errno));
    }

    /// Gives the new file the mode of the old one, and its owner and group as far as the process may.
    void set_mode(const Descriptor& file) const
    {
        auto mode = mode_;
        if (const auto old = status_of(target_)) {
            mode = old->st_mode & permission_bits;
            // The owner first, since a change of owner clears some bits of the mode.
            if (fchown(file.get(), old->st_uid, old->st_gid) != 0) {
                // Only root may give files away. The group, by which users share a file, can often be kept.
                constexpr auto same_owner = static_cast<uid_t>(-1);
                [[maybe_unused]] const int ignored = fchown(file.get(), same_owner, old->st_gid);
            }
        }
        if (mode && fchmod(file.get(), *mode) != 0)
            fail("can't set the mode of the file beside", path_, errno);
    }

    const fs::path path_; // as the caller gave it, for error texts
    const std::chrono::steady_clock::time_point end_;
    const fs::path target_;      // the same with all links followed
    Descriptor folder_;          // of the target
    std::string name_;           // of the target in it
    std::string temporary_;      // the name of the temporary file
    std::optional<mode_t> mode_; // of a file that didn't exist
};

std::string content_of(const Descriptor& file, const fs::path& path)
{
    if (!file.is_open())
        fail("can't open file", path, errno);

    std::string content;
    std::array<char, read_chunk_bytes> chunk;
    while (true) {
        const ssize_t count = retry_interrupted([&] { return read(file.get(), chunk.data(), chunk.size()); });
        if (count < 0)
            fail("can't read file", path, errno);
        if (count == 0)
            return content;
        content.append(chunk.data(), static_cast<std::size_t>(count));
    }
}
} // namespace

std::vector<unsigned char> slurp_bytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string slurp(const std::vector<unsigned char>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

std::string slurp(std::istream& stream)
{
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

template <>
std::string slurp_file<std::string>(const std::string& path, std::ios_base::openmode /*mode*/)
{
    return content_of(open_file(path, O_RDONLY), path);
}

std::string slurp_trusted_file(const fs::path& path)
{
    return content_of(open_file(follow_links(path), O_RDONLY | O_NOFOLLOW), path);
}

void powersafe_write(const fs::path& path, const std::function<void(std::ofstream&)>& writer)
{
    PowersafeFile(path).write(writer);
}

void remove_powersafe_leftover(const fs::path& path)
{
    try {
        PowersafeFile(path).remove_leftovers();
    }
    catch (const fs::filesystem_error&) {
        // A file that this process may not remove stays.
    }
}

void powersafe_create_directories(const fs::path& path)
{
    std::vector<fs::path> missing;
    fs::path folder = path;
    while (folder.has_relative_path() && !fs::exists(folder)) {
        if (folder.has_filename()) // not the end of "folder/"
            missing.push_back(folder);
        folder = folder.parent_path();
    }
    if (missing.empty()) {
        fs::create_directories(path); // which tells what is wrong, if anything is
        return;
    }
    for (auto level = missing.rbegin(); level != missing.rend(); ++level) {
        fs::create_directory(*level);
        sync_folder(folder_of(*level), *level);
    }
}

bool powersafe_remove(const fs::path& path)
{
    const bool removed = fs::remove(path);
    // Also if there was no file: an earlier removal may not have come to the disk.
    if (const auto folder = folder_of(path); removed || fs::exists(folder))
        sync_folder(folder, path);
    return removed;
}
} // namespace slate
