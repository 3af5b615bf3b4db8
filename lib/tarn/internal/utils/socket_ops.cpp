// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/socket_ops.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "slate/descriptor.h"
#include "slate/log.h"
#include "slate/uri.h"

namespace tarn {
namespace {
/// The path of the socket file, or empty.
std::string socket_file(const Endpoint& uri)
{
    if (!uri)
        return {};
    if (uri->scheme() == "ipc" && uri->address().starts_with('@')) // a name that is no file
        return {};
    if (uri->scheme() == "ipc")
        return slate::make_uri("file://" + uri->address())->path();
    return uri->scheme() == "file" ? uri->path() : std::string();
}

/// A socket file, opened such that what is changed is what was looked at: its path can lead elsewhere the
/// next moment. A regular file will do too. Not open, with errno, if there is something else in its place,
/// for example a link, or a further name of somebody's file.
slate::Descriptor open_socket_file(const std::string& path)
{
    slate::Descriptor file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!file.is_open() || fstat(file.get(), &status) != 0)
        return slate::Descriptor();
    if ((S_ISSOCK(status.st_mode) || S_ISREG(status.st_mode)) && status.st_nlink == 1)
        return file;
    errno = S_ISLNK(status.st_mode) ? ELOOP : ENOTSOCK;
    return slate::Descriptor();
}

/// fchmod takes no descriptor that was opened for its path only, but this name of it leads to the same file.
std::string name_of(const slate::Descriptor& file)
{
    return "/proc/self/fd/" + std::to_string(file.get());
}

std::string error_text(int error)
{
    return std::generic_category().message(error);
}
} // namespace

bool try_modify_socket_permissions(const Endpoint& uri)
{
    using std::filesystem::perms;
    return try_modify_socket_permissions(uri, perms::owner_all | perms::group_all | perms::others_read |
                                                  perms::others_exec);
}

bool try_modify_socket_permissions(const Endpoint& uri, std::filesystem::perms mode)
{
    const std::string path = socket_file(uri);
    if (path.empty())
        return false;
    try {
        const slate::Descriptor file = open_socket_file(path);
        if (!file.is_open())
            throw std::filesystem::filesystem_error("not a socket that can be opened", path,
                                                    std::error_code(errno, std::generic_category()));
        std::filesystem::permissions(name_of(file), mode);
        return true;
    }
    catch (const std::filesystem::filesystem_error& error) {
        slate::log_warn(SLATE_HERE, "failed to adjust permissions on ", path, "; ", error.what());
        return false;
    }
}

bool try_modify_socket_group(const Endpoint& uri, const std::string_view& group)
{
    const std::string path = socket_file(uri);
    if (path.empty())
        return false;

    const long suggested = sysconf(_SC_GETGR_R_SIZE_MAX);
    std::vector<char> buffer(suggested == -1 ? 1024 : static_cast<std::size_t>(suggested));
    struct group entry {};
    struct group* found = nullptr;
    if (getgrnam_r(std::string(group).c_str(), &entry, buffer.data(), buffer.size(), &found) != 0)
        return false;
    if (!found) {
        slate::log_warn(SLATE_HERE, "failed to set group for ", path, "; group does not exist");
        return false;
    }
    const slate::Descriptor file = open_socket_file(path);
    if (!file.is_open() ||
        fchownat(file.get(), "", static_cast<uid_t>(-1), found->gr_gid, AT_EMPTY_PATH) != 0) {
        slate::log_warn(SLATE_HERE, "failed to set group for ", path,
                        "; chown failed with: ", error_text(errno));
        return false;
    }
    return true;
}

bool try_cleanup_socket_file(const Endpoint& uri)
{
    const std::string path = socket_file(uri);
    if (path.empty())
        return false;

    slate::log_debug(SLATE_HERE, "try to remove ", path);
    try {
        std::filesystem::remove(path);
        return true;
    }
    catch (const std::filesystem::filesystem_error& error) {
        slate::log_warn(SLATE_HERE, "failed to remove ", path, "; ", error.what());
        return false;
    }
}
} // namespace tarn
