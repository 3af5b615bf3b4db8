// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>

namespace slate {
class Provider;
}
namespace zmq {
class socket_t;
}

namespace tarn_internal {
/// Forwards messages between two sockets, both ways, until "TERMINATE" comes on `control`. An error in the
/// log, which names `what` has stopped, if it ends for any other reason.
///
/// It never blocks on a side that takes nothing more, as when all workers are busy and a flood comes in: the
/// other way goes on, and so does `control`. zmq_proxy_steerable sends without looking, and would then wait
/// for ever.
void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider);

/// Forwards what has come so far, one way. Throws zmq::error_t.
void forward_the_rest(zmq::socket_t& from, zmq::socket_t& to);
} // namespace tarn_internal
