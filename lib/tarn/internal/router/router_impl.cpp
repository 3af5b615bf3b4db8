// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/router/router_impl.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include <zmq.hpp>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/exception.h"
#include "tarn/internal/router/router_worker.h"
#include "tarn/internal/router/service_path.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/dispatcher.h"
#include "tarn/internal/transport/front.h"
#include "tarn/internal/transport/workers.h"
#include "tarn/zmq_subsystem.h"

namespace tarn_internal {
namespace {
std::atomic<int> instance{0};
} // namespace

RouterImpl::RouterImpl(const std::shared_ptr<zmq::context_t>& context,
                       const std::shared_ptr<const slate::Dictionary>& settings,
                       const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                       const std::shared_ptr<MessageFactory>& factory,
                       const std::filesystem::path& run_time_directory,
                       const std::vector<std::shared_ptr<Route>>& routes,
                       const UnknownPathText& unknown_path_text)
    : context_(context),
      settings_(settings ? settings : slate::make_dictionary()),
      uuid_(slate::make_uuid().to_string()),
      uris_(endpoints),
      dealer_uri_(slate::make_uri("inproc://dealer/" + uuid_)),
      server_uri_(slate::make_uri("inproc://router_server/" + uuid_)),
      run_time_directory_(normalise_directory(run_time_directory)),
      unknown_path_text_(unknown_path_text),
      provider_("zmq.router", instance++),
      thread_(context_, slate::make_uri("inproc://" + uuid_)),
      server_(make_server(1, settings, {server_uri_}, relay_out, factory, routes)),
      factory_(factory),
      serves_itself_(inproc_is_bound(*context_, *server_uri_))
{
    thread_.start("tarn-router", [this] { thread_entry(); });
}

RouterImpl::~RouterImpl()
{
    thread_.stop();
}

void RouterImpl::suppress_add_remote_call_warning()
{
    server_->suppress_add_remote_call_warning();
}

bool RouterImpl::add(const std::shared_ptr<Route>& route)
{
    return server_->add(route);
}

void RouterImpl::add(unsigned int number, const std::function<void(Message&)>& function)
{
    server_->add(number, function);
}

void RouterImpl::del(const std::string& name)
{
    server_->del(name);
}

void RouterImpl::del(unsigned int number)
{
    server_->del(number);
}

void RouterImpl::clear()
{
    server_->clear();
}

void RouterImpl::thread_entry()
{
    Front front(*context_, *settings_);
    Dispatcher dispatcher(*context_, front, provider_);
    zmq::socket_t control(*context_, zmq::socket_type::sub);

    if (front.bind(uris_, "router", provider_) && dispatcher.bind(*dealer_uri_) &&
        connect_control(control, thread_.endpoint(), provider_)) {
        Workers workers;
        const auto serve = [this](WorkerSocket& socket) { worker_entry(this, socket); };
        workers.start(worker_count, "tarn-forward", *context_, dealer_uri_, serve, provider_);
        dispatcher.run(control, workers.wait_for_all(), "router");
    }
    slate::log_debug(provider_, SLATE_HERE, "thread exit");
}

void RouterImpl::worker_entry(RouterImpl* router, WorkerSocket& socket)
{
    RouterWorker worker(
        router->context_, *router->settings_, router->provider_, router->factory_,
        [router](const Request& request) { return router->find_service(request); },
        [router](const Endpoint& endpoint, const std::string& path) {
            return router->explain_not_found(endpoint, path);
        },
        [] { return ZmqSubsystem::self() != nullptr; }, socket);
    worker.run();
}

std::pair<Endpoint, std::string> RouterImpl::resolve(RouterImpl* router, const Request& request)
{
    std::string path = request.path();
    if (path.find_first_not_of('/') == std::string::npos)
        return {};
    auto service = tarn_internal::find_service(router->run_time_directory_, path);
    if (!service)
        return {router->server_uri_, std::move(path)};
    // Its own endpoint would forward to itself until all workers are taken.
    if (std::any_of(router->uris_.begin(), router->uris_.end(),
                    [&](const auto& own) { return is_same_socket(*own, *service->endpoint); }))
        service->endpoint = router->server_uri_;
    return {std::move(service->endpoint), std::move(service->path)};
}

std::pair<Endpoint, std::string> RouterImpl::find_service(const Request& request)
{
    auto found = resolve(this, request);
    // A request to an inproc endpoint that isn't bound would use up one of the context's sockets for good.
    if (found.first == server_uri_ && !serves_itself_.value_or(true))
        throw MessageException(Status::ServiceUnavailable, "the router's own server has not started");
    return found;
}

std::string RouterImpl::explain_not_found(const Endpoint& endpoint, const std::string& path) const
{
    if (!unknown_path_text_ || (endpoint && endpoint != server_uri_))
        return {};
    try {
        return unknown_path_text_(path);
    }
    catch (const std::exception& error) {
        slate::log_error(provider_, SLATE_HERE, "no text for an unknown path: ", error.what());
        return {};
    }
}
} // namespace tarn_internal
