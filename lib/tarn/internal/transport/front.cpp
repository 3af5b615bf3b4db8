// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/front.h"

#include <cstddef>
#include <utility>

#include "slate/log.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/thread_sanitizer.h"

namespace tarn_internal {
namespace {
/// The peer's and the empty one; a proxy on the way adds one more.
constexpr std::size_t usual_routing_frames = 4;
/// No device has that many proxies in a row.
constexpr std::size_t max_routing_frames = 32;

std::string peer_address(const zmq::message_t& frame)
{
    const char* value = zmq_msg_gets(frame.handle(), "Peer-Address");
    return value ? value : "";
}
} // namespace

std::optional<IncomingRequest> receive_request(zmq::socket_t& socket,
                                               const std::shared_ptr<slate::Provider>& provider)
{
    IncomingRequest request;
    request.way_back.reserve(usual_routing_frames); // out of memory between two frames would mix up messages
    zmq::message_t frame;
    if (!socket.recv(frame, zmq::recv_flags::dontwait))
        return std::nullopt;
    while (frame.more() && !frame.empty() && request.way_back.size() < max_routing_frames) {
        request.way_back.push_back(std::move(frame));
        (void)socket.recv(frame);
    }
    if (!frame.more() || !frame.empty()) {
        slate::log_warn(provider, SLATE_HERE, "failed to read request from client");
        drop_further_frames(socket, frame);
        return std::nullopt;
    }
    request.way_back.push_back(std::move(frame));
    (void)receive_frame(socket, request.payload);
    request.peer_address = peer_address(request.payload);
    return request;
}

void send_reply(zmq::socket_t& socket, IncomingRequest& request, zmq::message_t& reply)
{
    // A full queue belongs to a peer that doesn't read: the socket drops what is meant for it.
    for (zmq::message_t& frame : request.way_back)
        (void)socket.send(frame, zmq::send_flags::sndmore | zmq::send_flags::dontwait);
    tsan_release(reply.data());
    (void)socket.send(reply, zmq::send_flags::dontwait);
}

Front::Front(zmq::context_t& context, const slate::Dictionary& settings)
    : socket_(context, zmq::socket_type::router)
{
    limit_frames(socket_, settings);
}

Front::~Front()
{
    limit_linger(socket_);
}

bool Front::bind(const std::vector<Endpoint>& endpoints, std::string_view kind,
                 const std::shared_ptr<slate::Provider>& provider)
{
    return bind_endpoints(socket_, endpoints, kind, provider, files_);
}

void Front::remove_socket_files()
{
    for (const SocketFile& file : files_)
        file.remove();
    files_.clear();
}
} // namespace tarn_internal
