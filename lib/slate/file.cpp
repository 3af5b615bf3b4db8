// SPDX-License-Identifier: Apache-2.0
#include "slate/file.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// How powersafe_write replaces a file:
// 1. The temporary file is made beside the target and locked. If there is one already, its lock tells whether
//    somebody is at work on it: once we get that lock and the file is still there, its writer has died.
// 2. The writer fills it, and it is synced to the disk with its final mode.
// 3. It is renamed over the target, and the directory, in which the rename stands, is synced.
//
// A temporary file is only ever unlinked or renamed by who holds its lock, or who may not open it and so
// can't lock it. Such writers of one file, and those on a filesystem without locks, can't be kept apart; one
// that finds its temporary file taken away then gives up.

namespace slate {
namespace {
namespace fs = std::filesystem;

constexpr mode_t new_file_mode = 0666; // less the process's mask
constexpr mode_t private_mode = 0600;
constexpr mode_t permission_bits = 07777;

// As many as the kernel follows.
constexpr int max_symbolic_links = 40;

// What the common filesystems take for a name, and the kernel for any.
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

/// A file descriptor that is closed in the end, its lock given up.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor()
    {
        if (number_ < 0)
            return;
        // A child that was forked meanwhile has the descriptor too, and would keep the lock.
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

/// Whether the open file is still the one that has this name.
bool is_at(const Descriptor& file, const fs::path& path)
{
    struct stat opened {};
    struct stat named {};
    return fstat(file.get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// The file at the end of a chain of symbolic links, which need not exist.
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

/// The reason why a stream went bad, as far as the last system call tells: anything may have been called
/// since.
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

/// FNV-1a, which gives the same number in every process and for all time.
std::uint64_t hash(std::string_view text)
{
    std::uint64_t value = 0xcbf29ce484222325;
    for (const char c : text)
        value = (value ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return value;
}

/// The name of the temporary file: always the same for a target, so that one left behind is found again. A
/// long name is cut, and told from others of the same beginning by its hash.
std::string temporary_name(const std::string& name)
{
    const std::string whole = "." + name + ".tmp";
    if (whole.size() <= max_name_bytes)
        return whole;

    const std::string end = "." + std::to_string(hash(name)) + ".tmp";
    std::size_t kept = max_name_bytes - 1 - end.size();
    // Not within a character: some filesystems take only names that are UTF-8.
    while (kept > 0 && (static_cast<unsigned char>(name[kept]) & 0xC0) == 0x80)
        --kept;
    return "." + name.substr(0, kept) + end;
}

/// Whether this filesystem has no locks, or none to give. Network filesystems may lack them.
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
        // Renaming would replace a device or a pipe by a file.
        if (old && !S_ISREG(old->st_mode))
            fail("can't write file", path_, EINVAL);
        if (!target_.has_filename())
            fail("can't write file", path_, path_.empty() ? ENOENT : EISDIR);
        folder_ = target_.has_parent_path() ? target_.parent_path() : fs::path(".");
        temporary_ = folder_ / temporary_name(target_.filename().string());
    }

    void write(const std::function<void(std::ofstream&)>& writer)
    {
        // Opened before anything happens: once the file is renamed it is late for a refusal.
        const Descriptor directory = open_file(folder_, O_RDONLY | O_DIRECTORY);
        if (!directory.is_open())
            fail("can't open the folder of", path_, errno);

        const Descriptor file = make_temporary();
        try {
            fill(writer);
            keep_mode(file);
            sync(file);
            if (!is_at(file, temporary_))
                fail("somebody took the file beside", path_, EBUSY);
            if (rename(temporary_.c_str(), target_.c_str()) != 0)
                fail("can't replace file", path_, errno);
        }
        catch (...) {
            remove(file);
            throw;
        }
        sync(directory);
    }

    /// Waits for whoever writes to the temporary file, and unlinks it if its writer is dead.
    void remove_leftover() const
    {
        const Descriptor leftover = open_leftover();
        const int error = leftover.is_open() ? 0 : errno;
        if (error == ENOENT)
            return;
        // EACCES: whoever may change the folder may still unlink it, and would else never write again.
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
            // What replaces a file must not show to more people than that file, not even for a moment.
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
                // Before the lock was ours, the file may have been taken for one left behind.
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
        // It may have got the mode of a file that is read-only. Locks on a local disk do without writing.
        return open_file(temporary_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    }

    /// Unlinks our temporary file after a failure, which is the one to tell.
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

        stream.exceptions(std::ios::goodbit); // a failure is told by us, with path and reason
        if (stream.is_open())
            stream.close();
        if (!stream)
            fail("can't write file", path_, write_error(errno));
    }

    /// Gives the new file the mode of the old one, and its owner and group as far as that is allowed.
    void keep_mode(const Descriptor& file) const
    {
        const auto old = status_of(target_);
        if (!old)
            return;
        // The owner first, since a change of owner clears some bits of the mode.
        if (fchown(file.get(), old->st_uid, old->st_gid) != 0) {
            // Only root may give files away, but their group, by which others share them, can often be kept.
            constexpr auto same_owner = static_cast<uid_t>(-1);
            [[maybe_unused]] const int ignored = fchown(file.get(), same_owner, old->st_gid);
        }
        if (fchmod(file.get(), old->st_mode & permission_bits) != 0)
            fail("can't set the mode of the file beside", path_, errno);
    }

    void sync(const Descriptor& file) const
    {
        // EINVAL: some filesystems have no such thing for directories.
        if (retry_interrupted([&] { return fsync(file.get()); }) != 0 && errno != EINVAL)
            fail("can't sync file", path_, errno);
    }

    const fs::path path_; // as the caller wrote it, for error texts
    const fs::path target_;
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
        // What isn't ours to take away stays.
    }
}
} // namespace slate
