// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace slate {
template <class Call>
auto retry_interrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

/// Owns a file descriptor. Its destructor gives up the lock on the file and closes the descriptor. Not part
/// of the installed interface.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        Descriptor old(std::exchange(number_, std::exchange(other.number_, -1)));
        return *this;
    }
    ~Descriptor()
    {
        if (number_ < 0)
            return;
        // A child forked meanwhile has the descriptor too, and would keep the lock if we only closed ours.
        const int before = errno;
        (void)flock(number_, LOCK_UN);
        (void)close(number_);
        errno = before;
    }

    int get() const { return number_; }
    bool is_open() const { return number_ >= 0; }

private:
    int number_;
};

/// Whether an open file is still the one of this name in a folder.
inline bool is_in(const Descriptor& file, int folder, const char* name)
{
    struct stat opened {};
    struct stat named {};
    return fstat(file.get(), &opened) == 0 && fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}
} // namespace slate
