// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "slate/dictionary.h"
#include "tarn/reply.h"
#include "tarn/request.h"

namespace tarn {
/// What a route handler sees of one request. Lives on the stack of the thread that handles it.
struct Context {
    Request request;
    /// Status 204 with no body until the handler fills it. Has no message when a published change is handled.
    Reply reply;
    /// Path variables, headers and query parameters by name; null until a route has accepted the request.
    std::shared_ptr<slate::Dictionary> params;
    /// The process id of the server.
    int pid = 0;
};
} // namespace tarn
