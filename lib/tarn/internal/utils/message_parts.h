// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tarn/message.h"
#include "tarn/types.h"

namespace tarn_internal {
/// The head of a request or a response, made if it is not set; null for a `call` or a message with no `type`.
Head* find_or_make_head(Message& message);
/// The body of a put, post or response; null if it is not set.
Body* find_mutable_body(Message& message);
} // namespace tarn_internal
