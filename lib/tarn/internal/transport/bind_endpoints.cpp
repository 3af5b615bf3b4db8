// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/bind_endpoints.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include <zmq.hpp>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/settings.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/internal/utils/socket_ops.h"

namespace tarn_internal {
namespace {
constexpr const char* mode_key = "socket_mode";
constexpr const char* group_key = "socket_group";
} // namespace

bool are_endpoints(const std::vector<Endpoint>& uris, const Endpoint& relay_out, std::string_view function)
{
    for (const Endpoint& uri : uris)
        log_endpoint_fault(function, uri);
    log_endpoint_fault(function, relay_out);
    if (std::find(uris.begin(), uris.end(), nullptr) == uris.end())
        return true;
    slate::log_error(SLATE_HERE, "cannot ", function, ", an endpoint is null");
    return false;
}

void bind_when_free(zmq::socket_t& socket, const slate::Uri& uri)
{
    constexpr auto patience = std::chrono::milliseconds(250);
    constexpr auto pause = std::chrono::milliseconds(5);

    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        try {
            socket.bind(uri.to_string());
            return;
        }
        catch (const zmq::error_t& error) {
            if (error.num() != EADDRINUSE || std::chrono::steady_clock::now() >= end)
                throw;
        }
        // There is no event to wait for: a thread of libzmq releases the endpoint without notice.
        std::this_thread::sleep_for(pause);
    }
}

void set_socket_access(const Endpoint& uri, const slate::Dictionary& settings)
{
    // These functions log their failures. The server serves all the same: a development machine has no such
    // group.
    const auto mode = mode_setting(settings, mode_key);
    (void)(mode ? tarn::try_modify_socket_permissions(uri, *mode) : tarn::try_modify_socket_permissions(uri));
    const std::string group = settings.get(group_key, tarn::socket_group);
    if (!group.empty())
        (void)tarn::try_modify_socket_group(uri, group);
}

void set_socket_access_as_told(const Endpoint& uri, const slate::Dictionary& settings)
{
    if (const auto mode = mode_setting(settings, mode_key))
        (void)tarn::try_modify_socket_permissions(uri, *mode);
    if (const std::string group = settings.get(group_key, ""); !group.empty())
        (void)tarn::try_modify_socket_group(uri, group);
}

bool bind_endpoints(zmq::socket_t& socket, const std::vector<Endpoint>& uris, std::string_view kind,
                    const slate::Dictionary& settings, const std::shared_ptr<slate::Provider>& provider,
                    std::vector<SocketFile>& files)
{
    for (const auto& uri : uris) {
        try {
            bind_when_free(socket, *uri);
            files.emplace_back(uri);
        }
        catch (const zmq::error_t& error) {
            slate::log_error(provider, SLATE_HERE, "Failed to bind ", kind, " socket: ", error.what());
            slate::log_error(provider, SLATE_HERE, "cannot serve at ", uri->to_string());
            return false;
        }
        slate::log_verbose(provider, SLATE_HERE, "bind: ", uri->to_string());
        set_socket_access(uri, settings);
    }
    return true;
}

std::optional<bool> inproc_is_bound(zmq::context_t& context, const slate::Uri& uri)
{
    try {
        zmq::socket_t probe(context, zmq::socket_type::rep);
        probe.bind(uri.to_string());
        return false;
    }
    catch (const zmq::error_t& error) {
        return error.num() == EADDRINUSE ? std::optional(true) : std::nullopt;
    }
}

void limit_frames(zmq::socket_t& socket, const slate::Dictionary& settings)
{
    if (const auto bytes = size_setting(settings, "max_frame_bytes"))
        socket.set(zmq::sockopt::maxmsgsize, static_cast<std::int64_t>(*bytes));
}

void limit_subscriptions(zmq::socket_t& socket, std::int64_t max_bytes)
{
    socket.set(zmq::sockopt::maxmsgsize, max_bytes);
}

bool set_high_water_mark(zmq::socket_t& socket, const slate::Dictionary& settings)
{
    const auto messages = count_setting(settings, "high_water_mark");
    if (!messages)
        return false;
    socket.set(zmq::sockopt::sndhwm, *messages);
    socket.set(zmq::sockopt::rcvhwm, *messages);
    return true;
}

void limit_linger(zmq::socket_t& socket)
{
    // As long as clients wait by default. A context that is ending refuses, and drops unsent messages anyway.
    const int milliseconds = static_cast<int>(tarn::default_timeout().to_milliseconds());
    (void)zmq_setsockopt(socket.handle(), ZMQ_LINGER, &milliseconds, sizeof milliseconds);
}
} // namespace tarn_internal
