// SPDX-License-Identifier: Apache-2.0
#include "service_manager.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <slate/slate.h>

namespace {
std::string variable(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

void warn(const std::string& socket, int error)
{
    slate::log_warn(SLATE_HERE, "cannot notify the service manager at ", socket, ": ",
                    std::generic_category().message(error));
}
} // namespace

ServiceManager::ServiceManager() : socket_(variable("NOTIFY_SOCKET"))
{
    std::int64_t microseconds = 0;
    const std::string pid = variable("WATCHDOG_PID"); // that of another process if it was inherited
    if (slate::try_parse(variable("WATCHDOG_USEC"), &microseconds) && microseconds > 0 &&
        (pid.empty() || pid == std::to_string(getpid())))
        watchdog_ = std::chrono::microseconds(microseconds);
}

void ServiceManager::notify(std::string_view state) const
{
    if (socket_.empty())
        return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_.size() >= sizeof address.sun_path)
        return warn(socket_, ENAMETOOLONG);
    std::memcpy(address.sun_path, socket_.data(), socket_.size());
    if (socket_.front() == '@') // a name that is no file
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_.size());

    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sender == -1)
        return warn(socket_, errno);
    if (sendto(sender, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
               size) == -1)
        warn(socket_, errno);
    close(sender);
}
