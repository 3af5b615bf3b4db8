// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tarn/message_factory.h"
#include "tarn/reply.h"
#include "tarn/types.h"

namespace tarn_internal {
/// What a router does with a request and its reply, for clients that do without one: finds the service by the
/// path, and gives the reply the path that was asked for.
///
/// Threads: any.
class ServiceLookup {
public:
    /// `router`, for what no service claims, may be null.
    ServiceLookup(const std::filesystem::path& run_time_directory, Endpoint router,
                  std::shared_ptr<MessageFactory> factory);

    /// Where a request goes, or the reply to it.
    struct Destination {
        Endpoint endpoint;            // null if there is a reply already
        std::shared_ptr<Reply> reply; // null if there is an endpoint
        std::string path;             // that was asked for
        bool is_service = false;      // and not the router, whose replies are as they should be
    };

    /// Gives the message the path that it carries to its service. A request that holds too much of something
    /// is refused here, as a router does, and not by its service, which sees less of the path. Throws nothing
    /// but std::bad_alloc.
    Destination find(const std::shared_ptr<Message>& message) const;

    /// The reply as a router would give it: with the path that was asked for, and status 502 for what isn't a
    /// message.
    std::shared_ptr<Reply> finish(std::shared_ptr<Reply> reply, const Destination& destination) const;

    /// A reply that is made here, with an error in the log.
    std::shared_ptr<Reply> fail(Status status, LocalCause cause, const std::string& text,
                                const std::string& path) const;

    /// The router, or the directory as an "ipc" endpoint.
    const Endpoint& url() const { return url_; }
    const MessageFactory& factory() const { return *factory_; }

private:
    Destination find_service_or_router(const std::shared_ptr<Message>& message,
                                       const std::string& path) const;

    const std::filesystem::path run_time_directory_;
    const Endpoint router_;
    const Endpoint url_;
    const std::shared_ptr<MessageFactory> factory_;
};
} // namespace tarn_internal
