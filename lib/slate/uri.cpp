// SPDX-License-Identifier: Apache-2.0
#include "slate/uri.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace slate {
namespace {
constexpr std::string_view scheme_end = "://";

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_scheme_character(char c)
{
    return is_letter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

bool is_control_character(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

bool is_scheme(std::string_view text)
{
    return !text.empty() && is_letter(text.front()) &&
           std::all_of(text.begin(), text.end(), is_scheme_character);
}

class UriImpl : public Uri {
public:
    UriImpl(const std::string& text, std::size_t scheme_length) : text_(text), scheme_length_(scheme_length)
    {
    }

    std::string to_string() const override { return text_; }
    std::string scheme() const override { return text_.substr(0, scheme_length_); }
    std::string address() const override { return text_.substr(scheme_length_ + scheme_end.size()); }

    std::string path() const override
    {
        std::string whole = address();
        if (scheme() == "file")
            return whole;
        const auto slash = whole.find('/');
        return slash == std::string::npos ? std::string() : whole.substr(slash);
    }

private:
    const std::string text_;
    const std::size_t scheme_length_;
};
} // namespace

std::shared_ptr<const Uri> make_uri(const std::string& text)
{
    const auto length = text.find(scheme_end);
    if (length == std::string::npos || length + scheme_end.size() == text.size())
        return nullptr;
    if (!is_scheme(std::string_view(text).substr(0, length)))
        return nullptr;
    if (std::any_of(text.begin(), text.end(), is_control_character))
        return nullptr;
    return std::make_shared<UriImpl>(text, length);
}
} // namespace slate
