// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/internal/route_list.h"
#include "tarn/internal/server/chunked_transfer.h"
#include "tarn/internal/server/remote_calls.h"
#include "tarn/internal/server/server_counters.h"
#include "tarn/message_factory.h"

namespace zmq {
class message_t;
}

namespace tarn_internal {
struct Excess;
struct IncomingRequest;

/// How every server handles one request: from the frame to a route's handler and back to a reply frame.
///
/// Threads: any; several may handle requests at once.
class RequestHandler {
public:
    /// `endpoints` are those of its server. `routes`, `calls` and `counters` must outlive the handler; the
    /// counters need "rx" and "tx".
    RequestHandler(const std::shared_ptr<const slate::Dictionary>& settings,
                   std::shared_ptr<MessageFactory> factory, std::shared_ptr<slate::Provider> provider,
                   const std::vector<Endpoint>& endpoints, const ServerCounters& counters, RouteList& routes,
                   RemoteCalls& calls);

    /// Sends the frame of a reply, and uses it up. May throw zmq::error_t.
    using SendReply = std::function<void(zmq::message_t& reply)>;

    /// Answers one request, whatever it is, but leaves its way back to `send`, and then discards chunked
    /// transfers that have expired: an idle server never does. `send` is called once, also if an exception
    /// leaves this function, out of memory for example: the caller then gets status 500. Passes on only what
    /// `send`, the message factory and a lack of memory throw.
    void handle(const IncomingRequest& request, const SendReply& send);

private:
    void refuse(Context& context, const Excess& excess) const;
    void answer(Context& context, bool debug);
    void invoke_route(Context& context);
    void dispatch(Context& context, Route& route);
    void handle_put(Context& context, Route& route);
    void handle_post(Context& context, Route& route);
    void require_verb(bool accepted, const Route& route, std::string_view verb) const;
    void set_failure(Context& context, Status status, const std::string& text) const;
    std::optional<zmq::message_t> to_reply_frame(Context& context) const;
    void send_failure(const SendReply& send) const;

    const std::shared_ptr<MessageFactory> factory_;
    const std::shared_ptr<slate::Provider> provider_;
    const ServerCounters& counters_;
    RouteList& routes_;
    RemoteCalls& calls_;
    const int pid_;
    const std::string failure_; // a serialised reply, which needs no memory to be made
    ChunkedTransfers transfers_;
};
} // namespace tarn_internal
