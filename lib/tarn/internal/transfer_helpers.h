// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "tarn/reply.h"
#include "tarn/types.h"

namespace tarn_internal {
/// A copy of a caller's headers, null included, without any that belongs to a transfer.
Headers copy_without_transfer(const Headers& headers);

/// The reply, if it is a response or bad; one without a message for whatever else came, which ends a transfer
/// although Reply::good() holds for it.
std::shared_ptr<Reply> only_response(std::shared_ptr<Reply> reply);

/// A reply that no server gave.
std::shared_ptr<Reply> make_local_reply(Status status, LocalCause cause, const std::string& text);
} // namespace tarn_internal
