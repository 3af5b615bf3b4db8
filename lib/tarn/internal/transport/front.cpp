// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/front.h"

#include <cstddef>
#include <new>
#include <utility>

#include "slate/log.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/thread_sanitizer.h"

namespace tarn_internal {
namespace {
std::string_view peer_address(const zmq::message_t& frame)
{
    const char* value = zmq_msg_gets(frame.handle(), "Peer-Address");
    return value ? value : "";
}
} // namespace

std::string text_or_nothing(std::string_view text) noexcept
{
    try {
        return std::string(text);
    }
    catch (const std::bad_alloc&) {
        return {};
    }
}

std::optional<IncomingRequest> receive_request(zmq::socket_t& socket,
                                               const std::shared_ptr<slate::Provider>& provider)
{
    IncomingRequest request;
    // Out of memory between two frames would mix up messages.
    request.way_back.reserve(max_routing_frames + 1);
    zmq::message_t frame;
    if (!receive_through_signals(socket, frame, ZMQ_DONTWAIT))
        return std::nullopt;
    while (frame.more() && !frame.empty() && request.way_back.size() < max_routing_frames) {
        request.way_back.push_back(std::move(frame));
        (void)receive_through_signals(socket, frame);
    }
    if (!frame.more() || !frame.empty()) {
        slate::log_warn(provider, SLATE_HERE, "failed to read request from client");
        drop_further_frames(socket, frame);
        request.way_back.clear();
        return request;
    }
    request.way_back.push_back(std::move(frame));
    (void)receive_frame(socket, request.payload);
    request.peer_address = text_or_nothing(peer_address(request.payload));
    return request;
}

void send_reply(zmq::socket_t& socket, IncomingRequest& request, zmq::message_t& reply)
{
    // A full queue belongs to a peer that doesn't read: the socket drops what is meant for it.
    for (zmq::message_t& frame : request.way_back)
        (void)send_through_signals(socket, frame, ZMQ_SNDMORE | ZMQ_DONTWAIT);
    tsan_release(reply.data());
    (void)send_through_signals(socket, reply, ZMQ_DONTWAIT);
}

Front::Front(zmq::context_t& context, const slate::Dictionary& settings)
    : settings_(settings),
      socket_(context, zmq::socket_type::router)
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
    return bind_endpoints(socket_, endpoints, kind, settings_, provider, files_);
}

void Front::remove_socket_files()
{
    for (const SocketFile& file : files_)
        file.remove();
    files_.clear();
}
} // namespace tarn_internal
