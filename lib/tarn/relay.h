// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "tarn/types.h"

namespace slate {
class Uri;
}

namespace tarn {
/// The meeting point of publish and subscribe: publishers connect to one of its endpoints and subscribers to
/// the other, so that neither needs to know the other. It runs from its construction; destroying it stops it
/// and removes its socket files. It neither reads nor changes the messages.
class Relay {
public:
    virtual ~Relay() = default;
};

/// A relay that receives published changes at `relay_in` and forwards them to the subscribers at `relay_out`
/// (neither null); the
/// usual endpoints come from relay_sub_sock and relay_pub_sock. Null, with an error in the log, without a
/// ZmqSubsystem. The settings "socket_mode" and "socket_group" say who may connect; without them the umask
/// does. Throws zmq::error_t if an endpoint can't be bound. libzmq doesn't report an ipc path that
/// another process serves: the relay takes such a path over.
[[nodiscard]] std::shared_ptr<Relay> make_relay(const Endpoint& relay_in, const Endpoint& relay_out);
} // namespace tarn
