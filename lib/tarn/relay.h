// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace slate {
class Uri;
}

namespace tarn {
/// The meeting point of publish and subscribe: publishers connect to one of its endpoints and subscribers to
/// the other, so that neither needs to know the other. It runs from the moment that it is made; destroying it
/// stops it and removes its socket files. It neither reads nor changes what passes through.
class Relay {
public:
    virtual ~Relay() = default;
};

/// A relay that takes changes in at `sub_uri` and puts them out at `pub_uri` (neither null); the usual
/// endpoints come from relay_sub_sock and relay_pub_sock. Null, with an error in the log, without a
/// ZmqSubsystem. Throws zmq::error_t if an endpoint can't be bound. Of an ipc path that somebody else serves
/// libzmq doesn't tell: it takes the path over.
std::shared_ptr<Relay> make_relay(const std::shared_ptr<const slate::Uri>& sub_uri,
                                  const std::shared_ptr<const slate::Uri>& pub_uri);
} // namespace tarn
