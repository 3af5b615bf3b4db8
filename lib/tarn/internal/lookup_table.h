// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "slate/log.h"
#include "tarn/exception.h"

namespace tarn {
class Message;
}

namespace tarn_internal {
/// Functions by number. Numbers below N have a slot each; all others are searched for, in order of adding.
/// Threads: none of its own; its owner locks.
template <std::size_t N>
class LookupTable {
public:
    using Function = std::function<void(tarn::Message&)>;

    /// Throws Exception for a slot that is in use. From N up nothing is checked: of two functions of a number
    /// the first one counts, until it is deleted.
    void add(unsigned int number, const Function& function)
    {
        if (number >= N) {
            overflow.emplace_back(number, function);
            return;
        }
        if (slots[number])
            throw tarn::Exception(
                slate::trace_error(SLATE_HERE, "duplicate lookup table index: ", std::to_string(number)));
        slots[number] = function;
    }

    /// The function of a number, or an empty one.
    Function find(unsigned int number) const
    {
        if (number < N)
            return slots[number];
        const auto entry = std::find_if(overflow.begin(), overflow.end(),
                                        [&](const auto& candidate) { return candidate.first == number; });
        return entry == overflow.end() ? Function() : entry->second;
    }

    /// Removes the function that find() gives, and returns it; unknown numbers are ignored.
    Function del(unsigned int number)
    {
        if (number < N)
            return std::exchange(slots[number], nullptr);
        const auto entry = std::find_if(overflow.begin(), overflow.end(),
                                        [&](const auto& candidate) { return candidate.first == number; });
        if (entry == overflow.end())
            return {};
        Function deleted = std::move(entry->second);
        overflow.erase(entry);
        return deleted;
    }

    void clear()
    {
        slots.fill(nullptr);
        overflow.clear();
    }

    std::array<Function, N> slots;
    std::vector<std::pair<unsigned int, Function>> overflow;
};
} // namespace tarn_internal
