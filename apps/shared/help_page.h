// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace help_page {
struct Example {
    std::string command;
    std::string meaning;
};

/// Names, such as "-t, --timeout TIME", each with its meaning.
using Rows = std::vector<std::pair<std::string, std::string>>;

/// What a program or one of its commands says of itself: its help and its page of manual are made from this.
struct Page {
    std::string name;    ///< as it is typed: "tarn get"
    std::string section; ///< of the manual
    std::string summary; ///< one line, without a full stop
    std::string synopsis;
    std::string description;
    Rows commands;
    Rows arguments;
    Rows options;
    std::vector<Example> examples;
    Rows exit_statuses;
    std::vector<std::string> see_also; ///< such as "tarn(1)"
};

/// The options of an application, in the order of their declaration, with those that are given by name only.
Rows options_of(const CLI::App& app);

/// The help, wrapped to that many columns.
std::string to_help(const Page& page, std::size_t columns);

/// The page of manual, as roff. Its file is called like the page, with "-" for each blank, and ends in its
/// section.
std::string to_manual(const Page& page);
} // namespace help_page
