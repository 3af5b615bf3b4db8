// SPDX-License-Identifier: Apache-2.0
// What a body looks like: detect_format and its like, against the rules written down one by one.
// Input: the body.

#include <cctype>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "tarn/internal/utils/detect_format.h"
#include "tarn/proto/message.pb.h"
#include "tarn/request.h"

namespace {
using tarn::Format;
using tarn_fuzz::require;

std::string without_mark(const std::string& text)
{
    for (const std::string mark : {"\xEF\xBB\xBF", "\xFE\xFF", "\xFF\xFE"}) {
        if (text.rfind(mark, 0) == 0)
            return text.substr(mark.size());
    }
    return text;
}

bool begins(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

bool encloses(const std::string& text, char open, char close)
{
    return !text.empty() && text.front() == open && text.back() == close;
}

/// Unknown for no verdict.
Format sniff(const std::string& text)
{
    if (text.empty())
        return Format::Unknown;
    std::string markup = text;
    while (!markup.empty() && std::string("\t\n\f\r ").find(markup.front()) != std::string::npos)
        markup.erase(0, 1);
    for (char& c : markup)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    if (begins(markup, "<?xml"))
        return Format::Xml;
    for (const std::string tag : {"!doctype html", "html", "head", "script", "iframe", "h1", "div", "font",
                                  "table", "a", "style", "title", "b", "body", "br", "p"}) {
        if (begins(markup, "<" + tag + " ") || begins(markup, "<" + tag + ">"))
            return Format::Html;
    }
    if (begins(text, "%PDF-"))
        return Format::Pdf;
    return encloses(text, '{', '}') || encloses(text, '[', ']') ? Format::Json : Format::Unknown;
}

Format expect(const std::string& body)
{
    if (const std::string text = without_mark(body); text.size() != body.size()) {
        const Format verdict = sniff(text);
        return verdict == Format::Unknown ? Format::Text : verdict;
    }
    if (const Format verdict = sniff(body); verdict != Format::Unknown)
        return verdict;
    if (begins(body, "\x89PNG\r\n\x1a\n"))
        return Format::Png;
    if (begins(body, "\xFF\xD8\xFF"))
        return Format::Jpeg;
    if (begins(body, "BM"))
        return Format::Bmp;
    if (begins(body, "GIF87a") || begins(body, "GIF89a"))
        return Format::Gif;
    if (begins(body, "\x1f\x8b\x08"))
        return Format::Gzip;
    if (begins(body, "PK\x03\x04"))
        return Format::Zip;
    for (std::size_t i = 0; i < body.size() && i <= 1446; ++i) {
        const auto byte = static_cast<unsigned char>(body[i]);
        if (byte < 32 && byte != 9 && byte != 10 && byte != 12 && byte != 13 && byte != 27)
            return Format::Bin;
    }
    return Format::Text;
}

bool expect_json(const std::string& body)
{
    const std::string text = without_mark(body);
    return begins(body, "{") || encloses(text, '{', '}') || encloses(text, '[', ']');
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    const std::string body = tarn_fuzz::Input(data, size).rest();

    const Format format = tarn_internal::detect_format(body);
    require(format == expect(body), "same format", tarn::Format_Name(format));
    require(tarn_internal::looks_like_json(body) == expect_json(body), "same verdict on JSON");
    require(tarn_internal::looks_like_xml(body) == begins(without_mark(body), "<?xml"),
            "same verdict on XML");

    tarn::Request request(std::make_shared<tarn::Message>());
    request.message->mutable_put()->mutable_body()->set_bin(body);
    require(request.detect_format() == format, "a request says the same");
    require(request.formats() == std::vector{format}, "and prefers it");
    require(request.maybe_json() == expect_json(body), "and says the same on JSON");
    return 0;
}
