// SPDX-License-Identifier: Apache-2.0
#include "tarn/relay.h"

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/transport/proxy.h"
#include "tarn/internal/utils/socket_ops.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
using namespace tarn_internal;
using Endpoint = std::shared_ptr<const slate::Uri>;

class RelayImpl : public Relay {
public:
    RelayImpl(const std::shared_ptr<zmq::context_t>& context, const Endpoint& sub_uri,
              const Endpoint& pub_uri)
        : context_(context),
          sub_uri_(sub_uri),
          pub_uri_(pub_uri),
          xsub_(*context_, zmq::socket_type::xsub),
          xpub_(*context_, zmq::socket_type::xpub),
          thread_(context_, slate::make_uri("inproc://" + slate::make_uuid().to_string()))
    {
        bind(xsub_, *sub_uri_);
        bind(xpub_, *pub_uri_);
        thread_.start([this] { listen(); });
    }

    ~RelayImpl() override
    {
        thread_.stop();
        (void)try_cleanup_socket_file(sub_uri_);
        (void)try_cleanup_socket_file(pub_uri_);
    }

private:
    static void bind(zmq::socket_t& socket, const slate::Uri& uri)
    {
        slate::log_debug(SLATE_HERE, "bind ", uri.to_string());
        bind_when_free(socket, uri);
    }

    void listen()
    {
        zmq::socket_t control(*context_, zmq::socket_type::sub);
        if (connect_control(control, thread_.endpoint(), nullptr))
            run_proxy(xsub_, xpub_, control,
                      "relay from " + sub_uri_->to_string() + " to " + pub_uri_->to_string(), nullptr);
        limit_linger(xpub_);
    }

    const std::shared_ptr<zmq::context_t> context_;
    const Endpoint sub_uri_;
    const Endpoint pub_uri_;
    // Made and bound by the owner, and used by the thread alone once that has started.
    zmq::socket_t xsub_;
    zmq::socket_t xpub_;
    ControlledThread thread_; // last, as it uses all of the above
};
} // namespace

std::shared_ptr<Relay> make_relay(const Endpoint& sub_uri, const Endpoint& pub_uri)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_error(SLATE_HERE, "cannot make_relay, tarn not / no longer initialized");
        return nullptr;
    }
    return std::make_shared<RelayImpl>(subsystem->ctx(), sub_uri, pub_uri);
}
} // namespace tarn
