// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "tarn/message.h"
#include "tarn/types.h"

namespace tarn_internal {
/// Whether a message is a response with a status that says that a request has failed.
bool is_refusal(const Message& message);

/// What Reply::why() says of a message.
std::string explain_reply(const Message& message);
} // namespace tarn_internal
