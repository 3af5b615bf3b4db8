// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <sys/stat.h>

#include "slate/uri.h"
#include "tarn/types.h"

namespace tarn_internal {
/// The kept connections of a client of many services, one for each socket.
///
/// Threads: any. A connection that was handed out lives as long as its user holds it.
template <class Connection>
class ConnectionList {
public:
    using Make = std::function<std::shared_ptr<Connection>(const Endpoint&)>;

    static constexpr std::size_t max_kept = 32;

    explicit ConnectionList(Make make) : make_(std::move(make)) {}

    /// The connection to a socket: the kept one while the socket's file is the one that it was made for, and
    /// otherwise a new one. Throws what making one throws.
    std::shared_ptr<Connection> find(const Endpoint& endpoint)
    {
        const std::string key = endpoint->to_string();
        const SocketId socket = id_of(*endpoint);
        if (auto kept = find_kept(key, socket))
            return kept;
        // Without the lock: making one takes time. If two threads make one at the same time, each uses its
        // own, and the second one is kept.
        auto made = make_(endpoint);
        const std::lock_guard lock(mutex_);
        entries_.insert_or_assign(key, Entry{socket, made, ++uses_});
        drop_surplus();
        return made;
    }

private:
    /// What tells whether a file has been replaced: a number may be given again, but not at the same time.
    struct SocketId {
        dev_t device = 0;
        ino_t number = 0;
        std::int64_t changed_s = 0;
        std::int64_t changed_ns = 0;
        bool operator==(const SocketId&) const = default;
    };
    struct Entry {
        SocketId socket;
        std::shared_ptr<Connection> connection;
        std::uint64_t last_use = 0;
    };

    std::shared_ptr<Connection> find_kept(const std::string& key, const SocketId& socket)
    {
        const std::lock_guard lock(mutex_);
        const auto entry = entries_.find(key);
        if (entry == entries_.end() || !(entry->second.socket == socket))
            return nullptr;
        entry->second.last_use = ++uses_;
        return entry->second.connection;
    }

    static SocketId id_of(const slate::Uri& endpoint)
    {
        struct stat status {};
        if (endpoint.scheme() != "ipc" || stat(endpoint.address().c_str(), &status) != 0)
            return {};
        return {status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
    }

    void drop_surplus()
    {
        if (entries_.size() <= max_kept)
            return;
        entries_.erase(std::min_element(entries_.begin(), entries_.end(), [](const auto& a, const auto& b) {
            return a.second.last_use < b.second.last_use;
        }));
    }

    const Make make_;
    std::mutex mutex_; // guards the rest
    std::map<std::string, Entry> entries_;
    std::uint64_t uses_ = 0;
};
} // namespace tarn_internal
