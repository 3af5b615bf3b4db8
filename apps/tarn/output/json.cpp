// SPDX-License-Identifier: Apache-2.0
#include "output/json.h"

#include <nlohmann/json.hpp>

#include "command.h"
#include "output/body.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
constexpr std::size_t indent_width = 2;

/// Goes through valid JSON token by token. Parsing and writing it again would change numbers that no double
/// holds.
class Indenter {
public:
    explicit Indenter(std::string_view text) : text_(text) {}

    std::string run()
    {
        while (skip_blanks())
            token();
        return std::move(result_);
    }

private:
    bool skip_blanks()
    {
        at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size());
        return at_ < text_.size();
    }

    void token()
    {
        switch (const char c = text_[at_]) {
        case '{':
        case '[':
            open(c);
            return;
        case '}':
        case ']':
            --depth_;
            new_line();
            result_ += c;
            ++at_;
            return;
        case ',':
            result_ += c;
            new_line();
            ++at_;
            return;
        case ':':
            result_ += ": ";
            ++at_;
            return;
        case '"':
            string();
            return;
        default:
            literal();
        }
    }

    void open(char c)
    {
        result_ += c;
        ++at_;
        if (skip_blanks() && (text_[at_] == '}' || text_[at_] == ']')) {
            result_ += text_[at_++];
            return;
        }
        ++depth_;
        new_line();
    }

    void string()
    {
        std::size_t end = at_ + 1;
        while (text_[end] != '"')
            end += text_[end] == '\\' ? std::size_t{2} : std::size_t{1};
        const auto token = text_.substr(at_, end + 1 - at_);
        at_ = end + 1;
        const bool is_key = skip_blanks() && text_[at_] == ':';
        result_ += paint(escape(token), is_key ? Colour::Cyan : Colour::Green);
    }

    void literal()
    {
        const std::size_t end = std::min(text_.find_first_of(" \t\r\n,:]}", at_), text_.size());
        const auto token = text_.substr(at_, end - at_);
        const char c = token.front();
        result_ += paint(token, c == 't' || c == 'f' || c == 'n' ? Colour::Magenta : Colour::Yellow);
        at_ = end;
    }

    void new_line() { result_ += "\n" + std::string(depth_ * indent_width, ' '); }

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t depth_ = 0;
    std::string result_;
};
} // namespace

std::optional<std::string> indent_json(std::string_view text)
{
    if (!nlohmann::json::accept(text))
        return std::nullopt;
    return Indenter(text).run();
}

std::string to_line(const nlohmann::ordered_json& value)
{
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

int print_object(bool is_wanted, nlohmann::ordered_json& object, const std::function<int()>& run)
{
    if (!is_wanted)
        return run();
    const auto print = [&](int status) {
        object["exit"] = status;
        write_out(to_line(object) + "\n");
        flush_out();
        return status;
    };
    try {
        return print(run());
    }
    catch (const Failure& failure) {
        object["problem"] = failure.what();
        if (failure.exit_status != ExitUsage)
            print(failure.exit_status);
        throw;
    }
    catch (const std::exception& error) {
        object["problem"] = error.what();
        print(ExitOther);
        throw;
    }
}
} // namespace tarn_command
