// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/request_handler.h"

#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"

namespace tarn_internal {
namespace {
/// A text that is no UTF-8 would make the whole reply unreadable to its client, so it travels as bytes;
/// readers accept both.
void move_bytes_out_of_text(Message& message)
{
    if (!message.has_response() || !message.response().body().has_txt() ||
        slate::is_utf8(message.response().body().txt()))
        return;
    Body* body = message.mutable_response()->mutable_body();
    std::string bytes = std::move(*body->mutable_txt());
    body->set_bin(std::move(bytes));
}

bool is_request(const Message& message)
{
    return !message.has_response() && message.type_case() != Message::TYPE_NOT_SET;
}
} // namespace

RequestHandler::RequestHandler(std::shared_ptr<const slate::Dictionary> settings,
                               std::shared_ptr<MessageFactory> factory,
                               std::shared_ptr<slate::Provider> provider, const ServerCounters& counters,
                               RouteTable& routes, RemoteCalls& calls)
    : factory_(std::move(factory)),
      provider_(std::move(provider)),
      counters_(counters),
      routes_(routes),
      calls_(calls),
      pid_(factory_->finder()->my_pid()),
      transfers_(std::move(settings), provider_, counters_.err)
{
}

void RequestHandler::handle_request_reply(zmq::socket_t& socket)
{
    const bool debug = slate::is_logging_allowed(slate::DebugLevel);
    Context context;
    context.pid = pid_;
    try {
        context.request.message = receive(socket);
        answer(context, debug);
    }
    catch (...) {
        // Out of memory, for instance. The socket must not be left owing a reply: it would take no further
        // request.
        (void)send_msg(socket, factory_->make_response(Status::InternalServerError), provider_);
        throw;
    }
    send(socket, context, debug);
    transfers_.clean();
}

/// The message, or null if there is none that parses.
std::shared_ptr<Message> RequestHandler::receive(zmq::socket_t& socket)
{
    zmq::message_t frame;
    try {
        if (!receive_frame(socket, frame))
            slate::log_debug(provider_, SLATE_HERE, "rx socket recv; no data");
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider_, SLATE_HERE, "rx socket error; ", error.what());
    }
    return frame.size() > 0 ? factory_->make_message(frame.data(), frame.size()) : nullptr;
}

void RequestHandler::answer(Context& context, bool debug)
{
    const auto& message = context.request.message;
    if (!message) {
        slate::log_error(provider_, SLATE_HERE, "rx: corrupt message; cannot deserialize it");
        counters_.err->increment();
        context.reply.message = factory_->make_response(Status::BadRequest);
        return;
    }
    if (!is_request(*message)) {
        slate::log_error(provider_, SLATE_HERE, "rx: not a request: ", context.request.to_string());
        counters_.err->increment();
        context.reply.message = factory_->make_response(Status::BadRequest);
        return;
    }

    if (debug)
        slate::log_debug(provider_, SLATE_HERE, "rx: ", context.request.to_string());
    counters_.rx->increment();

    if (message->has_call()) {
        calls_.handle_method_call(context);
        return;
    }
    // Stays as it is, status 404, if no route takes the request.
    context.reply.message = factory_->make_response(message, pid_);
    invoke_route(context);
}

void RequestHandler::invoke_route(Context& context)
{
    try {
        routes_.invoke(context, [&](const std::shared_ptr<Route>& route) { dispatch(context, *route); });
    }
    catch (const MessageException& error) {
        fail(context, error.status, error.what());
    }
    catch (const std::exception& error) {
        slate::log_error(provider_, SLATE_HERE, "InternalServerError", "; ", error.what());
        fail(context, Status::InternalServerError, error.what());
    }
    catch (...) {
        // An application may throw anything; that must not end the process.
        slate::log_error(provider_, SLATE_HERE, "InternalServerError", "; ", "unknown exception");
        fail(context, Status::InternalServerError, "unknown exception");
    }
}

void RequestHandler::dispatch(Context& context, Route& route)
{
    switch (context.request.message->type_case()) {
    case Message::kGet:
        check(route.accepts_get, context, route, "GET");
        route.get(context);
        break;
    case Message::kHead:
        check(route.accepts_head, context, route, "HEAD");
        route.head(context);
        break;
    case Message::kDel:
        check(route.accepts_del, context, route, "DEL");
        route.del(context);
        break;
    case Message::kPut:
        handle_put(context, route);
        break;
    case Message::kPost:
        handle_post(context, route);
        break;
    default:
        throw MessageException(Status::NotImplemented,
                               slate::trace_error(provider_, SLATE_HERE, "request type not implemented"));
    }
}

void RequestHandler::handle_put(Context& context, Route& route)
{
    check(route.accepts_put, context, route, "PUT");
    transfers_.handle_write(context, route, TransferFile::InTemporaryFolder, [&] { route.put(context); });
}

void RequestHandler::handle_post(Context& context, Route& route)
{
    check(route.accepts_post, context, route, "POST");
    // Intended: the file of a post lies beside the system's folder for temporary files, and not in it.
    transfers_.handle_write(context, route, TransferFile::BesideTemporaryFolder,
                            [&] { route.post(context); });
}

/// Refuses a verb that the route doesn't take; otherwise presets the reply, for handlers that write nothing.
void RequestHandler::check(bool accepted, Context& context, const Route& route, std::string_view verb)
{
    if (!accepted)
        throw MessageException(
            Status::MethodNotAllowed,
            slate::trace_error(provider_, SLATE_HERE, "route [", route.name, "] doesn't support ", verb));
    context.reply.set_format_status(Format::Empty, Status::NoContent);
}

/// Everything else that is in the reply already stays.
void RequestHandler::fail(Context& context, Status status, const std::string& text)
{
    if (!context.reply.message)
        context.reply.message = factory_->make_response(status);
    Response* response = context.reply.message->mutable_response();
    response->set_status(status);
    response->set_status_message(slate::to_utf8(text));
}

void RequestHandler::send(zmq::socket_t& socket, Context& context, bool debug)
{
    if (!context.reply.message) // a handler may have taken it away
        context.reply.message = factory_->make_response(Status::InternalServerError);

    move_bytes_out_of_text(*context.reply.message);
    if (!send_msg(socket, context.reply.message, provider_)) {
        slate::log_warn(provider_, SLATE_HERE, "unable to send reply; client died?");
        counters_.err->increment();
        // A reply that can't be serialised must not leave the socket owing one either.
        (void)send_msg(socket, factory_->make_response(Status::InternalServerError), provider_);
        return;
    }
    if (debug)
        slate::log_debug(provider_, SLATE_HERE, "tx: ", context.reply.to_string());
    counters_.tx->increment();
}
} // namespace tarn_internal
