// SPDX-License-Identifier: Apache-2.0
#include "tarn/context.h"

#include <algorithm>

#include "tarn/exception.h"

namespace tarn {
namespace {
constexpr std::size_t max_shown_bytes = 100;
} // namespace

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
