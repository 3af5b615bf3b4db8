// SPDX-License-Identifier: Apache-2.0
#include "tarn/publisher.h"

#include <atomic>
#include <cstdint>
#include <istream>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include <zmq.hpp>

#include "slate/file.h"
#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/exception.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/server/server_loop.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/transport/explain_silence.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/internal/utils/counters.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/internal/utils/handshake.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/internal/utils/parse.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"
#include "tarn/message_factory.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
constexpr int linger_milliseconds = 250;

/// The reason why a message can't be published; empty if it can.
std::string_view why_unpublishable(const std::shared_ptr<Message>& message)
{
    if (!message)
        return "Unable to put message, nullptr";
    if (!message->has_put() && !message->has_del())
        return "Unable to send message, not a put or del";

    const std::string path = Request(message).path();
    if (message->has_put()) {
        if (path.empty())
            return "Unable to put message, missing path";
        return path.front() == '/' ? "" : "Unable to put message; path needs to start with '/'";
    }
    if (path.empty())
        return "Unable to del message, missing path";
    return path.front() == '/' ? "" : "Unable to del message; path needs to start with '/'";
}

class PublisherImpl : public Publisher {
public:
    /// Binds without `stats_endpoint`, else connects and proves the connection: eleven times, or, with a
    /// `limit`, within that time and without a line in the log for each attempt.
    PublisherImpl(const tarn_internal::Runtime& runtime, const Endpoint& endpoint,
                  const slate::Duration& timeout, unsigned int retries, const Endpoint& stats_endpoint,
                  const std::shared_ptr<MessageFactory>& factory, const std::optional<slate::Duration>& limit)
        : context_(runtime.context),
          timeout_(timeout),
          factory_(factory ? factory : make_message_factory()),
          uri_(endpoint),
          uuid_(slate::make_uuid().to_string()),
          provider_("zmq.publisher", instance++),
          err_(tarn_internal::add_error_counter(*provider_, "err")),
          tx_(tarn_internal::add_counter(*provider_, "tx")),
          connect_(tarn_internal::add_counter(*provider_, "connect")),
          connect_error_(tarn_internal::add_error_counter(*provider_, "connect_error")),
          socket_(*context_, zmq::socket_type::pub),
          has_limit_(limit.has_value()),
          statistics_(make_statistics_client(stats_endpoint, retries)),
          listener_(context_, slate::make_uri("inproc://" + slate::make_uuid().to_string()))
    {
        tarn_internal::limit_subscriptions(socket_, statistics_
                                                        ? tarn_internal::max_relayed_subscription_bytes
                                                        : tarn_internal::max_subscription_bytes);
        // Its one peer is the relay, so the socket can say that the queue is full. With several, one that
        // doesn't read would stop the others.
        if (tarn_internal::set_high_water_mark(socket_, *runtime.settings) && statistics_)
            socket_.set(zmq::sockopt::xpub_nodrop, true);
        if (statistics_)
            socket_.connect(uri_->to_string());
        else {
            tarn_internal::bind_when_free(socket_, *uri_);
            tarn_internal::set_socket_access_as_told(uri_, *runtime.settings);
        }
        socket_.set(zmq::sockopt::linger, linger_milliseconds);
        listener_.start("tarn-publisher", [this, events = socket_.get(zmq::sockopt::fd)] { listen(events); });
        if (statistics_ && limit)
            ensure_connection(tarn_internal::AttemptsWithin(*limit));
        else if (statistics_)
            ensure_connection(tarn_internal::ElevenAttempts(timeout_));
    }

    Endpoint url() const override { return uri_; }

    std::shared_ptr<Reply> put(const std::string_view& path, const std::string& body,
                               const Headers& headers) override
    {
        return put(factory_->make_put(path, body, headers, default_timeout()));
    }

    std::shared_ptr<Reply> put(const std::string_view& path, std::istream& body,
                               const Headers& headers) override
    {
        return put(factory_->make_put(path, slate::slurp(body), headers, default_timeout()));
    }

    std::shared_ptr<Reply> del(const std::string_view& path, const Headers& headers) override
    {
        return put(factory_->make_del(path, headers, default_timeout()));
    }

    std::shared_ptr<Reply> send(const Request& request) override { return put(request.message); }

private:
    /// Checks and publishes a put or a delete.
    std::shared_ptr<Reply> put(const std::shared_ptr<Message>& message)
    {
        if (const std::string_view fault = why_unpublishable(message); !fault.empty()) {
            slate::log_error(provider_, SLATE_HERE, fault);
            return make_reply(Status::BadRequest, LocalCause::InvalidRequest);
        }
        auto reply = publish(*message);
        if (reply->good())
            tx_->increment();
        return reply;
    }

    std::shared_ptr<Reply> publish(Message& message)
    {
        Head* head = tarn_internal::find_or_make_head(message);
        head->mutable_from()->set_tag(uuid_);
        if (!send_frames(tarn_internal::to_topic(head->path()), message)) {
            slate::log_error(provider_, SLATE_HERE, "Failed to send the message");
            err_->increment();
            return make_reply(Status::RequestTimeout, LocalCause::SocketFailed);
        }
        if (slate::is_logging_allowed(slate::ExtremeLevel))
            slate::log_extreme(provider_, SLATE_HERE, "sent: ", to_string(message));
        return make_reply(Status::Ok, LocalCause::None);
    }

    /// False if the socket's queue is full, or the message can't be serialised.
    bool send_frames(const std::string& topic, const Message& message)
    {
        // Serialised before the topic is sent: a topic without its payload would swallow the next message.
        auto payload = tarn_internal::to_frame(message);
        if (!payload)
            return false;
        zmq::message_t topic_frame(topic.data(), topic.size());

        // One lock for both frames: another thread's frame between them would be taken for our message.
        const std::lock_guard lock(mutex_);
        return send_frame(topic_frame, ZMQ_SNDMORE) && send_frame(*payload, 0);
    }

    bool send_frame(zmq::message_t& frame, int flags)
    {
        return tarn_internal::send_frame(socket_, frame, flags | ZMQ_DONTWAIT, "dropped message", provider_);
    }

    /// Takes subscriptions off the socket as they come, which the socket itself does only while it is used.
    /// While nothing is published, those of subscribers that come and go would fill its queue, and later ones
    /// would be lost for good: the publisher would never send them anything.
    void listen(int events)
    {
        zmq::socket_t control(*context_, zmq::socket_type::sub);
        if (!tarn_internal::connect_control(control, listener_.endpoint(), provider_))
            return;
        tarn_internal::run_passes(provider_, *err_, [&] {
            zmq::pollitem_t items[] = {{control.handle(), 0, ZMQ_POLLIN, 0},
                                       {nullptr, events, ZMQ_POLLIN, 0}};
            tarn_internal::poll_for(items, slate::Duration::positive_infinity());
            if ((items[0].revents & ZMQ_POLLIN) != 0) // whatever it says
                return false;
            if (items[1].revents != 0) {
                const std::lock_guard lock(mutex_);
                (void)socket_.get(zmq::sockopt::events); // asking is what makes the socket look
            }
            return true;
        });
    }

    std::unique_ptr<tarn_internal::RequestCycle> make_statistics_client(const Endpoint& endpoint,
                                                                        unsigned int retries) const
    {
        if (!endpoint)
            return nullptr;
        return std::make_unique<tarn_internal::RequestCycle>(
            "zmq.client", tarn_internal::next_client_instance(), context_, endpoint, retries, factory_,
            tarn_internal::RequestCycle::Options{.failure_level =
                                                     has_limit_ ? slate::VerboseLevel : slate::ErrorLevel});
    }

    /// Publishes probes until the relay's statistics show them. Throws if they never do.
    void ensure_connection(tarn_internal::Schedule&& schedule)
    {
        const slate::StopWatch watch(true);
        unsigned int seen = 0;
        std::shared_ptr<const Reply> last;
        while (const auto attempt = schedule.next()) {
            std::this_thread::sleep_for(std::chrono::nanoseconds(attempt->pause.to_nanoseconds()));
            const auto probe = factory_->make_put("relay?format=text", "hi", nullptr, timeout_);
            if (!probe)
                continue;
            (void)publish(*probe);
            const auto request = factory_->make_get("/relay/stats", nullptr, attempt->patience);
            if (!request)
                continue;
            last = statistics_->read_reply(*request, attempt->patience);
            if (last->good() && shows_movement(*last, seen)) {
                connect_->increment();
                return;
            }
        }
        connect_error_->increment();
        give_up(last.get(), slate::Microseconds(watch.elapsed()));
    }

    [[noreturn]] void give_up(const Reply* last, const slate::Duration& time) const
    {
        const char* const failed = "failed to connect to the relay";
        const std::string cause = explain_failure(last);
        if (has_limit_) {
            const std::string within = tarn_internal::to_readable_text(time) + ": " + cause;
            throw std::runtime_error(slate::trace_error(provider_, SLATE_HERE, failed, " within ", within));
        }
        const std::string text = slate::trace_error(provider_, SLATE_HERE, failed);
        slate::log_error(provider_, SLATE_HERE, cause);
        throw std::runtime_error(text);
    }

    /// Why the last attempt failed.
    std::string explain_failure(const Reply* last) const
    {
        if (!last)
            return "no message could be made";
        const std::string at = statistics_->uri()->to_string();
        const auto with = [](const std::string& text) { return text.empty() ? text : ": " + text; };
        if (last->is_local())
            return "nobody answers for its statistics at " + at +
                   with(tarn_internal::find_cause(statistics_->uri()).second);
        if (last->bad() || !last->has_body())
            return "there are no statistics of a relay at " + at + with(last->why());
        return "its statistics at " + at + " don't show what was sent to " + uri_->to_string() +
               with(explain_relay_in());
    }

    /// Whether the relay can be reached where the publisher sends to it.
    std::string explain_relay_in() const
    {
        const auto [cause, text] = tarn_internal::find_cause(uri_);
        return cause == LocalCause::NoAnswerInTime ? "" : text;
    }

    std::shared_ptr<const Stats> read_statistics(const Reply& reply) const
    {
        if (!has_limit_)
            return reply.as<Stats>();
        if (!reply.has_body())
            return nullptr;
        try {
            return std::make_shared<Stats>(reply.into<Stats>());
        }
        catch (const SerdesException& error) {
            slate::log_verbose(provider_, SLATE_HERE, error.what());
            return nullptr;
        }
    }

    /// Whether the relay's count for this publisher has changed since the last look.
    bool shows_movement(const Reply& reply, unsigned int& seen) const
    {
        const auto stats = read_statistics(reply);
        if (!stats)
            return false;
        for (const Stat& stat : stats->stat()) {
            if (stat.id().tag() == uuid_) {
                const unsigned int before =
                    std::exchange(seen, static_cast<unsigned int>(stat.total_packets()));
                return before != seen;
            }
        }
        return false;
    }

    std::shared_ptr<Reply> make_reply(Status status, LocalCause cause) const
    {
        return std::make_shared<Reply>(factory_->make_response(status), cause);
    }

    static std::atomic<int> instance;

    std::mutex mutex_; // guards socket_, and keeps the two frames of a message together on it
    const std::shared_ptr<zmq::context_t> context_;
    const slate::Duration timeout_;
    const std::shared_ptr<MessageFactory> factory_;
    const Endpoint uri_;
    const std::string uuid_;
    const tarn_internal::OwnedProvider provider_;
    const std::shared_ptr<slate::Counter> err_;
    const std::shared_ptr<slate::Counter> tx_;
    const std::shared_ptr<slate::Counter> connect_;
    const std::shared_ptr<slate::Counter> connect_error_;
    zmq::socket_t socket_;
    const bool has_limit_;
    const std::unique_ptr<tarn_internal::RequestCycle> statistics_; // null for a publisher that binds
    tarn_internal::ControlledThread listener_;                      // last, as it uses socket_
};

std::atomic<int> PublisherImpl::instance{0};
std::shared_ptr<Publisher> make(const Endpoint& endpoint, const Endpoint& stats_endpoint,
                                const slate::Duration& timeout, unsigned int retries,
                                const std::shared_ptr<MessageFactory>& factory,
                                const std::optional<slate::Duration>& limit)
{
    const auto runtime = tarn_internal::find_runtime("make_publisher");
    if (!runtime)
        return nullptr;
    const Endpoint at = endpoint ? endpoint : relay_sub_sock(runtime->settings);
    const Endpoint stats_at = endpoint ? stats_endpoint : relay_zmq_sock(runtime->settings);
    // Without a statistics endpoint the publisher would bind, and so take over the relay's own endpoint.
    if (!at || (!endpoint && !stats_at)) {
        slate::log_error(SLATE_HERE, "cannot make_publisher, a relay setting is not an endpoint");
        return nullptr;
    }
    tarn_internal::log_endpoint_fault("make_publisher", at);
    tarn_internal::log_endpoint_fault("make_publisher", stats_at);
    return std::make_shared<PublisherImpl>(*runtime, at, timeout, retries, stats_at, factory, limit);
}
} // namespace

std::shared_ptr<Publisher> make_publisher(const Endpoint& endpoint, const slate::Duration& timeout,
                                          unsigned int retries, const Endpoint& stats_endpoint,
                                          const std::shared_ptr<MessageFactory>& factory)
{
    return make(endpoint, stats_endpoint, timeout, retries, factory, std::nullopt);
}

std::shared_ptr<Publisher> make_publisher(const PublisherOptions& options)
{
    return make(options.endpoint, options.stats_endpoint, options.timeout, 0, options.factory,
                options.timeout);
}
} // namespace tarn
