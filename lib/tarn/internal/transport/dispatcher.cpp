// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/dispatcher.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"

namespace tarn_internal {
namespace {
// What a worker says in a message of one frame; replies have more frames than one.
constexpr std::string_view is_free = "free";
constexpr std::string_view has_ended = "ended";

/// Out of memory costs a request its address, and not its answer.
zmq::message_t make_address_frame(const IncomingRequest& request)
{
    try {
        return zmq::message_t(request.peer_address);
    }
    catch (const zmq::error_t&) {
        return {};
    }
}

/// How many messages go in one direction before the other one has its turn.
constexpr int burst = 100;
} // namespace

Dispatcher::Dispatcher(zmq::context_t& context, Front& front, std::shared_ptr<slate::Provider> provider)
    : front_(front),
      provider_(std::move(provider)),
      back_(context, zmq::socket_type::router)
{
    // A request for a worker that is no more comes back, and goes to the next one.
    back_.set(zmq::sockopt::router_mandatory, true);
}

bool Dispatcher::bind(const slate::Uri& endpoint)
{
    try {
        back_.bind(endpoint.to_string());
        return true;
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, "Failed to bind dealer socket: ", error.what());
        return false;
    }
}

void Dispatcher::run(zmq::socket_t& control, std::size_t workers, std::string_view what)
{
    back_index_ = poller_.add(back_);
    control_index_ = poller_.add(control);
    front_index_ = poller_.add(front_.socket());
    running_ = workers;
    // So that no worker is lost when memory runs out.
    free_.reserve(workers);
    known_.reserve(workers);
    while (running_ > 0) {
        try {
            if (!serve_once())
                end_workers();
        }
        catch (const zmq::error_t& error) {
            if (error.num() == ENOMEM) {
                slate::log_error(provider_, SLATE_HERE, what, ": ", error.what());
                continue;
            }
            slate::log_error(provider_, SLATE_HERE, what, " has stopped working: ", error.what());
            if (error.num() == ETERM || ending_)
                return; // the end of the context ends the workers too
            end_workers();
        }
        catch (const std::exception& error) { // out of memory for one request, which is lost
            slate::log_error(provider_, SLATE_HERE, what, ": ", error.what());
        }
    }
    if (!ending_)
        slate::log_error(provider_, SLATE_HERE, what, " has stopped working: it has no workers");
}

/// One pass. False once a command has arrived.
bool Dispatcher::serve_once()
{
    poller_.want(control_index_, ending_ ? 0 : ZMQ_POLLIN);
    poller_.want(front_index_, ending_ || free_.empty() ? 0 : ZMQ_POLLIN);
    memory_.after_wait(poller_.wait(memory_.wait_time()));

    if (poller_.is_unsettled(back_index_))
        take_replies();
    if (poller_.is_readable(control_index_))
        return false;
    if (poller_.is_unsettled(front_index_))
        hand_out_requests();
    return true;
}

void Dispatcher::hand_out_requests()
{
    for (int i = 0; i < burst && !free_.empty(); ++i) {
        auto request = receive_request(front_.socket(), provider_);
        if (!request) {
            poller_.settle(front_index_);
            return;
        }
        if (!request->is_answerable())
            continue;
        memory_.note(request->payload.size());
        // libzmq drops what it knows of the peer when a message is sent on, so the address travels as a
        // frame.
        zmq::message_t address = make_address_frame(*request);
        for (bool handed_out = false; !handed_out && !free_.empty();) {
            poller_.touch(back_index_);
            const WorkerId worker = std::move(free_.front());
            free_.erase(free_.begin());
            handed_out = hand_out(*request, address, worker);
        }
    }
}

/// False if there is no such worker any more.
bool Dispatcher::hand_out(IncomingRequest& request, zmq::message_t& address, const WorkerId& worker)
{
    if (!start_message(worker))
        return false;
    for (zmq::message_t& frame : request.way_back)
        (void)send_through_signals(back_, frame, ZMQ_SNDMORE);
    (void)send_through_signals(back_, address, ZMQ_SNDMORE);
    (void)send_through_signals(back_, request.payload, 0);
    return true;
}

void Dispatcher::take_replies()
{
    for (int i = 0; i < burst; ++i) {
        if (!take_message()) {
            poller_.settle(back_index_);
            return;
        }
    }
}

/// Takes one message of a worker. False if there is none.
bool Dispatcher::take_message()
{
    zmq::message_t id;
    zmq::message_t frame;
    if (!receive_through_signals(back_, id, ZMQ_DONTWAIT) || !receive_through_signals(back_, frame))
        return false;
    const WorkerId worker = id.to_string();
    if (!frame.more()) {
        take_word(worker, frame.to_string_view());
        return true;
    }
    poller_.touch(front_index_);
    // A full queue belongs to a peer that doesn't read: the front drops what is meant for it.
    (void)send_through_signals(front_.socket(), frame, ZMQ_SNDMORE | ZMQ_DONTWAIT);
    for (bool more = true; more;) {
        (void)receive_through_signals(back_, frame);
        more = frame.more();
        memory_.note(frame.size());
        (void)send_through_signals(front_.socket(), frame, (more ? ZMQ_SNDMORE : 0) | ZMQ_DONTWAIT);
    }
    set_free(worker);
    return true;
}

void Dispatcher::take_word(const WorkerId& worker, std::string_view word)
{
    if (word == is_free) {
        set_free(worker);
        return;
    }
    std::erase(known_, worker);
    std::erase(free_, worker);
    --running_;
}

void Dispatcher::set_free(const WorkerId& worker)
{
    if (std::find(known_.begin(), known_.end(), worker) == known_.end())
        known_.push_back(worker);
    if (ending_)
        tell_to_end(worker);
    else
        free_.push_back(worker);
}

void Dispatcher::end_workers()
{
    ending_ = true;
    poller_.touch(back_index_);
    // One that is busy hears it too, and can cut a wait short. One that isn't known yet will be told.
    for (const WorkerId& worker : known_)
        tell_to_end(worker);
}

/// Sends the frame that names the receiver. False if there is no such worker any more.
bool Dispatcher::start_message(const WorkerId& worker)
{
    zmq::message_t id(worker);
    try {
        return send_through_signals(back_, id, ZMQ_SNDMORE);
    }
    catch (const zmq::error_t& error) {
        if (error.num() != EHOSTUNREACH)
            throw;
        return false;
    }
}

void Dispatcher::tell_to_end(const WorkerId& worker)
{
    zmq::message_t nothing;
    if (start_message(worker))
        (void)send_through_signals(back_, nothing, 0);
}

WorkerSocket::WorkerSocket(zmq::context_t& context, const slate::Uri& endpoint)
    : socket_(context, zmq::socket_type::dealer)
{
    socket_.connect(endpoint.to_string());
}

WorkerSocket::~WorkerSocket()
{
    try {
        (void)send_str(socket_, std::string(has_ended));
    }
    catch (const zmq::error_t&) {
        // The context is ending, and the dispatcher with it.
    }
}

std::optional<IncomingRequest> WorkerSocket::next()
{
    if (!free_) {
        (void)send_str(socket_, std::string(is_free));
        free_ = true;
    }
    IncomingRequest request;
    // Out of memory between two frames would mix up messages.
    request.way_back.reserve(max_routing_frames + 1);
    zmq::message_t frame;
    if (!receive_through_signals(socket_, frame) || !frame.more())
        return std::nullopt; // the word that ends the worker
    free_ = false;
    while (!request.way_back.emplace_back(std::move(frame)).empty())
        (void)receive_through_signals(socket_, frame);
    zmq::message_t address;
    (void)receive_through_signals(socket_, address);
    (void)receive_frame(socket_, request.payload);
    request.peer_address = text_or_nothing(address.to_string_view());
    return request;
}

void WorkerSocket::reply(IncomingRequest& request, zmq::message_t& reply)
{
    send_reply(socket_, request, reply);
    free_ = true;
}
} // namespace tarn_internal
