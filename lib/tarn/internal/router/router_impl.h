// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/request.h"
#include "tarn/router.h"
#include "tarn/types.h"

namespace tarn_internal {
class WorkerSocket;

/// The router: a public front and three workers, each of which forwards one request at a time to its service.
/// It keeps no table of requests: the frames in front of a request identify its sender.
///
/// The router's own routes belong to a server inside it, at an inproc endpoint, which gets requests like any
/// other service.
class RouterImpl : public Router {
public:
    RouterImpl(const std::shared_ptr<zmq::context_t>& context,
               const std::shared_ptr<const slate::Dictionary>& settings,
               const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
               const std::shared_ptr<MessageFactory>& factory,
               const std::filesystem::path& run_time_directory,
               const std::vector<std::shared_ptr<Route>>& routes = {},
               const UnknownPathText& unknown_path_text = {});
    ~RouterImpl() override;

    void suppress_add_remote_call_warning() override;
    bool add(const std::shared_ptr<Route>& route) override;
    void add(unsigned int number, const std::function<void(Message&)>& function) override;
    void del(const std::string& name) override;
    void del(unsigned int number) override;
    void clear() override;

    /// Where to send a request, and the path that it carries there. No endpoint for a path without segments.
    /// Throws std::filesystem::filesystem_error if the run-time directory can't be asked.
    static std::pair<Endpoint, std::string> resolve(RouterImpl* router, const Request& request);

private:
    void thread_entry();
    /// As resolve, for a worker. Throws MessageException, status 503, for a request to the router's own
    /// server if that has not started.
    std::pair<Endpoint, std::string> find_service(const Request& request);
    /// The text for a reply of status 404 from `endpoint`, or empty.
    std::string explain_not_found(const Endpoint& endpoint, const std::string& path) const;
    static void worker_entry(RouterImpl* router, WorkerSocket& socket);

    static constexpr std::size_t worker_count = 3;
    const std::shared_ptr<zmq::context_t> context_;
    const std::shared_ptr<const slate::Dictionary> settings_;
    const std::string uuid_; // keeps the inproc endpoints apart from those of any other router
    const std::vector<Endpoint> uris_;
    const Endpoint dealer_uri_;
    const Endpoint server_uri_;
    const std::filesystem::path run_time_directory_;
    const UnknownPathText unknown_path_text_;
    const OwnedProvider provider_;
    ControlledThread thread_;
    const std::shared_ptr<Server> server_;
    const std::shared_ptr<MessageFactory> factory_;
    /// Whether the server inside has started; no value: unknown, and treated as started.
    const std::optional<bool> serves_itself_;
};
} // namespace tarn_internal
