// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/look_at.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "slate/descriptor.h"
#include "slate/uri.h"

namespace tarn_internal {
namespace {
using slate::Descriptor;
using tarn::Probe;

Probe not_served(const std::string& error)
{
    Probe found;
    found.error = error;
    return found;
}

Probe served()
{
    Probe found;
    found.served = true;
    return found;
}

Probe not_served(int error)
{
    switch (error) {
    case ENOENT:
        return not_served("no such file");
    case ECONNREFUSED:
        return not_served("nobody listens");
    case EACCES:
        return not_served("permission denied");
    default:
        return not_served(std::generic_category().message(error));
    }
}

std::optional<int> find_listener(const Descriptor& connection)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 0)
        return std::nullopt;
    return peer.pid;
}

Probe probe_ipc(const std::string& path, Descriptor& connection)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return not_served(ENAMETOOLONG);
    std::memcpy(address.sun_path, path.data(), path.size());
    auto size = static_cast<socklen_t>(sizeof address);
    if (path.front() == '@') { // a name that is no file
        address.sun_path[0] = '\0';
        size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    }
    connection = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.is_open())
        return not_served(errno);
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0) {
        Probe found = served();
        found.pid = find_listener(connection);
        return found;
    }
    const int error = errno;
    connection = Descriptor();
    return error == EAGAIN ? served() : not_served(error); // so many wait that the system takes no more
}

/// Waits for the end of a connect that was begun; the error, or 0.
int wait_for_connection(const Descriptor& connection, const slate::Duration& timeout)
{
    if (!wait_for(connection, POLLOUT, timeout))
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

Probe probe_tcp(const std::string& address, const slate::Duration& timeout, Descriptor& connection)
{
    const auto colon = address.rfind(':');
    if (colon == std::string::npos)
        return not_served("the port is missing");
    std::string host = address.substr(0, colon);
    addrinfo hints{};
    hints.ai_family = AF_INET; // which is what a client's socket finds by a name
    hints.ai_socktype = SOCK_STREAM;
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
        hints.ai_family = AF_INET6;
    }
    if (host == "*")
        host = "127.0.0.1";
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(host.c_str(), address.substr(colon + 1).c_str(), &hints, &found);
        error != 0)
        return not_served(gai_strerror(error));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    connection = Descriptor(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.is_open())
        return not_served(errno);
    if (connect(connection.get(), found->ai_addr, found->ai_addrlen) == 0)
        return served();
    const int error = errno == EINPROGRESS ? wait_for_connection(connection, timeout) : errno;
    return error == 0 ? served() : not_served(error);
}
} // namespace

bool wait_for(const Descriptor& connection, short event, const slate::Duration& time)
{
    pollfd item = {connection.get(), event, 0};
    const slate::StopWatch watch(true);
    auto rest = time;
    for (;;) {
        const auto milliseconds =
            std::min<std::int64_t>(std::max<std::int64_t>(0, rest.to_milliseconds()), 3600000);
        const int ready = poll(&item, 1, static_cast<int>(milliseconds));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
        rest = time - slate::Microseconds(watch.elapsed());
    }
}

Probe look_at(const Endpoint& endpoint, const slate::Duration& timeout, slate::Descriptor* connection)
{
    Descriptor made;
    Probe found = not_served("only ipc and tcp endpoints can be looked at");
    if (!endpoint)
        found = not_served("not an endpoint");
    else if (endpoint->scheme() == "ipc")
        found = probe_ipc(endpoint->address(), made);
    else if (endpoint->scheme() == "tcp")
        found = probe_tcp(endpoint->address(), timeout, made);
    if (connection)
        *connection = std::move(made);
    return found;
}
} // namespace tarn_internal
