// SPDX-License-Identifier: Apache-2.0
// Recipients such as "/a/b@12,13?format=json": parse_recipient and what the message factory makes of one.
// Input: the recipient.

#include <algorithm>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "slate/dictionary.h"
#include "tarn/exception.h"
#include "tarn/internal/utils/parse.h"
#include "tarn/internal/utils/parse_recipient.h"
#include "tarn/message_factory.h"

namespace {
using tarn_fuzz::require;

struct Recipient {
    std::string to;
    std::string path;
    std::map<std::string, std::string> params;

    bool operator==(const Recipient&) const = default;
};

std::vector<std::string> cut(const std::string& text, const std::string& separators)
{
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (separators.find(c) != std::string::npos)
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    return pieces;
}

std::string without_blanks(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// What parse_recipient has to give; nothing if it has to throw std::out_of_range.
std::optional<Recipient> expect(const std::string& text)
{
    Recipient recipient;
    const bool has_to = text.find('@') != std::string::npos;
    const bool has_query = text.find('?') != std::string::npos;
    recipient.path = text;
    if (has_to || has_query) {
        std::vector<std::string> pieces;
        for (const std::string& piece : cut(text, "@?"))
            pieces.push_back(without_blanks(piece));
        std::erase(pieces, "");
        if (pieces.size() > 3)
            return Recipient{};
        if (pieces.size() < 1U + has_to + has_query)
            return std::nullopt;
        recipient.path = pieces[0];
        recipient.to = has_to ? pieces[1] : "";
        for (const std::string& pair :
             has_query ? cut(pieces[has_to ? 2 : 1], "&") : std::vector<std::string>()) {
            const auto equals = std::min(pair.find('='), pair.size());
            if (!pair.empty())
                recipient.params[pair.substr(0, equals)] = pair.substr(std::min(equals + 1, pair.size()));
        }
    }
    if (recipient.path.empty() || recipient.path.front() != '/')
        recipient.path.insert(0, "/");
    return recipient;
}

std::optional<Recipient> parse(const std::string& text)
{
    Recipient recipient{"left over", "left over", {}};
    const auto params = slate::make_dictionary({{"left", "over"}});
    try {
        tarn_internal::parse_recipient(text, &recipient.to, &recipient.path, params);
    }
    catch (const std::out_of_range&) {
        return std::nullopt;
    }
    for (const std::string& key : params->keys())
        recipient.params[key] = params->get(key, "");
    return recipient;
}

/// Whether each piece between commas is a decimal number of 32 bits.
bool are_pids(const std::string& text)
{
    for (const std::string& piece : cut(text, ",")) {
        if (piece.empty())
            continue;
        const bool has_sign = piece.front() == '-' || piece.front() == '+';
        const std::string digits = piece.substr(has_sign ? 1 : 0);
        if (digits.empty() || digits.size() > 15 ||
            digits.find_first_not_of("0123456789") != std::string::npos)
            return false;
        const long long number = std::stoll(piece);
        if (number < INT32_MIN || number > INT32_MAX)
            return false;
    }
    return true;
}

void check_message(const std::string& text, const std::optional<Recipient>& expected)
{
    static const auto factory = tarn::make_message_factory();
    try {
        const auto message = factory->make_get(text);
        const tarn::Head& head = message->get().head();
        require(expected.has_value(), "a recipient with a missing part is refused");
        require(head.path() == expected->path, "the path reaches the message");
        require(head.params_size() == static_cast<int>(expected->params.size()), "so do the parameters");
        for (const auto& param : head.params())
            require(expected->params.count(param.key()) && expected->params.at(param.key()) == param.value(),
                    "with their values");
        const auto pids = cut(expected->to, ",");
        require(head.to_size() ==
                    static_cast<int>(std::count_if(pids.begin(), pids.end(),
                                                   [](const std::string& pid) { return !pid.empty(); })),
                "and the processes");
    }
    catch (const std::out_of_range&) {
        require(!expected, "only a missing part is out of range");
    }
    catch (const tarn::Exception&) {
        // A long row of zeros is a number too, and not worth a rule here.
        require(expected && (!are_pids(expected->to)), "only process ids that are no numbers are refused");
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    const std::string text = tarn_fuzz::Input(data, size).rest();

    const auto expected = expect(text);
    require(parse(text) == expected, "same recipient");
    check_message(text, expected);

    const std::string topic = tarn_internal::to_topic(text);
    require(text.starts_with(topic) && topic.find('/', 1) == std::string::npos,
            "a topic is the first segment");

    std::string url = text;
    const auto [value, added] = tarn_internal::insert_query(url, "k", "v");
    require(!added || url.size() > text.size(), "an added parameter makes the URL longer");
    require(added || url == text, "a URL that has the parameter stays");
    std::string again = url;
    require(!tarn_internal::insert_query(again, "k", "w").second || url.find('?') == std::string::npos,
            "it is added only once");
    return 0;
}
