// SPDX-License-Identifier: Apache-2.0
#include "run_time_directory.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "personal_directory.h"

namespace run_time_directory {
namespace {
constexpr mode_t shared_mode = 03775; // sticky: a member of the group can't take another service's directory
constexpr mode_t part_mode = 0755;

[[noreturn]] void refuse(const std::filesystem::path& path, const std::string& why)
{
    throw std::runtime_error(path.string() + " " + why);
}

[[noreturn]] void refuse(const std::filesystem::path& path, const std::string& what, int error)
{
    refuse(path, what + ": " + std::generic_category().message(error));
}

/// A directory of a device: its mode is not a matter of this process's umask.
void make_shared(const std::filesystem::path& directory)
{
    if (mkdir(directory.c_str(), 0700) != 0) {
        if (errno == EEXIST)
            return;
        refuse(directory, "can't be made", errno);
    }
    const struct group* group = getgrnam("corvane");
    if (group && chown(directory.c_str(), static_cast<uid_t>(-1), group->gr_gid) != 0)
        refuse(directory, "can't be given to the group corvane", errno);
    if (chmod(directory.c_str(), shared_mode) != 0)
        refuse(directory, "can't be given mode 3775", errno);
}
} // namespace

void prepare(const Options& options)
{
    const auto& directory = options.run_time_directory;
    struct stat status {};
    const bool is_missing = lstat(directory.c_str(), &status) != 0 && errno == ENOENT;
    if (is_missing && !options.makes_directory)
        refuse(directory, "is missing; make it, or let tarnd make it with --make-run-dir");
    if (options.is_personal && is_missing)
        personal_directory::make(directory);
    else if (options.is_personal)
        personal_directory::require(directory);
    else if (is_missing && geteuid() == 0)
        make_shared(directory);
    else if (is_missing)
        personal_directory::make(directory);
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error))
        refuse(directory, "is not a directory; name one with --run-dir");
}

void prepare_part(const Options& options, const std::string& part)
{
    const auto directory = options.run_time_directory / part;
    if (mkdir(directory.c_str(), 0700) == 0) {
        if (!options.is_personal && chmod(directory.c_str(), part_mode) != 0)
            refuse(directory, "can't be given mode 755", errno);
    }
    else if (errno != EEXIST)
        refuse(directory, "can't be made", errno);

    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0)
        refuse(directory, "can't be looked at", errno);
    if (!S_ISDIR(status.st_mode))
        refuse(directory, "is not a directory; remove it, and tarnd makes it");
    if (status.st_uid != geteuid() && status.st_uid != 0)
        refuse(directory,
               "belongs to user " + std::to_string(status.st_uid) + "; remove it, or run tarnd as that user");
    if (access(directory.c_str(), W_OK | X_OK) != 0)
        refuse(directory, "doesn't let tarnd make sockets", errno);
}

Lock::Lock(const Options& options, const std::string& part, const std::string& endpoint)
{
    const auto path = options.run_time_directory / part / "tarnd.lock";
    file_ = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file_ == -1)
        refuse(path, "can't be opened", errno);
    // This kind of lock, unlike that of flock, tells who holds it.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(file_, F_SETLK, &lock) == 0)
        return;
    const int error = errno;
    struct flock holder = lock;
    const bool is_known = fcntl(file_, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK;
    close(file_);
    if (error != EAGAIN && error != EACCES)
        refuse(path, "can't be locked", error);
    throw std::runtime_error(endpoint + " is served already, by " +
                             (is_known ? "process " + std::to_string(holder.l_pid) : "another tarnd") +
                             "; end that process first, or serve elsewhere");
}

Lock::~Lock()
{
    close(file_);
}
} // namespace run_time_directory
