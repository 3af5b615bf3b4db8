// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/router/router_worker.h"

#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "tarn/exception.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/router/service_path.h"
#include "tarn/internal/settings.h"
#include "tarn/internal/transport/dispatcher.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/internal/utils/request_bounds.h"
#include "tarn/internal/utils/send.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
/// What the router subtracts from a request's ttl, to reply before the caller gives up.
const slate::Duration router_share = slate::Milliseconds(500);
/// How long the router waits if the request's ttl is below router_share.
const slate::Duration time_for_short_ttl = slate::Seconds(1);

std::int64_t find_max_reply_bytes(const slate::Dictionary& settings)
{
    const auto bytes = size_setting(settings, "max_frame_bytes");
    return bytes ? static_cast<std::int64_t>(*bytes) : -1;
}
} // namespace

RouterWorker::RouterWorker(const std::shared_ptr<zmq::context_t>& context, const slate::Dictionary& settings,
                           std::shared_ptr<slate::Provider> provider, std::shared_ptr<MessageFactory> factory,
                           Resolve resolve, ExplainNotFound explain, HasRuntime has_runtime,
                           WorkerSocket& socket)
    : context_(context),
      max_reply_bytes_(find_max_reply_bytes(settings)),
      provider_(std::move(provider)),
      factory_(std::move(factory)),
      resolve_(std::move(resolve)),
      explain_(std::move(explain)),
      has_runtime_(std::move(has_runtime)),
      failure_(factory_->make_response(Status::InternalServerError)->SerializeAsString()),
      socket_(socket)
{
}

void RouterWorker::run()
{
    for (;;) {
        try {
            auto request = socket_.next();
            if (!request)
                return;
            handle(*request);
        }
        catch (const zmq::error_t& error) {
            slate::log_error(provider_, SLATE_HERE, error.what());
            if (error.num() == ETERM)
                return;
        }
        catch (const std::exception& error) { // for example out of memory for the report of a failure
            slate::log_error(provider_, SLATE_HERE, error.what());
        }
    }
}

void RouterWorker::handle(IncomingRequest& request)
{
    const bool verbose = slate::is_logging_allowed(slate::VerboseLevel);
    Answer answer;
    zmq::message_t reply;
    try {
        answer = answer_or_fail(request.payload, verbose);
        if (!answer.message) // a frame that doesn't parse gets no reply; its sender times out
            return;
        reply = to_frame(answer);
    }
    catch (...) {
        // For example out of memory. Most of it may be what the service replied.
        answer = Answer();
        reply = zmq::message_t(failure_);
        socket_.reply(request, reply);
        throw;
    }
    socket_.reply(request, reply);
    if (verbose)
        slate::log_verbose(provider_, SLATE_HERE,
                           "tx: ", describe(*answer.message, hidden_payload(answer.path)));
}

/// A failure of one request ends that request only.
RouterWorker::Answer RouterWorker::answer_or_fail(const zmq::message_t& payload, bool verbose) const
{
    std::string path;
    try {
        if (const auto excess = find_excess(payload.data(), payload.size()))
            return make_failure(excess->status, excess->text, path);
        Request request(factory_->make_message(payload.data(), payload.size()));
        if (verbose)
            slate::log_verbose(provider_, SLATE_HERE, "rx: ", request.to_string());
        if (!request.message)
            return {};
        if (!is_routable(*request.message))
            return make_failure(Status::NotImplemented, "request type not implemented", path);
        path = request.path();
        return pass_on(request, path, verbose);
    }
    catch (const MessageException& error) {
        return make_failure(error.status, error.what(), path);
    }
    catch (const std::exception& error) {
        return make_failure(Status::InternalServerError, error.what(), path);
    }
    catch (...) {
        return make_failure(Status::InternalServerError, "unknown exception", path);
    }
}

RouterWorker::Answer RouterWorker::pass_on(Request& request, const std::string& path, bool verbose) const
{
    const slate::Duration time = shorten_ttl(request);
    const auto [endpoint, forwarded_path] = resolve_(request);
    if (!endpoint) {
        slate::log_error(provider_, SLATE_HERE, "no route found for: ", request.to_string());
        auto answer = factory_->make_response(Status::NotFound);
        explain(*answer->mutable_response(), endpoint, path);
        return {std::move(answer), path};
    }
    if (!has_runtime_())
        return make_failure(Status::ServiceUnavailable, "tarn not / no longer initialized", path);

    const bool secret = hidden_payload(path);
    request.mutable_head()->set_path(forwarded_path);
    if (verbose)
        slate::log_verbose(provider_, SLATE_HERE, "fwd [", endpoint->to_string(),
                           "]: ", describe(*request.message, secret));

    RequestCycle service("zmq.client", next_client_instance(), context_, endpoint, 0, make_message_factory(),
                         {.is_secret = secret, .max_reply_bytes = max_reply_bytes_, .refuses_excess = true});
    const auto reply = service.read_reply(*request.message, time, &socket_.end());
    if (!reply->message)
        return make_failure(Status::BadGateway, "corrupt reply from the service at " + endpoint->to_string(),
                            path);
    if (reply->status() == Status::RequestTimeout)
        slate::log_error(provider_, SLATE_HERE, "request timeout; ", path, " at the service ",
                         endpoint->to_string());
    // The caller gets the path that it asked for. Anything but a response becomes an empty one.
    Response* response = reply->message->mutable_response();
    response->mutable_head()->set_path(path);
    explain(*response, endpoint, path);
    return {reply->message, path};
}

void RouterWorker::explain(Response& response, const Endpoint& endpoint, const std::string& path) const
{
    if (response.status() == Status::NotFound && response.status_message().empty())
        response.set_status_message(slate::to_utf8(explain_(endpoint, path)));
}

RouterWorker::Answer RouterWorker::make_failure(Status status, const std::string& text,
                                                const std::string& path) const
{
    // Logs the path instead of the request, which may have any size.
    slate::log_error(provider_, SLATE_HERE, text, "; request to \"", path, "\"");
    auto message = factory_->make_response(status);
    Response* response = message->mutable_response();
    response->set_status_message(slate::to_utf8(text));
    if (!path.empty())
        response->mutable_head()->set_path(path);
    return {message, path};
}

zmq::message_t RouterWorker::to_frame(const Answer& answer) const
{
    try {
        if (auto frame = tarn_internal::to_frame(*answer.message))
            return std::move(*frame);
    }
    catch (const zmq::error_t& error) { // no memory for a large one
        slate::log_error(provider_, SLATE_HERE, error.what(), "; reply for \"", answer.path, "\"");
    }
    const Answer failure =
        make_failure(Status::InternalServerError, "the reply can't be serialised", answer.path);
    return std::move(tarn_internal::to_frame(*failure.message).value());
}

slate::Duration RouterWorker::shorten_ttl(Request& request) const
{
    auto time = slate::Duration::from(request.meta("ttl"), slate::Duration());
    if (time.is_not_initialized())
        time = default_timeout();
    time -= router_share;
    if (time.is_negative()) {
        slate::log_warn(provider_, SLATE_HERE, "timeout is too small on request: ", request.to_string());
        time = time_for_short_ttl;
    }
    request.set_meta("ttl", time.to_string(0));
    return time;
}
} // namespace tarn_internal
