// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "slate/clock.h"
#include "slate/duration.h"
#include "slate/log.h"
#include "tarn/internal/utils/running_time.h"

namespace slate {
class Provider;
}

namespace tarn_internal {
class TemporaryFileList;

/// A name for a temporary file; it creates no file. The name is hidden and ends in a UUID.
struct TemporaryPath {
    /// In the system's temporary directory.
    TemporaryPath();
    /// Beside `destination`, and named after it. Throws Exception for a relative path and for a hidden file.
    explicit TemporaryPath(const std::filesystem::path& destination);

    std::string prefix;
    std::filesystem::path path;
};

/// The data of one transfer: in memory at first, and beyond max_data_in_memory in a temporary file, which the
/// destructor removes. Only this process's user may read the file. It is opened by name only once, when it is
/// made, so nobody can put another one, or a link, in its place.
struct TransferBuffer {
    static constexpr std::size_t max_data_in_memory = 10485760;

    explicit TransferBuffer(TemporaryPath temporary_path);
    ~TransferBuffer();
    TransferBuffer(const TransferBuffer&) = delete;
    TransferBuffer& operator=(const TransferBuffer&) = delete;

    /// Has the file listed for as long as it exists. Call it before the first flush; null lists nothing.
    void list_in(std::shared_ptr<TemporaryFileList> list);

    /// Appends `data` to the file and empties it. Throws Exception if the file can't be made or written.
    void flush() const;
    /// How much it holds, in the file and in memory: more than memory could, where an address has 32 bits.
    std::uint64_t size() const;
    /// Moves all data out; data that was never in a file isn't copied. Throws Exception if the file can't be
    /// read, or is larger than a string can be.
    void read(std::string* out) const;

    /// Reserved in full at first, which costs only address space until memory is written.
    mutable std::string data;
    TemporaryPath path;
    /// Makes the destructor leave the file.
    bool keep_file = false;

private:
    struct File;

    void make_file() const;

    mutable std::shared_ptr<File> file_; // null until the first flush
    std::shared_ptr<TemporaryFileList> list_;
};

/// One upload in progress.
struct WriteSession {
    WriteSession(std::string transfer_id, slate::Duration expiry, TemporaryPath path);

    /// Adds a chunk. One that was sent twice is ignored. Throws MessageException, status 400, for a number
    /// that is too far ahead.
    void append(const std::string& data, std::optional<std::uint32_t> chunk);

    std::string id;
    /// On the clock of its server.
    slate::Duration expires;
    TransferBuffer buffer;
    std::uint32_t next_chunk = 0;
};

std::string to_string(const WriteSession& session);

/// The transfers of one server, the oldest first.
///
/// Threads: any. A session that one thread uses outlives its removal by another; a thread that changes one
/// holds the mutex of its entry. No lock of the list is held while a file is written or removed.
template <class Session>
class SessionList {
public:
    static constexpr std::size_t max_sessions = 10;

    struct Entry {
        template <class... Args>
        explicit Entry(Args&&... args) : session(std::forward<Args>(args)...)
        {
        }

        // Guards session, except its id, which is constant, and its expiry, which the list's mutex guards.
        std::mutex mutex;
        Session session;
    };
    using Handle = std::shared_ptr<Entry>;

    explicit SessionList(std::shared_ptr<slate::Clock> clock) : time_(std::move(clock)) {}

    /// The first session of that id, or null.
    Handle find(const std::string& id) const
    {
        const std::lock_guard lock(mutex_);
        const auto found = position_of(id);
        return found == sessions_.end() ? nullptr : *found;
    }

    /// Adds a session whose file lies in the system's temporary directory, or beside `destination`. Null
    /// if a session of that id exists: of two threads that open a transfer at once, one is too late.
    Handle add(std::string id, slate::Duration expires)
    {
        return add(std::make_shared<Entry>(std::move(id), expires, TemporaryPath()));
    }
    Handle add(std::string id, slate::Duration expires, const std::filesystem::path& destination)
    {
        return add(std::make_shared<Entry>(std::move(id), expires, TemporaryPath(destination)));
    }

    void set_expiry(Entry& entry, const slate::Duration& expires)
    {
        const std::lock_guard lock(mutex_);
        entry.session.expires = expires;
    }

    /// For the log. Takes the lock, because another thread may change the expiry if a peer sends chunks of
    /// one transfer side by side.
    std::string to_text(const Entry& entry) const
    {
        const std::lock_guard lock(mutex_);
        return to_string(entry.session);
    }

    /// Removes the first session of that id, if there is one.
    void remove(const std::string& id)
    {
        Handle removed; // outlives the lock
        const std::lock_guard lock(mutex_);
        const auto found = position_of(id);
        if (found == sessions_.end())
            return;
        removed = *found;
        slate::log_debug(SLATE_HERE, "remove: ", to_string(removed->session));
        sessions_.erase(found);
    }

    /// Discards the oldest sessions beyond max_sessions, and then those whose time has passed.
    void clean(const std::shared_ptr<slate::Provider>& provider)
    {
        std::vector<Handle> removed; // outlives the lock
        const std::lock_guard lock(mutex_);
        if (sessions_.empty())
            return;
        while (sessions_.size() > max_sessions) {
            slate::log_warn(provider, SLATE_HERE, "too many file transfer sessions; discarding oldest: ",
                            sessions_.front()->session.id);
            removed.push_back(sessions_.front());
            sessions_.pop_front();
        }
        const slate::Duration time = now();
        for (auto entry = sessions_.begin(); entry != sessions_.end();) {
            if ((*entry)->session.expires < time) {
                slate::log_warn(provider, SLATE_HERE,
                                "removing expired file transfer session: ", (*entry)->session.id);
                removed.push_back(*entry);
                entry = sessions_.erase(entry);
            }
            else {
                ++entry;
            }
        }
    }

    /// The time on the clock by which sessions expire.
    slate::Duration now() const { return time_.now(); }

    std::size_t size() const
    {
        const std::lock_guard lock(mutex_);
        return sessions_.size();
    }

private:
    Handle add(Handle entry)
    {
        const std::lock_guard lock(mutex_);
        if (position_of(entry->session.id) != sessions_.end())
            return nullptr;
        slate::log_debug(SLATE_HERE, "add: ", to_string(entry->session));
        sessions_.push_back(entry);
        return entry;
    }

    auto position_of(const std::string& id) const
    {
        return std::find_if(sessions_.begin(), sessions_.end(),
                            [&](const Handle& entry) { return entry->session.id == id; });
    }

    mutable std::mutex mutex_; // guards sessions_, and the expiry of each
    std::list<Handle> sessions_;
    const RunningTime time_;
};
} // namespace tarn_internal
