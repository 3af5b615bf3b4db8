// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/socket_poller.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "tarn/internal/utils/receive.h"

namespace tarn_internal {
namespace {
/// How long sockets that are never without messages can keep the others waiting, not counting one message.
constexpr std::chrono::milliseconds max_neglect{1};
} // namespace

SocketPoller::Index SocketPoller::add(zmq::socket_t& socket)
{
    entries_.push_back({&socket, socket.get(zmq::sockopt::fd), ZMQ_POLLIN, false});
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
    if (is_any_unsettled()) {
        if (Clock::now() - last_look_ >= max_neglect)
            look(slate::Seconds(0));
        return true;
    }
    const slate::StopWatch watch(true);
    auto rest = timeout;
    do {
        look(rest);
        if (is_any_unsettled())
            return true;
        rest = timeout - slate::Microseconds(watch.elapsed());
    } while (poll_milliseconds(rest) != 0);
    return false;
}

bool SocketPoller::is_any_unsettled() const
{
    return std::any_of(entries_.begin(), entries_.end(),
                       [](const Entry& entry) { return entry.wanted != 0 && !entry.is_settled; });
}

/// Waits for a signal of libzmq, or one of the system.
void SocketPoller::look(const slate::Duration& timeout)
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
    last_look_ = Clock::now();
    if (count <= 0)
        return;
    auto polled = polled_.cbegin();
    for (Entry& entry : entries_) {
        if (entry.wanted != 0 && (polled++)->revents != 0)
            entry.is_settled = false;
    }
}

int SocketPoller::find_events(Index socket)
{
    if (!is_unsettled(socket))
        return 0;
    Entry& entry = entries_[socket];
    const int events = events_of(*entry.socket) & entry.wanted;
    entry.is_settled = events == 0;
    return events;
}
} // namespace tarn_internal
