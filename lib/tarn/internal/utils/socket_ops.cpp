// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/socket_ops.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <grp.h>
#include <unistd.h>

#include "slate/log.h"
#include "slate/uri.h"

namespace tarn {
namespace {
/// The path of the socket file, or empty.
std::string socket_file(const Endpoint& uri)
{
    if (!uri)
        return {};
    if (uri->scheme() == "ipc")
        return slate::make_uri("file://" + uri->address())->path();
    return uri->scheme() == "file" ? uri->path() : std::string();
}

std::string error_text(int error)
{
    return std::generic_category().message(error);
}
} // namespace

bool try_modify_socket_permissions(const Endpoint& uri)
{
    using std::filesystem::perms;

    const std::string path = socket_file(uri);
    if (path.empty())
        return false;
    try {
        std::filesystem::permissions(path, perms::owner_all | perms::group_all | perms::others_read |
                                               perms::others_exec);
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
    if (chown(path.c_str(), static_cast<uid_t>(-1), found->gr_gid) != 0) {
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
