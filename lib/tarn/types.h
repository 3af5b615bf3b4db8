// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace slate {
class Dictionary;
class Uri;
} // namespace slate

namespace tarn {
/// Where a socket binds or connects, such as "ipc:///run/tide/clock/zmq.sock" or "tcp://127.0.0.1:5555"; made
/// by slate::make_uri, which gives null for a text that is not an endpoint.
using Endpoint = std::shared_ptr<const slate::Uri>;

/// The headers of a request, made by slate::make_dictionary; null where there are none.
using Headers = std::shared_ptr<slate::Dictionary>;
} // namespace tarn

namespace tarn_internal {
using namespace tarn; // internal code uses the interface's types by their short names
} // namespace tarn_internal
