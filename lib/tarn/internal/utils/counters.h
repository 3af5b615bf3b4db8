// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "slate/provider.h"

namespace tarn_internal {
/// The counters of this library's objects: cumulative, from 0, without a text.
inline std::shared_ptr<slate::Counter> add_counter(slate::Provider& provider, const std::string& name)
{
    return provider.add_counter(name, slate::Rational<int>(0, 1), "", slate::CounterPolicy::Cumulative);
}

inline std::shared_ptr<slate::Counter> add_error_counter(slate::Provider& provider, const std::string& name)
{
    return provider.add_error_counter(name, slate::Rational<int>(0, 1), "", slate::CounterPolicy::Cumulative);
}

inline std::shared_ptr<slate::Counter> add_warning_counter(slate::Provider& provider, const std::string& name)
{
    return provider.add_warning_counter(name, slate::Rational<int>(0, 1), "",
                                        slate::CounterPolicy::Cumulative);
}
} // namespace tarn_internal
