// SPDX-License-Identifier: Apache-2.0
#include "tarn/relay.h"

#include <vector>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/transport/proxy.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/internal/utils/socket_file.h"

namespace tarn {
namespace {
using namespace tarn_internal;

class RelayImpl : public Relay {
public:
    RelayImpl(const Runtime& runtime, const Endpoint& relay_in, const Endpoint& relay_out)
        : context_(runtime.context),
          settings_(runtime.settings),
          sub_uri_(relay_in),
          pub_uri_(relay_out),
          xsub_(*context_, zmq::socket_type::xsub),
          xpub_(*context_, zmq::socket_type::xpub),
          thread_(context_, slate::make_uri("inproc://" + slate::make_uuid().to_string()))
    {
        limit_subscriptions(xpub_, max_subscription_bytes);
        limit_frames(xsub_, *runtime.settings);
        set_high_water_mark(xsub_, *runtime.settings);
        set_high_water_mark(xpub_, *runtime.settings);
        try {
            bind(xsub_, sub_uri_);
            bind(xpub_, pub_uri_);
        }
        catch (...) {
            remove_files();
            throw;
        }
        thread_.start("tarn-relay", [this] { listen(); });
    }

    ~RelayImpl() override
    {
        thread_.stop();
        remove_files();
    }

private:
    void remove_files() const
    {
        for (const SocketFile& file : files_)
            file.remove();
    }

    void bind(zmq::socket_t& socket, const Endpoint& uri)
    {
        slate::log_debug(SLATE_HERE, "bind ", uri->to_string());
        bind_when_free(socket, *uri);
        files_.emplace_back(uri);
        set_socket_access_as_told(uri, *settings_);
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
    const std::shared_ptr<const slate::Dictionary> settings_;
    const Endpoint sub_uri_; // of the relay's own ZMQ_XSUB socket, so where publishers connect
    const Endpoint pub_uri_; // of its ZMQ_XPUB socket, where subscribers connect
    // The owner makes and binds them; once the thread has started, only the thread uses them.
    zmq::socket_t xsub_;
    zmq::socket_t xpub_;
    std::vector<SocketFile> files_;
    ControlledThread thread_; // last, as it uses all of the above
};
} // namespace

std::shared_ptr<Relay> make_relay(const Endpoint& relay_in, const Endpoint& relay_out)
{
    const auto runtime = find_runtime("make_relay");
    if (!runtime)
        return nullptr;
    log_endpoint_fault("make_relay", relay_in);
    log_endpoint_fault("make_relay", relay_out);
    return std::make_shared<RelayImpl>(*runtime, relay_in, relay_out);
}
} // namespace tarn
