// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>

#include "tarn/client.h"

namespace tarn {
/// Makes a client of all services of a device that needs no router: it finds a service's socket in the
/// run-time directory by the path of each request, as a router does, and asks it directly. "/clock/time" is
/// asked of "<run_time_directory>/clock/zmq.sock", as "/time". A request so costs what one to that socket
/// costs, and no slow service of others is in its way.
///
/// Paths, statuses, headers and bodies are those that a router gives, its own failures included; the
/// "ttl" that a service sees is longer, because no router takes its share. What no service claims goes to
/// `router`, if one is given, and is answered with 404 otherwise: Reply::local_cause() is then
/// `NoSuchEndpoint`.
///
/// It keeps one connection to each service, and closes the one that was unused for longest beyond 32. It
/// looks at the socket file before each request and connects anew if that is another one, as after a restart
/// of the service. No request is ever sent twice.
///
/// Threads: may be shared. Requests to one service go one at a time, those to different services don't wait
/// for each other. Client tells the rest: the times, retries and errors. Its url() is `router`, or, without
/// one, the directory as an "ipc" endpoint.
///
/// Null, with an error in the log, without a ZmqSubsystem or for an empty directory.
[[nodiscard]] std::shared_ptr<Client> make_device_client(
    const std::filesystem::path& run_time_directory, const Endpoint& router = nullptr,
    unsigned int retries = default_retries(), const std::shared_ptr<MessageFactory>& factory = nullptr);

/// The same in the directory of the runtime's setting "run_time_directory", and with the router of the
/// setting "relay_url" if there is one.
[[nodiscard]] std::shared_ptr<Client> make_device_client();
} // namespace tarn
