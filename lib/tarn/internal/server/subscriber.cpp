// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/subscriber.h"

#include <algorithm>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/settings.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/request_bounds.h"

namespace tarn_internal {
namespace {
void unsubscribe(zmq::socket_t& socket, const std::string& topic)
{
    socket.set(zmq::sockopt::unsubscribe, topic);
}
} // namespace

Subscriber::Subscriber(const slate::Dictionary& settings, std::shared_ptr<MessageFactory> factory,
                       std::shared_ptr<slate::Provider> provider, const ServerCounters& counters,
                       RouteList& routes)
    : max_frame_bytes_(size_setting(settings, "max_frame_bytes")),
      factory_(std::move(factory)),
      provider_(std::move(provider)),
      counters_(counters),
      routes_(routes),
      pid_(factory_->finder()->my_pid())
{
}

bool Subscriber::init_publish_subscribe(zmq::socket_t& socket, const slate::Uri& uri)
{
    try {
        socket.connect(uri.to_string());
        slate::log_verbose(provider_, SLATE_HERE, "listen (pub/sub): ", uri.to_string());

        subscribed_topics_ = routes_.topics();
        if (subscribed_topics_.contains("")) {
            slate::log_debug(provider_, SLATE_HERE, "subscribing to everything");
            subscribe(socket, "");
            return true;
        }
        for (const std::string& topic : subscribed_topics_) {
            slate::log_debug(provider_, SLATE_HERE, "subscribing to ", topic);
            subscribe(socket, topic);
        }
        return true;
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, "failed to connect to ", uri.to_string(), "; ", error.what());
        return false;
    }
}

void Subscriber::handle_subscription_change(zmq::socket_t& socket)
{
    const auto before = std::exchange(subscribed_topics_, routes_.topics());
    const auto after = subscribed_topics_;
    const bool everything_before = before.contains("");
    const bool everything_after = after.contains("");

    if (everything_before && everything_after)
        return;
    if (everything_before) {
        for (const std::string& topic : after)
            subscribe(socket, topic);
        unsubscribe(socket, "");
        return;
    }
    if (everything_after) {
        subscribe(socket, "");
        for (const std::string& topic : before)
            unsubscribe(socket, topic);
        return;
    }
    for (const std::string& topic : before) {
        if (!after.contains(topic)) {
            slate::log_debug(provider_, SLATE_HERE, "unsubscribing from ", topic);
            unsubscribe(socket, topic);
        }
    }
    for (const std::string& topic : after) {
        if (!before.contains(topic)) {
            slate::log_debug(provider_, SLATE_HERE, "subscribing to ", topic);
            subscribe(socket, topic);
        }
    }
}

std::size_t Subscriber::handle_publish_subscribe(zmq::socket_t& socket)
{
    const zmq::message_t payload = receive(socket);
    if (const auto excess = find_excess(payload.data(), payload.size())) {
        slate::log_warn(provider_, SLATE_HERE, "dropped a published change: ", excess->text);
        counters_.dropped->increment();
        return payload.size();
    }
    // Not left to libzmq, whose bound would end the connection to the relay for good.
    if (max_frame_bytes_ && payload.size() > *max_frame_bytes_) {
        slate::log_warn(provider_, SLATE_HERE, "dropped a published change of ",
                        std::to_string(payload.size()), " bytes, more than \"max_frame_bytes\" allows");
        counters_.dropped->increment();
        return payload.size();
    }
    Context context;
    context.pid = pid_;
    try {
        if (!payload.empty())
            context.request.message = factory_->make_message(payload.data(), payload.size());
        handle(context);
    }
    catch (const Exception& error) {
        report(std::string("error: ") + error.what());
    }
    catch (const std::exception& error) {
        report(error.what());
    }
    catch (...) { // a handler may throw any type
        report("unknown exception");
    }
    return payload.size();
}

void Subscriber::report(std::string_view error) const
{
    slate::log_error(provider_, SLATE_HERE, error);
    counters_.err->increment();
}

void Subscriber::subscribe(zmq::socket_t& socket, const std::string& topic) const
{
    if (topic.size() > max_topic_bytes) {
        // The relay would close the connection, and with it all other topics.
        slate::log_error(provider_, SLATE_HERE, "not subscribing to a topic of ",
                         std::to_string(topic.size()),
                         " bytes, which no relay takes; the first segment of a path is too long");
        return;
    }
    socket.set(zmq::sockopt::subscribe, topic);
}

/// The frame behind the topic; empty if it is missing.
zmq::message_t Subscriber::receive(zmq::socket_t& socket)
{
    zmq::message_t payload;
    try {
        // Only the path in the message selects routes; ZeroMQ has used the topic for filtering.
        zmq::message_t topic;
        if (!receive_through_signals(socket, topic))
            slate::log_debug(provider_, SLATE_HERE, "pub/sub in socket recv; no topic");
        // Any peer can publish a single frame: waiting for its second one would block the server for good.
        if (topic.more() && !receive_frame(socket, payload))
            slate::log_debug(provider_, SLATE_HERE, "pub/sub in socket recv; no payload");
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, "pub/sub in socket recv error: ", error.what());
    }
    return payload;
}

void Subscriber::handle(Context& context)
{
    const auto& message = context.request.message;
    if (!message) {
        slate::log_error(provider_, SLATE_HERE, "request not initialized");
        counters_.err->increment();
        return;
    }
    if (!message->has_put() && !message->has_del()) {
        slate::log_error(provider_, SLATE_HERE, "not a put or del: ", context.request.to_string());
        counters_.err->increment();
        return;
    }
    if (!is_for_this_process(context.request.head()))
        return;

    const bool debug = slate::is_logging_allowed(slate::DebugLevel);
    if (debug)
        slate::log_debug(provider_, SLATE_HERE, "in: ", context.request.to_string());
    counters_.sub->increment();

    if (!routes_.invoke(context)) {
        if (debug)
            slate::log_debug(provider_, SLATE_HERE, "dropped: ", context.request.to_string());
        counters_.dropped->increment();
    }
}

bool Subscriber::is_for_this_process(const Head& head) const
{
    return head.to().empty() || std::any_of(head.to().begin(), head.to().end(),
                                            [&](const Identity& to) { return to.pid() == pid_; });
}
} // namespace tarn_internal
