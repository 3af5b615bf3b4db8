// SPDX-License-Identifier: Apache-2.0
#include "slate/file.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

// How powersafe_write replaces a file:
// 1. A temporary file is made in the target's directory and locked. If there is one already, its lock tells
//    whether it is in use: if the file is still there once we have the lock, its writer has died.
// 2. The caller's function fills the file, which then gets its final mode and is synced to the disk.
// 3. The file is renamed over the target, and the directory, which holds the names, is synced.
//
// Only the holder of its lock unlinks or renames a temporary file, or a process that may not open the file
// and so can't lock it. Such writers of one file, and writers on a filesystem without locks, can't be kept
// apart; a writer that finds its temporary file taken away gives up.

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

[[noreturn]] void fail(const char* what, const fs::path& path, int error)
{
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

template <class Call>
auto retry_interrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

/// Owns a file descriptor. Its destructor gives up the lock on the file and closes the descriptor.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor()
    {
        if (number_ < 0)
            return;
        // A child forked meanwhile has the descriptor too, and would keep the lock if we only closed ours.
        (void)flock(number_, LOCK_UN);
        (void)close(number_);
    }

    int get() const { return number_; }
    bool is_open() const { return number_ >= 0; }

private:
    int number_;
};

Descriptor open_file(const fs::path& path, int flags, mode_t mode = 0)
{
    return Descriptor(retry_interrupted([&] { return open(path.c_str(), flags | O_CLOEXEC, mode); }));
}

std::optional<struct stat> status_of(const fs::path& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return status;
}

/// Whether the open file is still the one at this path.
bool is_at(const Descriptor& file, const fs::path& path)
{
    struct stat opened {};
    struct stat named {};
    return fstat(file.get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// The path at the end of a chain of symbolic links. The file there need not exist.
fs::path follow_links(const fs::path& path)
{
    fs::path target = path;
    for (int i = 0; i <= max_symbolic_links; ++i) {
        std::error_code error;
        if (!fs::is_symlink(fs::symlink_status(target, error)))
            return target;
        const fs::path link = fs::read_symlink(target, error);
        if (error)
            throw fs::filesystem_error("can't follow the link", path, error);
        target = target.parent_path() / link; // the link alone if it is absolute
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
std::string temporary_name(const std::string& name)
{
    std::string whole = "." + name + ".tmp";
    if (whole.size() <= max_name_bytes)
        return whole;

    const std::string end = "." + std::to_string(hash(name)) + ".tmp";
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

class PowersafeFile {
public:
    explicit PowersafeFile(const fs::path& path) : path_(path), target_(follow_links(path))
    {
        const auto old = status_of(target_);
        if (old && S_ISDIR(old->st_mode))
            fail("can't write file", path_, EISDIR);
        // Renaming would replace a device or a pipe with a regular file.
        if (old && !S_ISREG(old->st_mode))
            fail("can't write file", path_, EINVAL);
        if (!target_.has_filename())
            fail("can't write file", path_, path_.empty() ? ENOENT : EISDIR);
        folder_ = target_.has_parent_path() ? target_.parent_path() : fs::path(".");
        temporary_ = folder_ / temporary_name(target_.filename().string());
    }

    void write(const std::function<void(std::ofstream&)>& writer)
    {
        // Opened before anything else: after the rename it would be too late to refuse the write.
        const Descriptor directory = open_file(folder_, O_RDONLY | O_DIRECTORY);
        if (!directory.is_open())
            fail("can't open the folder of", path_, errno);

        const Descriptor file = make_temporary();
        try {
            fill(writer);
            keep_mode(file);
            sync(file);
            if (!is_at(file, temporary_))
                fail("another writer took the file beside", path_, EBUSY);
            if (rename(temporary_.c_str(), target_.c_str()) != 0)
                fail("can't replace file", path_, errno);
        }
        catch (...) {
            remove(file);
            throw;
        }
        sync(directory);
    }

    /// Waits until nobody writes to the temporary file, and unlinks it if its writer has died.
    void remove_leftover() const
    {
        const Descriptor leftover = open_leftover();
        const int error = leftover.is_open() ? 0 : errno;
        if (error == ENOENT)
            return;
        // EACCES: we may still be allowed to unlink the file, and otherwise could never write again.
        if (error != 0 && error != EACCES)
            fail("can't take over the file beside", path_, error);

        if (leftover.is_open()) {
            lock(leftover);
            if (!is_at(leftover, temporary_))
                return;
        }
        if (unlink(temporary_.c_str()) != 0 && errno != ENOENT)
            fail("can't remove the file beside", path_, errno);
    }

private:
    /// A new temporary file, empty and locked.
    Descriptor make_temporary() const
    {
        while (true) {
            // No more users than may read the old file may read the new one, not even for a moment.
            const mode_t mode = status_of(target_) ? private_mode : new_file_mode;
            Descriptor made = open_file(temporary_, O_RDWR | O_CREAT | O_EXCL, mode);
            if (made.is_open()) {
                try {
                    lock(made);
                }
                catch (...) {
                    remove(made);
                    throw;
                }
                // Before we had the lock, another writer may have taken the file for one left behind.
                if (is_at(made, temporary_))
                    return made;
            }
            else if (errno == EEXIST) {
                remove_leftover();
            }
            else {
                fail("can't make a file beside", path_, errno);
            }
        }
    }

    Descriptor open_leftover() const
    {
        Descriptor leftover = open_file(temporary_, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
        if (leftover.is_open() || errno != EACCES)
            return leftover;
        // It may have got the mode of a read-only file. On a local disk, reading is enough for a lock.
        return open_file(temporary_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    }

    /// Unlinks our temporary file after a failure. Only that first failure is reported.
    void remove(const Descriptor& file) const
    {
        if (is_at(file, temporary_))
            (void)unlink(temporary_.c_str());
    }

    void lock(const Descriptor& file) const
    {
        if (retry_interrupted([&] { return flock(file.get(), LOCK_EX); }) != 0 && !is_without_locks(errno))
            fail("can't lock the file beside", path_, errno);
    }

    void fill(const std::function<void(std::ofstream&)>& writer) const
    {
        errno = 0;
        std::ofstream stream(temporary_, std::ios::binary);
        if (!stream)
            fail("can't open the file beside", path_, errno);
        writer(stream);

        stream.exceptions(std::ios::goodbit); // the failure is ours to report, with path and reason
        if (stream.is_open())
            stream.close();
        if (!stream)
            fail("can't write file", path_, write_error(errno));
    }

    /// Gives the new file the mode of the old one, and its owner and group as far as the process may.
    void keep_mode(const Descriptor& file) const
    {
        const auto old = status_of(target_);
        if (!old)
            return;
        // The owner first, since a change of owner clears some bits of the mode.
        if (fchown(file.get(), old->st_uid, old->st_gid) != 0) {
            // Only root may give files away. The group, by which users share a file, can often be kept.
            constexpr auto same_owner = static_cast<uid_t>(-1);
            [[maybe_unused]] const int ignored = fchown(file.get(), same_owner, old->st_gid);
        }
        if (fchmod(file.get(), old->st_mode & permission_bits) != 0)
            fail("can't set the mode of the file beside", path_, errno);
    }

    void sync(const Descriptor& file) const
    {
        // EINVAL: some filesystems can't sync directories.
        if (retry_interrupted([&] { return fsync(file.get()); }) != 0 && errno != EINVAL)
            fail("can't sync file", path_, errno);
    }

    const fs::path path_;   // as the caller gave it, for error texts
    const fs::path target_; // the same with all links followed
    fs::path folder_;
    fs::path temporary_;
};
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
    const Descriptor file = open_file(path, O_RDONLY);
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

void powersafe_write(const fs::path& path, const std::function<void(std::ofstream&)>& writer)
{
    PowersafeFile(path).write(writer);
}

void remove_powersafe_leftover(const fs::path& path)
{
    try {
        PowersafeFile(path).remove_leftover();
    }
    catch (const fs::filesystem_error&) {
        // A file that this process may not remove stays.
    }
}
} // namespace slate
