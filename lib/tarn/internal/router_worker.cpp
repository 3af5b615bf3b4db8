// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/router_worker.h"

#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/request_cycle.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"
#include "tarn/zmq_subsystem.h"

namespace tarn_internal {
namespace {
/// What the way through the router is given of a request's time.
const slate::Duration router_share = slate::Milliseconds(500);
/// For a request that left the router less than its share.
const slate::Duration least_time = slate::Seconds(1);

/// Whether it has a path to go by.
bool is_routable(const Message& message)
{
    return message.type_case() != Message::TYPE_NOT_SET && !message.has_call() && !message.has_response();
}
} // namespace

RouterWorker::RouterWorker(const std::shared_ptr<zmq::context_t>& context,
                           std::shared_ptr<slate::Provider> provider, std::shared_ptr<MessageFactory> factory,
                           Resolve resolve)
    : context_(context),
      provider_(std::move(provider)),
      factory_(std::move(factory)),
      resolve_(std::move(resolve)),
      requests_(*context_, zmq::socket_type::dealer),
      control_(*context_, zmq::socket_type::sub)
{
}

bool RouterWorker::connect(const slate::Uri& requests, const slate::Uri& control)
{
    try {
        requests_.connect(requests.to_string());
        control_.connect(control.to_string());
        control_.set(zmq::sockopt::subscribe, "");
        return true;
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, error.what());
        return false;
    }
}

void RouterWorker::run()
{
    try {
        for (;;) {
            zmq::pollitem_t items[] = {{control_.handle(), 0, ZMQ_POLLIN, 0},
                                       {requests_.handle(), 0, ZMQ_POLLIN, 0}};
            zmq::poll(items, 2, std::chrono::milliseconds(-1));
            if (items[0].revents & ZMQ_POLLIN) // whatever it says
                return;
            if (items[1].revents & ZMQ_POLLIN)
                take_request();
        }
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, error.what());
    }
}

void RouterWorker::take_request()
{
    auto routed = receive_routed(requests_);
    if (!routed) {
        slate::log_warn(provider_, SLATE_HERE, "failed to read request from client");
        return;
    }

    const bool verbose = slate::is_logging_allowed(slate::VerboseLevel);
    Request request(factory_->make_message(routed->payload.data(), routed->payload.size()));
    if (verbose)
        slate::log_verbose(provider_, SLATE_HERE, "rx: ", request.to_string());
    // Who sends rubbish gets no reply, and the wait of a client that did so ends by itself.
    if (request.message)
        send(*routed, answer(request, verbose), verbose);
}

void RouterWorker::send(RoutedMessage& request, const std::shared_ptr<Message>& reply, bool verbose)
{
    for (zmq::message_t& frame : request.way_back)
        requests_.send(frame, zmq::send_flags::sndmore);
    if (!send_msg(requests_, reply, provider_)) {
        // A message that was begun must be ended, or the next reply would become a part of it.
        (void)send_msg(requests_, factory_->make_response(Status::InternalServerError), provider_);
        return;
    }
    if (verbose)
        slate::log_verbose(provider_, SLATE_HERE, "tx: ", tarn::to_string(*reply));
}

/// Whatever goes wrong with one request ends that request only.
std::shared_ptr<Message> RouterWorker::answer(Request& request, bool verbose)
{
    if (!is_routable(*request.message))
        return fail(Status::NotImplemented, "request type not implemented", request);

    const std::string path = request.path();
    try {
        return pass_on(request, verbose);
    }
    catch (const std::exception& error) {
        request.mutable_head()->set_path(path);
        return fail(Status::InternalServerError, error.what(), request);
    }
    catch (...) {
        request.mutable_head()->set_path(path);
        return fail(Status::InternalServerError, "unknown exception", request);
    }
}

std::shared_ptr<Message> RouterWorker::pass_on(Request& request, bool verbose)
{
    const slate::Duration time = shorten_ttl(request);
    const auto [endpoint, path] = resolve_(request);
    if (!endpoint) {
        slate::log_error(provider_, SLATE_HERE, "no route found for: ", request.to_string());
        return factory_->make_response(Status::NotFound);
    }
    if (!ZmqSubsystem::self())
        return fail(Status::ServiceUnavailable, "tarn not / no longer initialized", request);

    const std::string asked = request.path();
    request.mutable_head()->set_path(path);
    if (verbose)
        slate::log_verbose(provider_, SLATE_HERE, "fwd [", endpoint->to_string(),
                           "]: ", describe_request(*request.message, endpoint->to_string()));

    RequestCycle service("zmq.client", next_client_instance(), context_, endpoint, 0, make_message_factory());
    const auto reply = service.read_reply(*request.message, time, &control_);
    request.mutable_head()->set_path(asked);
    if (!reply->message)
        return fail(Status::BadGateway, "corrupt reply from the service at " + endpoint->to_string(),
                    request);
    if (reply->status() == Status::RequestTimeout)
        slate::log_error(provider_, SLATE_HERE, "request timeout; ", asked, " at the service ",
                         endpoint->to_string());
    // The caller sees the path that it asked for. Anything but a response becomes an empty one.
    reply->message->mutable_response()->mutable_head()->set_path(asked);
    return reply->message;
}

std::shared_ptr<Message> RouterWorker::fail(Status status, const std::string& text,
                                            const Request& request) const
{
    slate::log_error(provider_, SLATE_HERE, text, ", request: ", request.to_string());
    auto message = factory_->make_response(status);
    Response* response = message->mutable_response();
    response->set_status_message(slate::to_utf8(text));
    if (const Head* head = find_head(*request.message))
        response->mutable_head()->set_path(head->path());
    return message;
}

slate::Duration RouterWorker::shorten_ttl(Request& request) const
{
    auto time = slate::Duration::from(request.meta("ttl"), slate::Duration());
    if (time.is_not_initialized())
        time = default_timeout();
    time -= router_share;
    if (time.is_negative()) {
        slate::log_warn(provider_, SLATE_HERE, "timeout is too small on request: ", request.to_string());
        time = least_time;
    }
    request.set_meta("ttl", time.to_string(0));
    return time;
}
} // namespace tarn_internal
