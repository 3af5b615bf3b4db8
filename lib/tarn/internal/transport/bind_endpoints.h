// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "tarn/types.h"

namespace slate {
class Provider;
class Uri;
} // namespace slate
namespace zmq {
class socket_t;
}

namespace tarn_internal {
/// False, with an error in the log that names the function that was called with them, if one of them is null,
/// as slate::make_uri gives it for a text that is no endpoint.
bool are_endpoints(const std::vector<Endpoint>& uris, std::string_view function);

/// Binds a socket to one endpoint; throws zmq::error_t. An endpoint in use is tried again for a quarter of a
/// second: libzmq lets go of one only some time after its socket was closed, and who ends a server and makes
/// it anew shouldn't meet the old one.
void bind_when_free(zmq::socket_t& socket, const slate::Uri& uri);

/// Binds a socket that takes requests to all endpoints, and opens the files of those that have one to the
/// socket group. False, with an error in the log that tells which `kind` of socket it is, at the first that
/// can't be bound; those before it stay bound until the socket closes.
bool bind_endpoints(zmq::socket_t& socket, const std::vector<Endpoint>& uris, std::string_view kind,
                    const std::shared_ptr<slate::Provider>& provider);

/// Gives what a socket at public endpoints has sent a limited time to leave, once it is closed: libzmq would
/// wait for ever for a peer that filled the queue of its requests and then died with replies unread.
void limit_linger(zmq::socket_t& socket);

/// Binds the socket by which a proxy talks to its workers. False, with an error in the log, if it can't be
/// bound.
bool bind_dealer(zmq::socket_t& socket, const slate::Uri& uri,
                 const std::shared_ptr<slate::Provider>& provider);
} // namespace tarn_internal
