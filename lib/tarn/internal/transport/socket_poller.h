// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

#include <poll.h>
#include <zmq.hpp>

#include "slate/duration.h"

namespace tarn_internal {
/// Waits until one of a thread's sockets has a message, at the price of one system call a wait and one for
/// each socket that was signalled; zmq_poll makes two for each socket and wait.
///
/// libzmq signals by a descriptor (ZMQ_FD) that a socket may have changed, and takes the signal back whenever
/// the socket is used for anything. So a socket is asked again (ZMQ_EVENTS) before each wait until it has
/// nothing to read, and after anything else was done with it, of which its owner has to tell: touch().
///
/// Threads: for the thread of the sockets.
class SocketPoller {
public:
    /// Names a socket, in the order in which they are added.
    using Index = std::size_t;

    /// The socket must outlive the poller. Throws zmq::error_t.
    Index add(zmq::socket_t& socket);

    /// What ends a wait: ZMQ_POLLIN, which it is at first, ZMQ_POLLOUT, both, or 0 for nothing.
    void want(Index socket, short events);

    /// To be called when the thread has sent on the socket or set an option since the last wait, unless that
    /// wait found it readable.
    void touch(Index socket) { entries_[socket].is_settled = false; }

    /// Waits for that time at most; a signal doesn't shorten it. False if it passed. Throws zmq::error_t.
    bool wait(const slate::Duration& timeout);

    /// What the last wait found.
    bool is_readable(Index socket) const { return (entries_[socket].found & ZMQ_POLLIN) != 0; }

private:
    struct Entry {
        zmq::socket_t* socket;
        int descriptor;
        short wanted;
        short found;
        bool is_settled; // whether the descriptor will tell of the next change
    };

    bool ask_sockets();
    bool wait_for_signals(const slate::Duration& timeout);

    std::vector<Entry> entries_;
    std::vector<pollfd> polled_; // kept for its memory
};
} // namespace tarn_internal
