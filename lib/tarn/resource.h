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
/// What a resource gives to a reader: Resource::save_into hands it over.
struct Content {
    std::string data;
    /// Of the data, such as "application/json".
    std::string mime_type;
    /// Changes whenever the data does.
    std::string etag;
    /// As given to save_into.
    std::shared_ptr<slate::Dictionary> params;
};

/// Something stored that can be read, written and erased in one or more formats: a document, a table, a set
/// of settings. What the parameters select within it (a part, a revision) is up to each resource; they may be
/// null if it needs none.
///
/// A route of the application brings requests to it; ResourceBase is the base to derive from.
///
/// Errors: MessageException tells the status for a reply.
///
/// Threads: the operations of behaviour any; all others one at a time, as the handlers of one route are
/// called.
class Resource {
public:
    /// What a resource is like, in bits. For those who use and derive resources; the library itself acts on
    /// none of them.
    enum class Behavior : std::uint32_t {
        /// Writing and erasing are not for clients.
        ReadOnly = 1U << 0,
        /// Reading is not for clients, as for a key that is only ever replaced.
        WriteOnly = 1U << 1,
        /// Outlives the process.
        Persistent = 1U << 2,
        /// Changes by itself, as a sensor's value does, so that what was read is soon out of date.
        Volatile = 1U << 3,
        /// The data must not show in logs.
        Secret = 1U << 4,
    };

    virtual ~Resource() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Whether any of these bits is set.
    virtual bool has_behavior(const Behavior& behavior) const = 0;
    virtual void set_behavior(const Behavior& behavior) = 0;
    virtual void clear_behavior(const Behavior& behavior) = 0;

    /// How long the value stays good after a write, for resources that forget.
    virtual void set_ttl(const slate::Duration& ttl) = 0;

    /// Where the resource logs; may be null.
    virtual std::shared_ptr<slate::Provider> provider() const = 0;

    /// The formats that it can be read in, best first; at least one.
    virtual std::vector<Format> formats() const = 0;

    /// What it is called in logs, such as "network settings".
    virtual std::string name() const = 0;

    /// Whether writes take every chunk of a large body as it comes; see Route.
    virtual bool supports_chunked_transfer() const = 0;

    /// Whether a read finds out the entity tag on its way, so that etag() need not read again.
    virtual bool read_provides_etag() const = 0;

    /// The data, and the format that it is in: the one asked for, or one of its choice for `Any`.
    virtual std::pair<std::string, Format> read(const std::shared_ptr<slate::Dictionary>& params,
                                                Format format) const = 0;

    /// Reads in the format that suits `accept` best (the value of an "Accept" header) and hands the content
    /// to `sink`. If none suits, or `accept` is empty, that is the first of formats(): a reader gets what
    /// there is. An empty sink throws std::bad_function_call.
    virtual void save_into(std::function<void(Content)> sink, std::string_view accept,
                           const std::shared_ptr<slate::Dictionary>& params) const = 0;

    virtual void write(const std::shared_ptr<slate::Dictionary>& params, const Format& format,
                       const std::string& data, const WritePolicy& policy) = 0;

    /// Writes what `source` gives, in the format that `content_type` tells (the value of a "Content-Type"
    /// header). If it tells none, that is status 415, and nobody asks the source. An empty source throws
    /// std::bad_function_call.
    virtual void load_from(std::function<std::string()> source, std::string_view content_type,
                           const std::shared_ptr<slate::Dictionary>& params, const WritePolicy& policy) = 0;

    virtual void erase(const std::shared_ptr<slate::Dictionary>& params) = 0;

    /// The entity tag, equal for equal data, and the format of the data that it stands for.
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

/// A resource to derive from: does all but formats, name and exists, and reads, writes and erases nothing
/// until these are overridden too. A class that overrides one `exists` says `using ResourceBase::exists;` for
/// the other.
///
/// It can hand work to the process's queue. Its destructor asks works that are not finished to give up
/// (DeferredWork::cancelled) and waits for them, 5 s at most, but runs after that of the derived class: a
/// work must hold what it uses itself and not reach into the resource, nor hold the resource, which would
/// wait for its own end.
class ResourceBase : public Resource {
public:
    /// `provider`, where the resource logs, is taken out of the framework when the resource dies. May be
    /// null.
    explicit ResourceBase(std::shared_ptr<slate::Provider> provider);
    ~ResourceBase() override;
    ResourceBase(const ResourceBase&) = delete;
    ResourceBase& operator=(const ResourceBase&) = delete;

    bool has_behavior(const Behavior& behavior) const override;
    void set_behavior(const Behavior& behavior) override;
    void clear_behavior(const Behavior& behavior) override;
    /// Does nothing: the value stays good.
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
    /// Hands a work (not null) to the process's queue, and returns whether it did: false, with a warning in
    /// the log, if there has been no ZmqSubsystem so far. Once there was, the resource keeps its queue, and
    /// hands works to that even without a ZmqSubsystem. Throws OverloadedException if the queue is full, and
    /// what the work threw if it has failed already.
    ///
    /// Whoever submits may poll the work's future and wait for it, but must leave the result there: without
    /// it this and the next calls throw std::future_error.
    bool submit_work(const std::shared_ptr<slate::DeferredWork>& work);

    /// Forgets the works that have finished, and waits for none. Throws std::future_error if somebody has
    /// taken the future of one.
    void clean_work();

    // Programs are compiled against the order of these fields: add new ones at the end.
    std::atomic<std::uint32_t> behavior_{0};
    /// Null until the first work.
    std::shared_ptr<slate::Lazy<slate::Queue>> queue_;
    /// Handed over, and not yet seen finished.
    std::vector<std::shared_ptr<slate::DeferredWork>> work_;
    std::shared_ptr<slate::Provider> provider_;

private:
    void end_work();
};
} // namespace tarn
