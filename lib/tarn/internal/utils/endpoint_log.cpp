// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/endpoint_log.h"

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/check_endpoint.h"

namespace tarn_internal {
void log_endpoint_fault(std::string_view function, std::string_view text)
{
    if (const auto fault = tarn::check_endpoint(text))
        slate::log_error(SLATE_HERE, function, ": ", *fault);
}

void log_endpoint_fault(std::string_view function, const Endpoint& endpoint)
{
    if (endpoint)
        log_endpoint_fault(function, endpoint->to_string());
}
} // namespace tarn_internal
