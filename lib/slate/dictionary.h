// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "slate/strings.h"

namespace slate {
/// Text by text key: settings, headers, the variables of a path. Keys are compared exactly and kept in byte
/// order.
///
/// Threads: const operations may run on many threads at once, changes on none beside.
class Dictionary {
public:
    virtual ~Dictionary() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The value of a key, or `dflt`.
    virtual std::string get(std::string_view key, std::string_view dflt) const = 0;
    virtual void set(std::string_view key, std::string_view value) = 0;
    /// Stores the decimal text of a number.
    virtual void set(std::string_view key, long number) = 0;
    /// The value of a key as a flag ("true", "1", "false" or "0"); `dflt` without such a value.
    virtual bool get(std::string_view key, bool dflt) const = 0;
    virtual bool has(std::string_view key) const = 0;
    virtual std::vector<std::string> keys() const = 0;
    virtual void clear() = 0;
    /// Takes a key out; an unknown one is ignored.
    virtual void remove(std::string_view key) = 0;

    // A literal would otherwise decay to a pointer and be taken for a flag.
    std::string get(std::string_view key, const char* dflt) const { return get(key, std::string_view(dflt)); }

    // Every other arithmetic type by its own text, so that none is cut to a long.
    template <class T>
    requires std::is_arithmetic_v<T>
    void set(std::string_view key, T value)
    {
        const std::string text = to_string(value);
        set(key, std::string_view(text));
    }
};

/// An empty dictionary.
std::shared_ptr<Dictionary> make_dictionary();
} // namespace slate
