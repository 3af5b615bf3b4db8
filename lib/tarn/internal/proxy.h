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
/// Forwards messages between two sockets, both ways, until "TERMINATE" comes on `control`. Nothing else must
/// ever be sent there: libzmq ends the process at a word that it doesn't know. An error in the log, which
/// names `what` has stopped, if it ends for any other reason.
void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider);
} // namespace tarn_internal
