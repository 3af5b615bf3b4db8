// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/proxy.h"

#include <cerrno>

#include <zmq.hpp>

#include "slate/log.h"

namespace tarn_internal {
void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider)
{
    // The C function, as the C++ wrapper throws: libzmq 4.3.4 returns 0 after "TERMINATE", and 4.3.5 ends as
    // it should but reports ENOTSUP, since it can't send an answer on a ZMQ_SUB socket.
    const int result = zmq_proxy_steerable(front.handle(), back.handle(), nullptr, control.handle());
    if (result == 0 || zmq_errno() == ENOTSUP)
        return;
    slate::log_error(provider, SLATE_HERE, what, " has stopped working: ", zmq_strerror(zmq_errno()));
}
} // namespace tarn_internal
