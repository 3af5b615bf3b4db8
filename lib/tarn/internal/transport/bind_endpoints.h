// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "tarn/internal/utils/socket_file.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
class Provider;
class Uri;
} // namespace slate
namespace zmq {
class context_t;
class socket_t;
} // namespace zmq

namespace tarn_internal {
/// Logs what check_endpoint() says of the endpoints that `function` was given, and of `relay_out`, which may
/// be null. False, with an error in the log, if one of the others is null, which is what slate::make_uri
/// gives for a text that is not an endpoint.
bool are_endpoints(const std::vector<Endpoint>& uris, const Endpoint& relay_out, std::string_view function);

/// Binds a socket to one endpoint; throws zmq::error_t. Retries an endpoint in use for a quarter of a second:
/// libzmq releases one some time after its socket was closed, and a restarted server must not collide with
/// its predecessor.
void bind_when_free(zmq::socket_t& socket, const slate::Uri& uri);

/// Gives the file of a socket that was just bound the mode and the group of the settings "socket_mode" and
/// "socket_group". An empty group leaves the file's own. Failures are warnings in the log: whoever may
/// connect without them may do so all the same.
void set_socket_access(const Endpoint& uri, const slate::Dictionary& settings);

/// The same for sockets of published changes, whose file stays as it is without these settings.
void set_socket_access_as_told(const Endpoint& uri, const slate::Dictionary& settings);

/// Binds a socket that receives requests to all endpoints, and sets the access to their socket files. False,
/// with an error in the log that names the `kind` of socket, at the first endpoint that can't be bound; those
/// before it stay bound until the socket closes. `files` gets the files of those that are bound.
bool bind_endpoints(zmq::socket_t& socket, const std::vector<Endpoint>& uris, std::string_view kind,
                    const slate::Dictionary& settings, const std::shared_ptr<slate::Provider>& provider,
                    std::vector<SocketFile>& files);

/// Whether an inproc endpoint is bound; no value if that can't be found out, for example without a free file
/// descriptor.
std::optional<bool> inproc_is_bound(zmq::context_t& context, const slate::Uri& uri);

/// Has libzmq close the connection of a peer that sends a larger frame than the setting "max_frame_bytes"
/// allows, before it takes memory for it. For sockets that bind, or whose owner makes a new one after such an
/// end: a socket that connects doesn't connect again.
void limit_frames(zmq::socket_t& socket, const slate::Dictionary& settings);

/// What a subscription may take where subscribers connect: a topic is no more than one segment of a path.
inline constexpr std::int64_t max_subscription_bytes = 4096;
/// The same where a publisher connects to a relay, which passes on what it has let through in a form that is
/// some bytes longer. A bound that the relay itself could exceed would end that connection for good.
inline constexpr std::int64_t max_relayed_subscription_bytes = 2 * max_subscription_bytes;

/// Has libzmq close the connection of a peer that subscribes to more on a ZMQ_PUB or ZMQ_XPUB socket. It
/// releases a subscription by a recursion as deep as its topic is long, which overflows the stack.
void limit_subscriptions(zmq::socket_t& socket, std::int64_t max_bytes);

/// The longest topic that a ZMQ_SUB socket can subscribe to where max_subscription_bytes holds: what it sends
/// has ten bytes more.
inline constexpr std::size_t max_topic_bytes = max_subscription_bytes - 10;

/// Sets the mark at which a socket of published changes drops them, from the setting "high_water_mark": a
/// number of messages for each peer and direction. Without the setting the mark stays libzmq's own, which is
/// 1,000. To be called before the socket binds or connects. Whether the setting is there.
bool set_high_water_mark(zmq::socket_t& socket, const slate::Dictionary& settings);

/// Limits how long the closed socket of public endpoints waits for its last messages to leave: libzmq would
/// wait for ever for a peer that filled the queue of its requests and then died with replies unread.
void limit_linger(zmq::socket_t& socket);
} // namespace tarn_internal
