// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <tarn/reply.h>

#include "fabric_choice.h"

namespace tarn_command {
/// The exit status that tells how a request went. After a failure that the client has found itself it looks
/// at the endpoint once more.
int exit_status_of(const tarn::Reply& reply, const tarn::Endpoint& endpoint);

/// "404 NotFound".
std::string status_text(const tarn::Reply& reply);

/// What went wrong, with the request, and what to do next, in one sentence.
std::string explain(const tarn::Reply& reply, const Target& target, const std::string& path);
} // namespace tarn_command
