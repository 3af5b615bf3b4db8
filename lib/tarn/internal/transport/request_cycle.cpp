// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/request_cycle.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <span>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/transport/explain_silence.h"
#include "tarn/internal/utils/counters.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/request_bounds.h"
#include "tarn/internal/utils/send.h"

namespace tarn_internal {
namespace {
/// Whether the socket has a peer to send to; sending would block without one.
bool is_writable(zmq::socket_t& socket)
{
    return (events_of(socket) & ZMQ_POLLOUT) != 0;
}

bool wait_until_writable(zmq::socket_t& socket, const slate::Duration& timeout)
{
    zmq::pollitem_t items[] = {{socket.handle(), 0, ZMQ_POLLOUT, 0}};
    poll_for(items, timeout);
    return (items[0].revents & ZMQ_POLLOUT) != 0;
}

/// Whether a reply arrived within that time, which `stop` may cut short.
bool is_readable(zmq::socket_t& socket, const slate::Duration& timeout, zmq::socket_t* stop)
{
    const slate::StopWatch watch(true);
    zmq::pollitem_t items[] = {{socket.handle(), 0, ZMQ_POLLIN, 0},
                               {stop ? stop->handle() : nullptr, 0, ZMQ_POLLIN, 0}};
    poll_for(std::span(items).first(stop ? 2 : 1), timeout);
    if ((items[0].revents & ZMQ_POLLIN) == 0 && stop && (items[1].revents & ZMQ_POLLIN) != 0) {
        const auto rest = std::min(timeout - slate::Microseconds(watch.elapsed()), default_timeout());
        poll_for(std::span(items).first(1), rest);
    }
    return (items[0].revents & ZMQ_POLLIN) != 0;
}

/// For one wait on a condition; the standard library's arithmetic overflows near its largest time.
std::chrono::nanoseconds to_chrono(const slate::Duration& time)
{
    return std::chrono::nanoseconds(std::min(time, slate::Duration(std::chrono::hours(1))).to_nanoseconds());
}
} // namespace

/// How long a call may still wait: `retries` + 1 waits of `timeout` each, less the time until its turn.
class RequestCycle::Patience {
public:
    Patience(const slate::Duration& timeout, unsigned int retries)
        : timeout_(timeout),
          all_waits_(retries + 1ULL),
          waits_(all_waits_)
    {
    }

    /// What all waits make together.
    slate::Duration whole() const
    {
        slate::Duration time = timeout_;
        for (unsigned long long i = 1; i < std::min(all_waits_, 1000ULL) && !time.is_positive_infinity(); ++i)
            time += timeout_;
        return time;
    }

    bool is_last_wait() const { return waits_ <= 1; }

    /// How long the next wait may last.
    slate::Duration next_wait() const
    {
        return std::max(timeout_ - spent_, slate::Duration(slate::Seconds(0)));
    }

    /// The next wait is over. False if it was the last one.
    bool use_wait()
    {
        spent_ = slate::Seconds(0);
        return --waits_ > 0;
    }

    /// Takes time off the next wait, of which at least nothing is left.
    void shorten_wait(const slate::Duration& time) { spent_ = std::min(spent_ + time, timeout_); }

    /// Takes time off the waits that are left. False if nothing is left.
    bool spend(const slate::Duration& time)
    {
        if (timeout_ <= slate::Duration(slate::Seconds(0)))
            waits_ = 0; // however many there are, they make nothing together
        spent_ += time;
        while (waits_ > 0 && spent_ >= timeout_) {
            spent_ -= timeout_;
            --waits_;
        }
        return waits_ > 0;
    }

private:
    const slate::Duration timeout_;
    const unsigned long long all_waits_;
    unsigned long long waits_;
    slate::Duration spent_ = slate::Seconds(0); // of the next wait
};

/// The right to use the socket, which one call has at a time.
class RequestCycle::Turn {
public:
    Turn(RequestCycle& cycle, Patience& patience) : cycle_(cycle)
    {
        std::unique_lock lock(cycle_.mutex_);
        while (cycle_.busy_) {
            const slate::StopWatch watch(true);
            cycle_.idle_.wait_for(lock, to_chrono(patience.next_wait()));
            if (!patience.spend(slate::Microseconds(watch.elapsed()))) {
                if (!cycle_.busy_) // the notification may have been meant for this call
                    cycle_.idle_.notify_one();
                return;
            }
        }
        taken_ = cycle_.busy_ = true;
    }
    ~Turn()
    {
        if (!taken_)
            return;
        const std::lock_guard lock(cycle_.mutex_);
        cycle_.busy_ = false;
        cycle_.idle_.notify_one();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    bool taken() const { return taken_; }

private:
    RequestCycle& cycle_;
    bool taken_ = false;
};

template <class... Pieces>
void RequestCycle::log_failure(slate::SourceLine line, const Pieces&... pieces) const
{
    if (options_.failure_level == slate::ErrorLevel)
        slate::log_error(provider_, line, pieces...);
    else
        slate::log_verbose(provider_, line, pieces...);
}

int next_client_instance()
{
    static std::atomic<int> instance{0};
    return instance++;
}

RequestCycle::RequestCycle(const std::string& name, int instance, std::shared_ptr<zmq::context_t> context,
                           Endpoint uri, unsigned int retries, std::shared_ptr<MessageFactory> factory,
                           const Options& options)
    : context_(std::move(context)),
      uri_(std::move(uri)),
      retries_(retries),
      factory_(factory ? std::move(factory) : make_message_factory()),
      options_(options),
      is_secret_(options.is_secret || hidden_payload(uri_->to_string())),
      provider_(name, instance),
      err_(add_error_counter(*provider_, "err")),
      rx_(add_counter(*provider_, "rx")),
      tx_(add_counter(*provider_, "tx"))
{
    try {
        socket_ = create_socket();
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, "failed to create socket: ", error.what());
        throw;
    }
}

RequestCycle::RequestCycle(const std::string& name, int instance, std::shared_ptr<zmq::context_t> context,
                           Endpoint uri, unsigned int retries, std::shared_ptr<MessageFactory> factory)
    : RequestCycle(name, instance, std::move(context), std::move(uri), retries, std::move(factory), Options())
{
}

RequestCycle::~RequestCycle() = default;

std::shared_ptr<Reply> RequestCycle::read_reply(const Message& message, const slate::Duration& timeout,
                                                zmq::socket_t* stop)
{
    // A POST gets a single wait.
    Patience patience(timeout, message.has_post() ? 0 : retries_);
    const Turn turn(*this, patience);
    if (!turn.taken()) {
        log_failure(SLATE_HERE,
                    "request timeout; other requests are under way, nothing sent: ", describe(message));
        return make_reply(LocalCause::TooMany, "other requests were under way for " +
                                                   to_readable_text(patience.whole()) +
                                                   ", nothing was sent to " + uri_->to_string());
    }
    try {
        return exchange(message, patience, stop);
    }
    catch (const zmq::error_t& error) {
        log_failure(SLATE_HERE, error.what(), ", request: ", describe(message));
        err_->increment();
        // Its state is unknown: a socket that has sent and not received would refuse every further request.
        socket_.reset();
        return make_reply(LocalCause::SocketFailed,
                          std::string("the socket to ") + uri_->to_string() + " failed: " + error.what());
    }
}

std::shared_ptr<Reply> RequestCycle::exchange(const Message& message, Patience& patience, zmq::socket_t* stop)
{
    if (!socket_)
        socket_ = create_socket();
    if (!is_writable(*socket_)) {
        const slate::StopWatch watch(true);
        if (!wait_until_writable(*socket_, patience.next_wait())) {
            // The socket has no peer, as after the end of an inproc server; only a new socket can connect to
            // the next one.
            socket_.reset();
            return fail_to_send(message, LocalCause::NoSuchEndpoint, "nobody serves " + uri_->to_string());
        }
        patience.shorten_wait(slate::Microseconds(watch.elapsed()));
    }
    auto frame = to_frame(message);
    if (!frame)
        return fail_to_send(message, LocalCause::TooLarge, "the request is larger than 2 GiB");
    if (!send_frame(*socket_, *frame, provider_))
        return fail_to_send(message, LocalCause::SocketFailed,
                            "the socket to " + uri_->to_string() + " took nothing");
    tx_->increment();

    // Waits again but never sends again: the server may be at work on the first request, and a PUT must not
    // happen twice.
    for (bool has_sent = true;; has_sent = false) {
        Silence silence;
        if (auto reply = wait_for_reply(message, patience, has_sent, stop, silence)) {
            rx_->increment();
            return reply;
        }
        socket_ = create_socket();
        if (!patience.use_wait())
            return make_reply(silence.cause, silence.text);
    }
}

std::string RequestCycle::describe(const Message& message) const
{
    return tarn_internal::describe(message, is_secret_);
}

std::shared_ptr<Reply> RequestCycle::fail_to_send(const Message& message, LocalCause cause,
                                                  const std::string& why)
{
    log_failure(SLATE_HERE, "send failed: ", describe(message), "; " + why);
    err_->increment();
    return make_reply(cause, why);
}

/// One wait on one socket. Null if no reply arrived; after the last wait `silence` tells why.
std::shared_ptr<Reply> RequestCycle::wait_for_reply(const Message& message, const Patience& patience,
                                                    bool has_sent, zmq::socket_t* stop,
                                                    Silence& silence) const
{
    try {
        zmq::message_t frame;
        const auto time = patience.next_wait();
        // A socket that hasn't sent refuses to receive, but can be polled.
        const bool received = has_sent && !stop
                                  ? receive_within(*socket_, frame, time)
                                  : is_readable(*socket_, time, stop) && receive_frame(*socket_, frame);
        if (received)
            return std::make_shared<Reply>(parse_reply(frame));
        if (patience.is_last_wait())
            silence = explain_silence(uri_, patience.whole());
        log_failure(SLATE_HERE, "request timeout; no reply to ", describe(message),
                    silence.text.empty() ? "" : "; " + silence.text);
    }
    catch (const zmq::error_t& error) {
        log_failure(SLATE_HERE, error.what(), "; request: ", describe(message));
        silence = {LocalCause::NoAnswerInTime, "no answer from " + uri_->to_string() + ": " + error.what()};
    }
    return nullptr;
}

/// Null if it doesn't parse, or isn't to be parsed.
std::shared_ptr<Message> RequestCycle::parse_reply(const zmq::message_t& frame) const
{
    if (options_.refuses_excess) {
        if (const auto excess = find_excess(frame.data(), frame.size())) {
            slate::log_error(provider_, SLATE_HERE, "the reply of ", uri_->to_string(), " has ",
                             excess->text);
            return nullptr;
        }
    }
    return factory_->make_message(frame.data(), frame.size());
}

std::unique_ptr<zmq::socket_t> RequestCycle::create_socket() const
{
    auto socket = std::make_unique<zmq::socket_t>(*context_, zmq::socket_type::req);
    if (options_.max_reply_bytes >= 0)
        socket->set(zmq::sockopt::maxmsgsize, options_.max_reply_bytes);
    socket->connect(uri_->to_string());
    slate::log_extreme(provider_, SLATE_HERE, "Connect: ", uri_->to_string());
    // Closing drops an unsent request at once.
    socket->set(zmq::sockopt::linger, 0);
    return socket;
}

std::shared_ptr<Reply> RequestCycle::make_reply(LocalCause cause, const std::string& why) const
{
    auto reply = std::make_shared<Reply>(factory_->make_response(Status::RequestTimeout), cause);
    reply->set_status(Status::RequestTimeout, why);
    return reply;
}
} // namespace tarn_internal
