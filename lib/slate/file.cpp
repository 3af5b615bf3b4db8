// SPDX-License-Identifier: Apache-2.0
#include "slate/file.h"

#include <array>
#include <cerrno>
#include <iterator>
#include <optional>
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
// A temporary file is only ever unlinked or renamed by who holds its lock.

namespace slate {
namespace {
namespace fs = std::filesystem;

constexpr mode_t new_file_mode = 0666; // less the process's mask
constexpr mode_t private_mode = 0600;
constexpr mode_t permission_bits = 07777;

// As many as the kernel follows.
constexpr int max_symbolic_links = 40;

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
    }

    void write(const std::function<void(std::ofstream&)>& writer)
    {
        const fs::path folder = target_.has_parent_path() ? target_.parent_path() : fs::path(".");
        temporary_ = folder / ("." + target_.filename().string() + ".tmp");

        // Opened before anything happens: once the file is renamed it is late for a refusal.
        const Descriptor directory = open_file(folder, O_RDONLY | O_DIRECTORY);
        if (!directory.is_open())
            fail("can't open the folder of", path_, errno);

        const Descriptor file = make_temporary();
        try {
            fill(writer);
            keep_mode(file);
            sync(file);
            if (rename(temporary_.c_str(), target_.c_str()) != 0)
                fail("can't replace file", path_, errno);
        }
        catch (...) {
            (void)unlink(temporary_.c_str()); // the first failure is the one to tell
            throw;
        }
        sync(directory);
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
                lock(made);
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

    /// Waits for whoever writes to the temporary file, and unlinks it if its writer is dead.
    void remove_leftover() const
    {
        const Descriptor leftover = open_leftover();
        if (!leftover.is_open() && errno == ENOENT)
            return;
        if (!leftover.is_open())
            fail("can't take over the file beside", path_, errno);

        lock(leftover);
        if (is_at(leftover, temporary_) && unlink(temporary_.c_str()) != 0)
            fail("can't remove the file beside", path_, errno);
    }

    Descriptor open_leftover() const
    {
        Descriptor leftover = open_file(temporary_, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
        if (leftover.is_open() || errno != EACCES)
            return leftover;
        // It may have got the mode of a file that is read-only. Locks on a local disk do without writing.
        return open_file(temporary_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    }

    void lock(const Descriptor& file) const
    {
        if (retry_interrupted([&] { return flock(file.get(), LOCK_EX); }) != 0)
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

    /// Gives the new file the mode of the old one, and its owner as far as that is allowed.
    void keep_mode(const Descriptor& file) const
    {
        const auto old = status_of(target_);
        if (!old)
            return;
        // The owner first, since a change of owner clears some bits of the mode.
        [[maybe_unused]] const int ignored = fchown(file.get(), old->st_uid, old->st_gid);
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
} // namespace slate
