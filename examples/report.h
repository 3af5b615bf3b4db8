// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <tarn/tarn.h>

/// The body of a reply, or an empty text.
inline std::string text_of(const std::shared_ptr<tarn::Reply>& reply)
{
    return reply->has_body() ? reply->data() : std::string();
}

inline bool is_number_from(const std::string& text, double least)
{
    double value = 0;
    return slate::try_parse(text, &value) && value >= least;
}

/// Prints each request of a client with its reply, and remembers whether every reply was right.
class Report {
public:
    /// Prints one exchange, with the lines of the reply's body or, without a body, its status message.
    void show(const std::string& request, const std::shared_ptr<tarn::Reply>& reply, tarn::Status expected,
              bool right = true)
    {
        const std::string body = text_of(reply);
        check(request,
              std::to_string(static_cast<int>(reply->status())) + " " + tarn::Status_Name(reply->status()),
              right && reply->status() == expected);
        std::istringstream lines(body.empty() ? reply->status_message() : body);
        for (std::string line; std::getline(lines, line);)
            note(line);
    }

    void check(const std::string& what, const std::string& outcome, bool right)
    {
        all_right_ = all_right_ && right;
        std::cout << "  " << std::left << std::setw(38) << what + " " << (right ? "ok     " : "WRONG  ")
                  << outcome << std::endl;
    }

    void note(const std::string& line) { std::cout << "      " << line << std::endl; }

    bool all_right() const { return all_right_; }

private:
    bool all_right_ = true;
};
