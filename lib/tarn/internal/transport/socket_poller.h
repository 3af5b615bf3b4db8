// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include <poll.h>
#include <zmq.hpp>

#include "slate/duration.h"

namespace tarn_internal {
/// Waits until one of a thread's sockets may have a message, at the price of one system call; zmq_poll makes
/// two for each socket and one more.
///
/// libzmq signals by a descriptor (ZMQ_FD) that a socket may have changed, and takes the signal back whenever
/// the socket is used for anything. So a socket is unsettled from a signal, or from any other use, of which
/// its owner has to tell (touch()), until it is found to have nothing; and while one is, a wait ends at once.
///
/// Threads: for the thread of the sockets.
class SocketPoller {
public:
    /// Names a socket, in the order in which they are added.
    using Index = std::size_t;

    /// The socket must outlive the poller. Throws zmq::error_t.
    Index add(zmq::socket_t& socket);

    /// What the socket is waited for: ZMQ_POLLIN, which it is at first, ZMQ_POLLOUT, both, or 0 for nothing.
    void want(Index socket, short events);

    /// To be called when the thread has sent on the socket or set an option, unless it goes on to read it.
    void touch(Index socket) { entries_[socket].is_settled = false; }

    /// Waits for that time at most until a socket that is waited for is unsettled; a signal doesn't shorten
    /// it. False if it passed. Throws zmq::error_t.
    bool wait(const slate::Duration& timeout);

    /// Whether the socket is worth a look, which costs nothing to ask. Who then receives until there is
    /// nothing has to say so.
    bool is_unsettled(Index socket) const
    {
        return entries_[socket].wanted != 0 && !entries_[socket].is_settled;
    }
    void settle(Index socket) { entries_[socket].is_settled = true; }

    /// Whether the socket is waited for and has a message, or room for one. Throws zmq::error_t.
    bool is_readable(Index socket) { return (find_events(socket) & ZMQ_POLLIN) != 0; }
    bool is_writable(Index socket) { return (find_events(socket) & ZMQ_POLLOUT) != 0; }

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        zmq::socket_t* socket;
        int descriptor;
        short wanted;
        bool is_settled; // whether the descriptor will tell of the next change
    };

    bool is_any_unsettled() const;
    void look(const slate::Duration& timeout);
    int find_events(Index socket);

    std::vector<Entry> entries_;
    std::vector<pollfd> polled_; // kept for its memory
    Clock::time_point last_look_;
};
} // namespace tarn_internal
