// SPDX-License-Identifier: Apache-2.0
#include "tarn/probe.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <system_error>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "slate/descriptor.h"
#include "slate/uri.h"

namespace tarn {
namespace {
using slate::Descriptor;

Probe not_served(const std::string& error)
{
    return {false, std::nullopt, error};
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

Probe probe_ipc(const std::string& path)
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
    const Descriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.is_open())
        return not_served(errno);
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0)
        return {true, find_listener(connection), ""};
    if (errno == EAGAIN) // so many wait for it that the system takes no more
        return {true, std::nullopt, ""};
    return not_served(errno);
}

/// Waits for the end of a connect that was begun; the error, or 0.
int wait_for_connection(const Descriptor& connection, const slate::Duration& timeout)
{
    pollfd item = {connection.get(), POLLOUT, 0};
    const slate::StopWatch watch(true);
    auto rest = timeout;
    for (;;) {
        const auto milliseconds =
            std::min<std::int64_t>(std::max<std::int64_t>(0, rest.to_milliseconds()), 3600000);
        const int ready = poll(&item, 1, static_cast<int>(milliseconds));
        if (ready == 0)
            return ETIMEDOUT;
        if (ready > 0)
            break;
        if (errno != EINTR)
            return errno;
        rest = timeout - slate::Microseconds(watch.elapsed());
    }
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

Probe probe_tcp(const std::string& address, const slate::Duration& timeout)
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
    const Descriptor connection(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.is_open())
        return not_served(errno);
    if (connect(connection.get(), found->ai_addr, found->ai_addrlen) == 0)
        return {true, std::nullopt, ""};
    const int error = errno == EINPROGRESS ? wait_for_connection(connection, timeout) : errno;
    return error == 0 ? Probe{true, std::nullopt, ""} : not_served(error);
}
} // namespace

Probe probe(const Endpoint& endpoint, const slate::Duration& timeout)
{
    if (!endpoint)
        return not_served("not an endpoint");
    if (endpoint->scheme() == "ipc")
        return probe_ipc(endpoint->address());
    if (endpoint->scheme() == "tcp")
        return probe_tcp(endpoint->address(), timeout);
    return not_served("only ipc and tcp endpoints can be looked at");
}
} // namespace tarn
