// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "slate/lazy.h"
#include "tarn/policies.h"
#include "tarn/proto/format.pb.h"

namespace slate {
class DeferredWork;
class Dictionary;
class Duration;
class Provider;
class Queue;
} // namespace slate

namespace tarn {
/// What Resource::save_into passes to a reader.
struct Content {
    std::string data;
    /// The data's MIME type, such as "application/json".
    std::string mime_type;
    /// Changes whenever the data does.
    std::string etag;
    /// As given to save_into.
    std::shared_ptr<slate::Dictionary> params;
};

/// Something stored that can be read, written and erased in one or more formats: a document, a table, a set
/// of settings. Each resource defines what the parameters select within it (a part, a revision); they may be
/// null if it needs none.
///
/// The application's own route connects it to requests; derive from ResourceBase.
///
/// Errors: operations throw MessageException, which carries the status for a reply.
///
/// Threads: the behaviour operations may run on any thread; all others one at a time, which the lock of a
/// route ensures for its handlers.
class Resource {
public:
    /// Properties of a resource, as bits. They are for the code that uses and derives resources; the library
    /// itself acts on none of them.
    enum class Behavior : std::uint32_t {
        /// Clients may not write or erase it.
        ReadOnly = 1U << 0,
        /// Clients may not read it, such as a key that is only ever replaced.
        WriteOnly = 1U << 1,
        /// It outlives the process.
        Persistent = 1U << 2,
        /// It changes by itself, as a sensor's value does, so that readers should not cache it.
        Volatile = 1U << 3,
        /// Its data must not appear in logs.
        Secret = 1U << 4,
    };

    virtual ~Resource() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Whether any of these bits is set.
    virtual bool has_behavior(const Behavior& behavior) const = 0;
    virtual void set_behavior(const Behavior& behavior) = 0;
    virtual void clear_behavior(const Behavior& behavior) = 0;

    /// How long the value stays valid after a write, for resources that expire.
    virtual void set_ttl(const slate::Duration& ttl) = 0;

    /// Where the resource logs; may be null.
    virtual std::shared_ptr<slate::Provider> provider() const = 0;

    /// The formats that it can be read in, best first; at least one.
    virtual std::vector<Format> formats() const = 0;

    /// Its name in logs, such as "network settings".
    virtual std::string name() const = 0;

    /// Whether writes take each chunk of a large body as it arrives; see Route.
    virtual bool supports_chunked_transfer() const = 0;

    /// Whether a read also computes the entity tag, so that etag() need not read again.
    virtual bool read_provides_etag() const = 0;

    /// The data, and the format that it is in: the one asked for, or one of its choice for `Any`.
    virtual std::pair<std::string, Format> read(const std::shared_ptr<slate::Dictionary>& params,
                                                Format format) const = 0;

    /// Reads in the format that matches `accept` best (the value of an "Accept" header) and passes the
    /// content to `sink`. If none matches, or `accept` is empty, it reads in the first of formats(). An empty
    /// sink throws std::bad_function_call.
    virtual void save_into(std::function<void(Content)> sink, std::string_view accept,
                           const std::shared_ptr<slate::Dictionary>& params) const = 0;

    virtual void write(const std::shared_ptr<slate::Dictionary>& params, const Format& format,
                       const std::string& data, const WritePolicy& policy) = 0;

    /// Writes the data from `source` in the format that `content_type` names (the value of a "Content-Type"
    /// header). If it names none, throws MessageException, status 415, without calling the source. An empty
    /// source throws std::bad_function_call.
    virtual void load_from(std::function<std::string()> source, std::string_view content_type,
                           const std::shared_ptr<slate::Dictionary>& params, const WritePolicy& policy) = 0;

    virtual void erase(const std::shared_ptr<slate::Dictionary>& params) = 0;

    /// The entity tag, equal for equal data, and the format of the data that it belongs to.
    virtual std::pair<std::string, Format> etag(const std::shared_ptr<slate::Dictionary>& params,
                                                Format format) const = 0;

    virtual bool exists(const std::shared_ptr<slate::Dictionary>& params) const = 0;
    /// The same for a revision, given as the parameter "rev".
    virtual bool exists(long revision) const = 0;

    /// In bytes, in that format.
    virtual std::size_t size(const std::shared_ptr<slate::Dictionary>& params,
                             const Format& format) const = 0;
};

constexpr Resource::Behavior operator|(Resource::Behavior a, Resource::Behavior b)
{
    return static_cast<Resource::Behavior>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}

/// The base class for resources: implements everything but formats, name and exists. Its read, write and
/// erase throw until they are overridden too. A class that overrides one `exists` needs `using
/// ResourceBase::exists;` for the other.
///
/// It can submit tasks to the process's work queue. Its destructor cancels unfinished tasks
/// (DeferredWork::cancelled) and waits for them, 5 s at most, but runs after the destructor of the derived
/// class: a task must own what it uses. It must neither access the resource nor own it, since the resource
/// would then wait for its own end.
class ResourceBase : public Resource {
public:
    /// `provider` is where the resource logs; the destructor removes it from the framework. May be null.
    explicit ResourceBase(std::shared_ptr<slate::Provider> provider);
    ~ResourceBase() override;
    ResourceBase(const ResourceBase&) = delete;
    ResourceBase& operator=(const ResourceBase&) = delete;

    bool has_behavior(const Behavior& behavior) const override;
    void set_behavior(const Behavior& behavior) override;
    void clear_behavior(const Behavior& behavior) override;
    /// Does nothing: the value stays valid.
    void set_ttl(const slate::Duration& ttl) override;
    std::shared_ptr<slate::Provider> provider() const override;
    /// False.
    bool supports_chunked_transfer() const override;
    /// False.
    bool read_provides_etag() const override;

    /// These three throw MessageException of status 501.
    std::pair<std::string, Format> read(const std::shared_ptr<slate::Dictionary>& params,
                                        Format format) const override;
    void write(const std::shared_ptr<slate::Dictionary>& params, const Format& format,
               const std::string& data, const WritePolicy& policy) override;
    void erase(const std::shared_ptr<slate::Dictionary>& params) override;

    /// Reads twice, the second time for the entity tag, unless etag is overridden.
    void save_into(std::function<void(Content)> sink, std::string_view accept,
                   const std::shared_ptr<slate::Dictionary>& params) const override;
    void load_from(std::function<std::string()> source, std::string_view content_type,
                   const std::shared_ptr<slate::Dictionary>& params, const WritePolicy& policy) override;

    /// The MD5 digest of the data in base 64. A format that is not one of formats(), nor `Any`, is status
    /// 415.
    std::pair<std::string, Format> etag(const std::shared_ptr<slate::Dictionary>& params,
                                        Format format) const override;

    using Resource::exists;
    bool exists(long revision) const override;
    /// Reads to find out.
    std::size_t size(const std::shared_ptr<slate::Dictionary>& params, const Format& format) const override;

protected:
    /// Submits a task (not null) to the process's work queue; see make_work. False, with a warning in the
    /// log, if no ZmqSubsystem has existed so far; later the resource keeps the queue that it found. Throws
    /// OverloadedException if the queue is full, and what the task threw if it has failed already.
    ///
    /// The submitter may poll the task's future and wait for it, but must not take the result out: this and
    /// later calls would throw std::future_error.
    bool submit_work(const std::shared_ptr<slate::DeferredWork>& work);

    /// Forgets the tasks that have finished, without waiting. Throws std::future_error if the result of one
    /// has been taken out.
    void clean_work();

    // Programs are compiled against the order of these fields: add new ones at the end.
    std::atomic<std::uint32_t> behavior_{0};
    /// Null until the first task.
    std::shared_ptr<slate::Lazy<slate::Queue>> queue_;
    /// Submitted, and not yet seen finished.
    std::vector<std::shared_ptr<slate::DeferredWork>> work_;
    std::shared_ptr<slate::Provider> provider_;

private:
    void end_work();
};
} // namespace tarn
