// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/internal/route_list.h"
#include "tarn/internal/server/chunked_transfer.h"
#include "tarn/internal/server/remote_calls.h"
#include "tarn/internal/server/server_counters.h"
#include "tarn/message_factory.h"

namespace zmq {
class socket_t;
}

namespace tarn_internal {
/// How every server handles one request: from the frame to a route's handler and back to a reply frame.
///
/// Threads: one for each socket; several may handle requests at once.
class RequestHandler {
public:
    /// `endpoints` are those of its server. `routes`, `calls` and `counters` must outlive the handler; the
    /// counters need "rx" and "tx".
    RequestHandler(const std::shared_ptr<const slate::Dictionary>& settings,
                   std::shared_ptr<MessageFactory> factory, std::shared_ptr<slate::Provider> provider,
                   const std::vector<Endpoint>& endpoints, const ServerCounters& counters, RouteList& routes,
                   RemoteCalls& calls);

    /// Takes one request off a ZMQ_REP socket that has one, answers it, whatever it is, and then discards
    /// chunked transfers that have expired: an idle server never does. Passes on only zmq::error_t from
    /// sending, and what the message factory throws.
    void handle_request_reply(zmq::socket_t& socket);

private:
    std::shared_ptr<Message> receive(zmq::socket_t& socket);
    void answer(Context& context, bool debug);
    void invoke_route(Context& context);
    void dispatch(Context& context, Route& route);
    void handle_put(Context& context, Route& route);
    void handle_post(Context& context, Route& route);
    void require_verb(bool accepted, const Route& route, std::string_view verb) const;
    void set_failure(Context& context, Status status, const std::string& text) const;
    void send(zmq::socket_t& socket, Context& context, bool debug);

    const std::shared_ptr<MessageFactory> factory_;
    const std::shared_ptr<slate::Provider> provider_;
    const ServerCounters& counters_;
    RouteList& routes_;
    RemoteCalls& calls_;
    const int pid_;
    ChunkedTransfers transfers_;
};
} // namespace tarn_internal
