// SPDX-License-Identifier: Apache-2.0
#include "tarn/context.h"

#include <algorithm>

#include "slate/duration.h"
#include "tarn/exception.h"
#include "tarn/message.h"

namespace tarn {
namespace {
constexpr std::size_t max_shown_bytes = 100;

/// No caller means a longer time, and a point in time that far ahead can still be told.
constexpr std::chrono::hours longest_patience{24 * 365 * 100};
} // namespace

std::optional<std::chrono::steady_clock::time_point> Context::deadline() const
{
    if (!arrival || !request.message || !find_head(*request.message))
        return std::nullopt;
    const auto ttl = slate::Duration::parse(request.meta("ttl"));
    if (!ttl || ttl->is_not_initialized() || *ttl > slate::Duration(longest_patience))
        return std::nullopt;
    const auto time = std::max(*ttl, slate::Duration(slate::Seconds(0)));
    return *arrival + std::chrono::nanoseconds(time.to_nanoseconds());
}

std::string Context::variable(std::string_view name, std::string_view dflt) const
{
    const std::string* text = find_variable(name);
    return text ? *text : std::string(dflt);
}

const std::string* Context::find_variable(std::string_view name) const
{
    // Of two segments with the same name the last one counts, as in params.
    const auto found = std::find_if(variables.rbegin(), variables.rend(),
                                    [&](const auto& variable) { return variable.first == name; });
    return found == variables.rend() ? nullptr : &found->second;
}

void Context::throw_bad_variable(std::string_view name, const std::string* text)
{
    const std::string subject = "path variable \"" + std::string(name) + "\"";
    throw MessageException(Status::BadRequest,
                           text ? subject + " has a bad value: " + text->substr(0, max_shown_bytes)
                                : subject + " is missing");
}
} // namespace tarn
