// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <zmq.hpp>

#include "tarn/internal/utils/socket_file.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
class Provider;
} // namespace slate

namespace tarn_internal {
/// How many frames may lead back to a sender; each proxy on the way adds one.
inline constexpr std::size_t max_routing_frames = 32;

/// One request as it came in, with all that is needed to answer it.
struct IncomingRequest {
    /// The routing frames that a reply begins with, up to and including the empty one that ends them.
    std::vector<zmq::message_t> way_back;
    zmq::message_t payload;
    /// libzmq's property "Peer-Address" of the connection: for ipc it ends in ":uid:gid:pid" of the process
    /// that connected, for tcp it is the numeric address; empty for inproc.
    std::string peer_address;

    /// False for a message without an empty frame, without a frame behind it, or with more than 32 routing
    /// frames: nobody knows where a reply would go.
    bool is_answerable() const { return !way_back.empty(); }
};

/// For a peer's address, which a request can do without: empty if memory has run out.
std::string text_or_nothing(std::string_view text) noexcept;

/// Receives the next request from a socket that adds a routing frame. Doesn't wait: none if there is none.
/// What isn't answerable is dropped, with a warning in the log, as are frames behind the payload. Throws
/// zmq::error_t.
std::optional<IncomingRequest> receive_request(zmq::socket_t& socket,
                                               const std::shared_ptr<slate::Provider>& provider);

/// Sends a reply the way that the request came, and uses up both. A reply to a peer that has gone is lost
/// without notice. Throws zmq::error_t.
void send_reply(zmq::socket_t& socket, IncomingRequest& request, zmq::message_t& reply);

/// The public side of every server: one ZMQ_ROUTER socket, bound to all its endpoints.
///
/// Unlike a ZMQ_REP socket it owes nobody a reply. On a ZMQ_REP socket, a malformed message or a lost
/// connection of one peer can cost another one its reply, and a request that isn't answered blocks all
/// others. Peers see no difference.
///
/// Threads: for one thread.
class Front {
public:
    /// `settings`, which must outlive the front, are read for "max_frame_bytes", "socket_mode" and
    /// "socket_group". Throws zmq::error_t if the socket can't be made.
    Front(zmq::context_t& context, const slate::Dictionary& settings);
    /// Replies that haven't left yet still leave, for some seconds at most; see limit_linger.
    ~Front();
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    /// See bind_endpoints. The front notes the socket files of all endpoints that it binds.
    bool bind(const std::vector<Endpoint>& endpoints, std::string_view kind,
              const std::shared_ptr<slate::Provider>& provider);

    /// Removes the socket files, for new clients to find no server rather than one that doesn't answer.
    void remove_socket_files();

    /// To be polled for requests.
    zmq::socket_t& socket() { return socket_; }

private:
    const slate::Dictionary& settings_;
    zmq::socket_t socket_;
    std::vector<SocketFile> files_;
};
} // namespace tarn_internal
