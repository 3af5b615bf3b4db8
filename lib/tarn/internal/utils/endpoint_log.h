// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "tarn/types.h"

namespace tarn_internal {
/// Logs as an error what check_endpoint() says of a text or an endpoint that `function` was given; nothing
/// for one without a fault, nor for null.
void log_endpoint_fault(std::string_view function, std::string_view text);
void log_endpoint_fault(std::string_view function, const Endpoint& endpoint);
} // namespace tarn_internal
