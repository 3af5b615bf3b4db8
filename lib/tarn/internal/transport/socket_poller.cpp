// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/socket_poller.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "tarn/internal/utils/receive.h"

namespace tarn_internal {
SocketPoller::Index SocketPoller::add(zmq::socket_t& socket)
{
    entries_.push_back({&socket, socket.get(zmq::sockopt::fd), ZMQ_POLLIN, 0, false});
    polled_.reserve(entries_.size());
    return entries_.size() - 1;
}

void SocketPoller::want(Index socket, short events)
{
    Entry& entry = entries_[socket];
    if (entry.wanted != events)
        entry.is_settled = false;
    entry.wanted = events;
}

bool SocketPoller::wait(const slate::Duration& timeout)
{
    if (ask_sockets())
        return true;
    const slate::StopWatch watch(true);
    auto rest = timeout;
    do {
        // A signal may mean that a socket has something to do for itself, such as greeting a new peer.
        if (wait_for_signals(rest) && ask_sockets())
            return true;
        rest = timeout - slate::Microseconds(watch.elapsed());
    } while (poll_milliseconds(rest) != 0);
    return false;
}

/// Whether one has what it is wanted for. One that has nothing will signal when that changes.
bool SocketPoller::ask_sockets()
{
    bool found = false;
    for (Entry& entry : entries_) {
        entry.found = 0;
        if (entry.wanted == 0 || entry.is_settled)
            continue;
        entry.found = static_cast<short>(events_of(*entry.socket) & entry.wanted);
        entry.is_settled = entry.found == 0;
        found = found || entry.found != 0;
    }
    return found;
}

/// False if the time passed, or a signal of the system arrived.
bool SocketPoller::wait_for_signals(const slate::Duration& timeout)
{
    polled_.clear();
    for (const Entry& entry : entries_) {
        if (entry.wanted != 0)
            polled_.push_back({entry.descriptor, POLLIN, 0});
    }
    const auto milliseconds = static_cast<int>(std::min<long>(poll_milliseconds(timeout), INT_MAX));
    const int count = ::poll(polled_.data(), polled_.size(), milliseconds);
    if (count < 0 && errno != EINTR)
        throw zmq::error_t();
    if (count <= 0)
        return false;
    auto polled = polled_.cbegin();
    for (Entry& entry : entries_) {
        if (entry.wanted != 0 && (polled++)->revents != 0)
            entry.is_settled = false;
    }
    return true;
}
} // namespace tarn_internal
