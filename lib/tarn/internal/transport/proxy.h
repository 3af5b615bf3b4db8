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
/// Forwards messages between two sockets, in both directions, until "TERMINATE" arrives on `control`. If it
/// ends for any other reason, logs an error that names `what`.
///
/// It never blocks on a side whose queue is full, as when all workers are busy and requests flood in: the
/// other direction goes on, and so does `control`. zmq_proxy_steerable would block in its send for ever.
void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider);
} // namespace tarn_internal
