// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/server_base.h"

#include <utility>

#include <zmq.hpp>

#include "slate/dictionary.h"

namespace tarn_internal {
ServerBase::ServerBase(int id, std::shared_ptr<zmq::context_t> context,
                       std::shared_ptr<const slate::Dictionary> settings, std::vector<Endpoint> uris,
                       const std::shared_ptr<MessageFactory>& factory, Endpoint pubsub_uri,
                       RemoteCalls::Lock policy)
    : context_(std::move(context)),
      uris_(std::move(uris)),
      pubsub_uri_(std::move(pubsub_uri)),
      settings_(settings ? std::move(settings) : slate::make_dictionary()),
      provider_("zmq.server", id),
      counters_(*provider_, !uris_.empty()),
      routes_(
          uris_, settings_, provider_, [this] { notify_subscriber(); }, [this] { notify_subscriber(); }),
      remote_calls_(policy, provider_),
      factory_(factory ? factory : make_message_factory()),
      requests_(settings_, factory_, provider_, uris_, counters_, routes_, remote_calls_),
      subscriber_(*settings_, factory_, provider_, counters_, routes_)
{
}

void ServerBase::suppress_add_remote_call_warning()
{
    remote_calls_.suppress_warning();
}

bool ServerBase::add(const std::shared_ptr<Route>& route)
{
    return routes_.add(route);
}

void ServerBase::add(unsigned int number, const std::function<void(Message&)>& function)
{
    remote_calls_.add(number, function);
}

void ServerBase::del(const std::string& name)
{
    routes_.del(name);
}

void ServerBase::del(unsigned int number)
{
    remote_calls_.del(number);
}

void ServerBase::clear()
{
    remote_calls_.clear();
    routes_.clear();
}

void ServerBase::add_first(const std::vector<std::shared_ptr<Route>>& routes)
{
    for (const auto& route : routes)
        (void)routes_.add(route); // which logs why a route can't be added
}

bool ServerBase::handle_wake_up(zmq::socket_t& wake_up, zmq::socket_t& pubsub, ReadyFlag& listening)
{
    switch (receive_command(wake_up, provider_)) {
    case Command::UpdateSubscriptions:
        subscriber_.handle_subscription_change(pubsub);
        return true;
    case Command::WorkerListening:
        listening.set();
        return true;
    case Command::Terminate:
        break;
    }
    return false;
}
} // namespace tarn_internal
