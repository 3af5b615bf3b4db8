// SPDX-License-Identifier: Apache-2.0
#include "personal_directory.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace personal_directory {
namespace {
[[noreturn]] void refuse(const std::filesystem::path& directory, const std::string& why)
{
    throw std::runtime_error(directory.string() + " " + why);
}

std::string text_of(int error)
{
    return std::generic_category().message(error);
}
} // namespace

void require(const std::filesystem::path& directory)
{
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0)
        refuse(directory, "can't be looked at: " + text_of(errno));
    if (S_ISLNK(status.st_mode))
        refuse(directory, "is a link, which may lead to somebody else's directory; remove it");
    if (!S_ISDIR(status.st_mode))
        refuse(directory, "is not a directory; remove it");
    if (status.st_uid != geteuid())
        refuse(directory, "belongs to user " + std::to_string(status.st_uid) + ", not to user " +
                              std::to_string(geteuid()) + "; choose another directory");
    if ((status.st_mode & 077) != 0)
        refuse(directory, "lets other users in; run chmod 700 " + directory.string());
}

void make(const std::filesystem::path& directory)
{
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        refuse(directory, "can't be made: " + text_of(errno));
    require(directory);
}
} // namespace personal_directory
