// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/channel.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/async/callbacks.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/explain_silence.h"
#include "tarn/internal/utils/counters.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/internal/utils/message_text.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"
#include "tarn/internal/utils/thread_sanitizer.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/status.pb.h"

namespace tarn_internal {
namespace {
using Clock = IoThread::Clock;

/// How many requests libzmq may hold that the server doesn't read: few, since they can't be taken back when
/// their time is over, and enough to keep a server busy.
constexpr int send_queue = 64;
/// For inproc, where the server's queue comes on top of it; see Channel.
constexpr int inproc_send_queue = 1;
/// How many messages are received before anything else is done, and how often before other clients' turn.
constexpr std::size_t max_batch = 128;
constexpr int max_rounds = 8;
/// From this size on, whether there is room is asked first: making a frame in vain is dear.
constexpr std::size_t large_bytes = 64 * 1024;
/// How many ended calls a list may hold for each one in flight, and in any case.
constexpr std::size_t max_ended_share = 2;
constexpr std::size_t min_ended = 64;

/// Nothing of a connection that was lost may reach whoever serves there next.
constexpr std::chrono::milliseconds nothing_leaves{0};
/// libzmq (session_base_t::clean_pipes) aborts the process if it drops a message of several frames that it
/// has begun to write, and the peer goes in that moment. What a stalled peer doesn't take in this time is
/// dropped.
constexpr std::chrono::milliseconds time_to_leave{250};

int next_instance()
{
    static std::atomic<int> instance{0};
    return instance++;
}

Clock::time_point deadline_after(const slate::Duration& timeout)
{
    // Nobody waits for a century, and a point in time that far ahead can still be told.
    constexpr std::chrono::hours longest{24 * 365 * 100};
    if (timeout > slate::Duration(longest))
        return Clock::time_point::max();
    return Clock::now() + std::chrono::nanoseconds(timeout.to_nanoseconds());
}

/// What is left, for "ttl": whole milliseconds if there are any.
slate::Duration time_until(Clock::time_point deadline, Clock::time_point now)
{
    if (deadline == Clock::time_point::max())
        return slate::Duration::positive_infinity();
    const auto rest = deadline - now;
    const auto whole = std::chrono::floor<std::chrono::milliseconds>(rest);
    return whole.count() > 0 ? slate::Duration(whole) : slate::Duration(rest);
}

void set_ttl(Message& message, const slate::Duration& ttl)
{
    Head* head = find_or_make_head(message);
    if (!head)
        return;
    for (KeyValue& entry : *head->mutable_meta()) {
        if (entry.key() == "ttl") {
            entry.set_value(ttl.to_string(0));
            return;
        }
    }
    KeyValue* entry = head->add_meta();
    entry->set_key("ttl");
    entry->set_value(ttl.to_string(0));
}
} // namespace

ClientParts make_client_parts(const std::shared_ptr<IoThread>& io, slate::Provider& provider,
                              const AsyncClientOptions& options)
{
    auto too_many = add_warning_counter(provider, "too_many");
    return {std::make_shared<Callbacks>(io, options.executor, add_warning_counter(provider, "inline")),
            std::make_shared<CallLimit>(options.max_in_flight, std::move(too_many))};
}

ChannelCall::ChannelCall(std::shared_ptr<Callbacks> callbacks, const std::shared_ptr<Channel>& channel,
                         std::shared_ptr<Message> sent_message, const slate::Duration& call_timeout,
                         CallPlace place)
    : Call(callbacks),
      timeout(call_timeout),
      deadline(deadline_after(call_timeout)),
      message(std::move(sent_message)),
      io_(callbacks->io()),
      channel_(channel),
      place_(std::move(place))
{
}

void ChannelCall::cancel()
{
    if (!complete(Status::RequestTimeout, LocalCause::Cancelled, "the request was cancelled"))
        return;
    // The channel knows it still, and would keep it until its time is over.
    if (const auto channel = channel_.lock())
        io_->withdraw(channel, std::static_pointer_cast<ChannelCall>(shared_from_this()));
}

void ChannelCall::cancel_when(const std::stop_token& stop)
{
    if (!stop.stop_possible())
        return;
    on_stop_.emplace(stop, [weak = weak_from_this()] {
        if (const auto call = weak.lock())
            call->cancel();
    });
}

void ChannelCall::release()
{
    place_.leave();
}

Channel::Channel(std::shared_ptr<IoThread> io, Endpoint endpoint, const AsyncClientOptions& options,
                 const std::optional<ClientParts>& parts)
    : io_(std::move(io)),
      endpoint_(std::move(endpoint)),
      is_inproc_(slate::equals_ignoring_case(endpoint_->scheme(), "inproc")),
      secret_(hidden_payload(endpoint_->to_string())),
      factory_(options.factory ? options.factory : make_message_factory()),
      provider_("zmq.async_client", next_instance()),
      err_(add_error_counter(*provider_, "err")),
      rx_(add_counter(*provider_, "rx")),
      tx_(add_counter(*provider_, "tx")),
      dropped_(add_counter(*provider_, "dropped")),
      parts_(parts ? *parts : make_client_parts(io_, *provider_, options))
{
}

Channel::~Channel() = default;

Pending Channel::start(std::shared_ptr<Message> message, const CallOptions& options, CallPlace place,
                       Call::Finish finish)
{
    const auto self = shared_from_this();
    const auto call = std::make_shared<ChannelCall>(parts_.callbacks, self, std::move(message),
                                                    options.timeout, std::move(place));
    if (finish)
        call->finish_with(std::move(finish));
    if (io_->submit(self, call)) {
        call->cancel_when(options.stop);
    }
    else {
        call->message.reset();
        call->complete(Status::RequestTimeout, LocalCause::Ended, "the ZmqSubsystem has ended");
    }
    return Pending(call);
}

void Channel::open()
{
    open_sockets();
    io_->add(shared_from_this());
}

void Channel::open_sockets()
{
    try {
        socket_ = std::make_unique<zmq::socket_t>(io_->context(), zmq::socket_type::dealer);
        limit_frames(*socket_, io_->settings());
        socket_->set(zmq::sockopt::sndhwm, is_inproc_ ? inproc_send_queue : send_queue);
        if (!is_inproc_) {
            const std::string events = "inproc://" + slate::make_uuid().to_string();
            if (zmq_socket_monitor(socket_->handle(), events.c_str(),
                                   ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED) != 0)
                throw zmq::error_t();
            monitor_ = std::make_unique<zmq::socket_t>(io_->context(), zmq::socket_type::pair);
            monitor_->set(zmq::sockopt::linger, 0);
            monitor_->connect(events);
            io_->watch(monitor_->get(zmq::sockopt::fd), *this);
        }
        io_->watch(socket_->get(zmq::sockopt::fd), *this);
        socket_->connect(endpoint_->to_string());
        slate::log_extreme(provider_, SLATE_HERE, "Connect: ", endpoint_->to_string());
    }
    catch (const std::exception& error) {
        slate::log_error(provider_, SLATE_HERE, "failed to create socket: ", error.what());
        close_sockets(nothing_leaves);
        throw;
    }
    was_open_ = true;
    connected_ = is_inproc_;
    ending_ = false;
    inproc_served_ = false;
    sent_on_socket_ = 0;
}

/// `linger` says how long what the socket holds may still leave.
void Channel::close_sockets(std::chrono::milliseconds linger) noexcept
{
    if (monitor_) {
        io_->unwatch(monitor_->get(zmq::sockopt::fd));
        (void)zmq_socket_monitor(socket_->handle(), nullptr, 0);
        monitor_.reset();
    }
    if (socket_) {
        io_->unwatch(socket_->get(zmq::sockopt::fd));
        const int milliseconds = static_cast<int>(linger.count());
        (void)zmq_setsockopt(socket_->handle(), ZMQ_LINGER, &milliseconds, sizeof milliseconds);
        socket_.reset();
    }
}

void Channel::close()
{
    if (std::exchange(closed_, true))
        return;
    close_sockets(time_to_leave);
    io_->remove(*this);
    end_calls(false, Status::RequestTimeout, LocalCause::Ended, "the client has ended");
    waiting_.clear();
    due_.clear();
}

void Channel::accept(const std::shared_ptr<ChannelCall>& call)
{
    if (closed_) {
        end_call(*call, LocalCause::Ended, "the client has ended");
        call->message.reset();
        return;
    }
    try {
        io_->add(shared_from_this());
        call->number = ++last_number_;
        calls_.emplace(call->number, call);
        waiting_.push_back(call);
        if (call->deadline != Clock::time_point::max()) {
            due_.push_back({call->deadline, call->number});
            std::push_heap(due_.begin(), due_.end());
        }
    }
    catch (const std::bad_alloc&) {
        end_call(*call, LocalCause::SocketFailed, "out of memory");
        forget(*call);
        throw;
    }
}

void Channel::withdraw(ChannelCall& call)
{
    forget(call);
}

/// A caller may keep a call that has ended for long; its request may be large.
void Channel::forget(ChannelCall& call)
{
    call.message.reset();
    const auto number = call.number;
    calls_.erase(number); // at last: it may hold the call
}

Clock::time_point Channel::next_deadline() const
{
    return due_.empty() ? Clock::time_point::max() : due_.front().deadline;
}

bool Channel::serve()
{
    if (closed_)
        return false;
    bool has_more = false;
    try {
        drop_ended();
        expire();
        has_more = serve_socket();
    }
    catch (const std::exception& error) { // a socket that broke, or out of memory
        fail(error.what());
    }
    forget_deadlines();
    return has_more;
}

bool Channel::serve_socket()
{
    if (!socket_ && !waiting_.empty())
        open_sockets();
    for (int round = 0; socket_ && round < max_rounds; ++round) {
        if (!serve_round())
            return false;
    }
    return socket_ != nullptr;
}

/// One look at everything. True if there is more to do at once.
bool Channel::serve_round()
{
    const bool was_ending = ending_;
    const bool has_more = receive();
    if (!is_inproc_ && !read_monitor()) {
        // What was received may come from a new connection, which can't answer what was sent before.
        for (std::size_t i = 0; i < incoming_.size(); ++i)
            dropped_->increment();
        incoming_.clear();
        lose_connection();
        return true;
    }
    deliver();
    // What had arrived before the connection ended has been received by now.
    if (was_ending && !has_more) {
        lose_connection();
        return true;
    }
    const bool has_sent = send_waiting();
    if (has_more || ending_)
        return true;
    if (!is_inproc_ && !has_sent)
        return false;
    // Sending may have taken the signal that something has come, which nothing would wake us for again.
    const int events = socket_->get(zmq::sockopt::events);
    if (is_inproc_ && has_lost_inproc_peer(events)) {
        lose_connection();
        return true;
    }
    return (events & ZMQ_POLLIN) != 0 || (connected_ && !waiting_.empty() && (events & ZMQ_POLLOUT) != 0);
}

/// Calls that have ended stay in the lists until their turn comes, or until they are many.
void Channel::drop_ended()
{
    const std::size_t bearable = max_ended_share * calls_.size() + min_ended;
    if (due_.size() > bearable) {
        std::erase_if(due_, [&](const Due& due) { return !calls_.contains(due.number); });
        std::make_heap(due_.begin(), due_.end());
    }
    if (waiting_.size() > bearable)
        std::erase_if(waiting_, [](const auto& call) { return call->is_complete(); });
}

/// Ends the calls whose time is over.
void Channel::expire()
{
    const auto now = Clock::now();
    for (forget_deadlines(); !due_.empty() && due_.front().deadline <= now; forget_deadlines()) {
        const auto call = calls_.find(due_.front().number)->second;
        if (!call->is_complete()) { // else it was cancelled
            const auto [cause, reason] = find_cause_of_silence(*call);
            const std::string why = describe_silence(endpoint_, call->timeout, reason);
            slate::log_error(provider_, SLATE_HERE, "request timeout; no reply to ",
                             describe(*call->message, secret_), "; " + why);
            end_call(*call, cause, why);
        }
        forget(*call);
    }
}

/// Doesn't wait, as this thread serves every asynchronous client: to look at a tcp endpoint would take time.
std::pair<LocalCause, std::string> Channel::find_cause_of_silence(const ChannelCall& call) const
{
    if (endpoint_->scheme() != "tcp")
        return find_cause(endpoint_);
    return {LocalCause::NoAnswerInTime,
            call.sent ? "somebody serves there, but doesn't answer" : "no connection came about"};
}

/// Lets the next deadline be that of a call which has not ended: others would wake the thread for nothing.
void Channel::forget_deadlines()
{
    while (!due_.empty() && !calls_.contains(due_.front().number)) {
        std::pop_heap(due_.begin(), due_.end());
        due_.pop_back();
    }
}

/// Receives what is there, up to a number of messages. True if there may be more.
bool Channel::receive()
{
    for (std::size_t count = 0; count < max_batch; ++count) {
        // Number, delimiter, message.
        std::array<zmq::message_t, 3> frames;
        if (!receive_through_signals(*socket_, frames[0], ZMQ_DONTWAIT))
            return false;
        std::size_t last = 0;
        while (frames[last].more() && last + 1 < frames.size())
            (void)receive_through_signals(*socket_, frames[++last]);
        drop_further_frames(*socket_, frames[last]);

        Incoming incoming{};
        if (last != 2 || !frames[1].empty() || frames[0].size() != sizeof incoming.number) {
            dropped_->increment();
            continue;
        }
        std::memcpy(&incoming.number, frames[0].data(), sizeof incoming.number);
        tsan_acquire(frames[2].data());
        incoming.payload = std::move(frames[2]);
        incoming_.push_back(std::move(incoming));
    }
    return true;
}

void Channel::deliver()
{
    for (Incoming& incoming : incoming_) {
        const auto found = calls_.find(incoming.number);
        // A number that was not sent yet is a peer's guess. A call that is complete was cancelled.
        if (found == calls_.end() || !found->second->sent || found->second->is_complete()) {
            dropped_->increment();
            if (found != calls_.end() && found->second->is_complete())
                forget(*found->second);
            continue;
        }
        rx_->increment(); // before the caller can look
        const auto call = found->second;
        answer(*call, std::exchange(incoming.payload, zmq::message_t()));
        forget(*call); // only now: what can't be completed still has its deadline
    }
    incoming_.clear();
}

/// Whatever the reply is, the call gets one.
void Channel::answer(ChannelCall& call, zmq::message_t payload)
{
    try {
        const auto message = factory_->make_message(payload.data(), payload.size());
        call.complete(std::make_shared<Reply>(message));
        return;
    }
    catch (const std::exception& error) { // for example out of memory
        slate::log_error(provider_, SLATE_HERE, "cannot take a reply: ", error.what());
    }
    catch (...) { // an application's factory may throw any type
        slate::log_error(provider_, SLATE_HERE, "cannot take a reply: unknown exception");
    }
    payload.rebuild(); // most of the memory may be in it
    err_->increment();
    end_call(call, LocalCause::SocketFailed, "the reply can't be taken");
}

/// Takes note of what has happened to the connection. False if the socket has a later one already.
bool Channel::read_monitor()
{
    bool is_same = true;
    zmq::message_t event;
    while (receive_through_signals(*monitor_, event, ZMQ_DONTWAIT)) {
        std::uint16_t kind = 0;
        std::memcpy(&kind, event.data(), std::min(sizeof kind, event.size()));
        drop_further_frames(*monitor_, event); // the address
        if (kind == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
            is_same = is_same && !ending_;
            connected_ = true;
        }
        else if (connected_) { // and not an attempt that failed
            connected_ = false;
            ending_ = true;
        }
    }
    return is_same;
}

/// Sends what there is room for. Whether it has used the socket.
bool Channel::send_waiting()
{
    bool used = false;
    while (connected_ && !waiting_.empty()) {
        ChannelCall& call = *waiting_.front();
        if (!call.is_complete()) {
            used = true;
            if (!try_send(call))
                break;
        }
        waiting_.pop_front();
    }
    return used;
}

/// Sends a request. False if there is no room for it now.
bool Channel::try_send(ChannelCall& call)
{
    const auto now = Clock::now();
    if (call.deadline <= now)
        return true; // which expire() finds next
    set_ttl(*call.message, time_until(call.deadline, now));
    if (call.message->ByteSizeLong() >= large_bytes && !has_room())
        return false;
    auto frame = to_frame(*call.message);
    if (!frame) {
        slate::log_error(provider_, SLATE_HERE, "send failed: ", describe(*call.message, secret_));
        err_->increment();
        end_call(call, LocalCause::TooLarge, "the request is too large");
        forget(call);
        return true;
    }
    zmq::message_t number(&call.number, sizeof call.number);
    if (!send_through_signals(*socket_, number, ZMQ_DONTWAIT | ZMQ_SNDMORE))
        return false;
    zmq::message_t delimiter;
    (void)send_through_signals(*socket_, delimiter, ZMQ_DONTWAIT | ZMQ_SNDMORE);
    tsan_release(frame->data());
    (void)send_through_signals(*socket_, *frame,
                               ZMQ_DONTWAIT); // there is room for a message, or for none of it
    call.sent = true;
    ++sent_on_socket_;
    tx_->increment();
    keep_what_is_logged(*call.message); // the rest has been copied, and is never sent again
    return true;
}

bool Channel::has_room()
{
    return (socket_->get(zmq::sockopt::events) & ZMQ_POLLOUT) != 0;
}

/// Whether the server at an inproc endpoint has ended. Takes note that there is one.
bool Channel::has_lost_inproc_peer(int events)
{
    if ((events & ZMQ_POLLOUT) != 0) {
        // Before the first request there is room even if nobody serves.
        inproc_served_ = inproc_served_ || sent_on_socket_ > 0;
        return false;
    }
    // A server's own queue has room for more than is in flight, so that one without room is none.
    return inproc_served_ && (events & ZMQ_POLLIN) == 0;
}

/// Ends what was sent on a connection that has ended, and makes a new socket, in which nothing of it is left:
/// neither a request, which the next server would get, nor a reply.
void Channel::lose_connection()
{
    close_sockets(nothing_leaves);
    end_calls(true, Status::RequestTimeout, LocalCause::ConnectionLost, "the connection was lost");
    open_sockets();
}

/// The socket is of no use any more. The next call makes a new one.
void Channel::fail(const std::string& error)
{
    slate::log_error(provider_, SLATE_HERE, error);
    err_->increment();
    incoming_.clear();
    close_sockets(time_to_leave);
    if (was_open_)
        end_calls(false, Status::RequestTimeout, LocalCause::SocketFailed, "the socket failed");
    else
        end_calls(false, Status::InternalServerError, LocalCause::SocketFailed, error);
}

void Channel::end_calls(bool sent_only, Status status, LocalCause cause, const std::string& text)
{
    std::vector<std::shared_ptr<ChannelCall>> ended;
    for (const auto& [number, call] : calls_) {
        if (call->sent || !sent_only)
            ended.push_back(call);
    }
    // In the order in which they were asked for.
    std::sort(ended.begin(), ended.end(),
              [](const auto& one, const auto& other) { return one->number < other->number; });
    for (const auto& call : ended) {
        if (!call->is_complete() && cause == LocalCause::ConnectionLost)
            slate::log_error(provider_, SLATE_HERE, text, "; no reply to ",
                             describe(*call->message, secret_));
        call->complete(status, cause, text);
        forget(*call);
    }
}

void Channel::end_call(ChannelCall& call, LocalCause cause, const std::string& text)
{
    call.complete(Status::RequestTimeout, cause, text);
}
} // namespace tarn_internal
