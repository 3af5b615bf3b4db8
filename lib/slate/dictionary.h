// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "slate/require_cxx20.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "slate/strings.h"

namespace slate {
/// A flag, a character, an integer or a floating-point number; no wide character.
template <class T>
concept Arithmetic = std::is_arithmetic_v<T> && !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char8_t> &&
                     !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

/// Texts under keys that are texts too: settings, headers, the variables of a path. Keys are compared
/// exactly, byte by byte.
///
/// Threads: any number of threads may call const operations at once, but none may do so while another thread
/// changes the dictionary.
class Dictionary {
public:
    virtual ~Dictionary() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The value of a key, or `dflt` if there is no such key.
    virtual std::string get(std::string_view key, std::string_view dflt) const = 0;
    /// Stores a value, in place of an older one of that key.
    virtual void set(std::string_view key, std::string_view value) = 0;
    /// Stores the decimal text of a number.
    virtual void set(std::string_view key, long number) = 0;
    /// The value of a key as a flag ("true", "1", "false" or "0"); `dflt` if there is no such key or its
    /// value is another text.
    virtual bool get(std::string_view key, bool dflt) const = 0;
    virtual bool has(std::string_view key) const = 0;
    /// All keys, in byte order.
    virtual std::vector<std::string> keys() const = 0;
    virtual void clear() = 0;
    /// Removes a key; an unknown one is ignored.
    virtual void remove(std::string_view key) = 0;

    // A literal would otherwise decay to a pointer and be taken for a flag.
    std::string get(std::string_view key, const char* dflt) const { return get(key, std::string_view(dflt)); }

    /// The value of a key as a number of the default's type, read by slate::try_parse; `dflt` if there is no
    /// such key or its value is not such a number.
    template <Arithmetic T>
    T get(std::string_view key, T dflt) const
    {
        (void)try_parse(get(key, std::string_view()), &dflt); // leaves the default in place if it fails
        return dflt;
    }

    /// Stores the text of a number of any other type, or of a flag, as slate::to_string writes it.
    template <Arithmetic T>
    void set(std::string_view key, T value)
    {
        const std::string text = to_string(value);
        set(key, std::string_view(text));
    }
};

/// An empty dictionary.
std::shared_ptr<Dictionary> make_dictionary();

/// A dictionary of these keys and values: `make_dictionary({{"accept", "application/json"}, {"x", "1"}})`. Of
/// two equal keys the later one wins.
std::shared_ptr<Dictionary> make_dictionary(
    std::initializer_list<std::pair<std::string_view, std::string_view>> entries);
} // namespace slate
