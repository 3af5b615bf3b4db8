// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/request_handler.h"

#include <chrono>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/exception.h"
#include "tarn/internal/transport/front.h"
#include "tarn/internal/utils/request_bounds.h"
#include "tarn/internal/utils/send.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
bool is_request(const Message& message)
{
    return !message.has_response() && message.type_case() != Message::TYPE_NOT_SET;
}

/// The reply of a handler that writes nothing.
void preset_reply(Context& context)
{
    context.reply.set_format_status(Format::Empty, Status::NoContent);
}
} // namespace

RequestHandler::RequestHandler(const std::shared_ptr<const slate::Dictionary>& settings,
                               std::shared_ptr<MessageFactory> factory,
                               std::shared_ptr<slate::Provider> provider,
                               const std::vector<Endpoint>& endpoints, const ServerCounters& counters,
                               RouteList& routes, RemoteCalls& calls)
    : factory_(std::move(factory)),
      provider_(std::move(provider)),
      counters_(counters),
      routes_(routes),
      calls_(calls),
      pid_(factory_->finder()->my_pid()),
      failure_(factory_->make_response(Status::InternalServerError)->SerializeAsString()),
      transfers_(settings, provider_, counters_.err, endpoints)
{
}

void RequestHandler::handle(const IncomingRequest& request, const SendReply& send)
{
    const bool debug = slate::is_logging_allowed(slate::DebugLevel);
    Context context;
    context.pid = pid_;
    context.arrival = std::chrono::steady_clock::now();
    std::optional<zmq::message_t> reply;
    try {
        const zmq::message_t& payload = request.payload;
        context.peer_address = request.peer_address;
        if (const auto excess = find_excess(payload.data(), payload.size())) {
            refuse(context, *excess);
        }
        else {
            if (!payload.empty())
                context.request.message = factory_->make_message(payload.data(), payload.size());
            answer(context, debug);
        }
        reply = to_reply_frame(context);
    }
    catch (...) {
        // For example out of memory. Most of it may be what request and reply hold.
        context = Context();
        send_failure(send);
        throw;
    }
    if (reply) {
        send(*reply);
        if (debug)
            slate::log_debug(provider_, SLATE_HERE, "tx: ", context.reply.to_string());
        counters_.tx->increment();
    }
    else {
        slate::log_warn(provider_, SLATE_HERE, "unable to send reply; client died?");
        counters_.err->increment();
        send_failure(send);
    }
    transfers_.clean();
}

void RequestHandler::refuse(Context& context, const Excess& excess) const
{
    slate::log_error(provider_, SLATE_HERE, "rx: refused: ", excess.text);
    counters_.err->increment();
    context.reply.message = factory_->make_response(excess.status);
    context.reply.message->mutable_response()->set_status_message(excess.text);
}

/// Writes the reply of one request into `context`.
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
    // Status 404, which stays if no route takes the request.
    context.reply.message = factory_->make_response(message, pid_);
    invoke_route(context);
}

void RequestHandler::invoke_route(Context& context)
{
    try {
        routes_.invoke(context, [&](const std::shared_ptr<Route>& route) { dispatch(context, *route); });
    }
    catch (const MessageException& error) {
        set_failure(context, error.status, error.what());
    }
    catch (const std::exception& error) {
        slate::log_error(provider_, SLATE_HERE, "InternalServerError", "; ", error.what());
        set_failure(context, Status::InternalServerError, error.what());
    }
    catch (...) {
        // A handler may throw any type; that must not end the process.
        slate::log_error(provider_, SLATE_HERE, "InternalServerError", "; ", "unknown exception");
        set_failure(context, Status::InternalServerError, "unknown exception");
    }
}

void RequestHandler::dispatch(Context& context, Route& route)
{
    switch (context.request.message->type_case()) {
    case Message::kGet:
        require_verb(route.accepts_get, route, "GET");
        preset_reply(context);
        route.get(context);
        break;
    case Message::kHead:
        require_verb(route.accepts_head, route, "HEAD");
        preset_reply(context);
        route.head(context);
        break;
    case Message::kDel:
        require_verb(route.accepts_del, route, "DEL");
        preset_reply(context);
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
    require_verb(route.accepts_put, route, "PUT");
    preset_reply(context);
    transfers_.handle_write(context, route, TransferFile::InTemporaryFolder, [&] { route.put(context); });
}

void RequestHandler::handle_post(Context& context, Route& route)
{
    require_verb(route.accepts_post, route, "POST");
    preset_reply(context);
    // Deliberate, see docs/servers.md: the file of a POST is made in the parent of the temporary directory.
    transfers_.handle_write(context, route, TransferFile::BesideTemporaryFolder,
                            [&] { route.post(context); });
}

void RequestHandler::require_verb(bool accepted, const Route& route, std::string_view verb) const
{
    if (!accepted)
        throw MessageException(
            Status::MethodNotAllowed,
            slate::trace_error(provider_, SLATE_HERE, "route [", route.name, "] doesn't support ", verb));
}

/// Body and headers that are in the reply already stay.
void RequestHandler::set_failure(Context& context, Status status, const std::string& text) const
{
    if (!context.reply.message)
        context.reply.message = factory_->make_response(status);
    Response* response = context.reply.message->mutable_response();
    response->set_status(status);
    response->set_status_message(slate::to_utf8(text));
}

/// None if the reply is too large to be serialised.
std::optional<zmq::message_t> RequestHandler::to_reply_frame(Context& context) const
{
    if (!context.reply.message) // a handler may have removed it
        context.reply.message = factory_->make_response(Status::InternalServerError);
    move_invalid_text_to_bytes(*context.reply.message); // in place: it may be large
    return serialise(*context.reply.message);
}

void RequestHandler::send_failure(const SendReply& send) const
{
    zmq::message_t reply(failure_);
    send(reply);
}
} // namespace tarn_internal
