// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "help_page.h"

namespace CLI {
class App;
}

namespace tarn_command {
/// What scripts learn from a command.
enum ExitStatus : int {
    ExitGood = 0,
    ExitOther = 1,
    ExitUsage = 2,
    ExitClientError = 4, ///< a 4xx, but for 408
    ExitServerError = 5,
    ExitUnreachable = 6, ///< no such endpoint, or no permission to connect
    ExitTimeout = 7,     ///< 408, made here or by a router
};

/// Ends a command: the sentence goes to standard error. It names what was asked for, and what to do next.
class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string& sentence) : std::runtime_error(sentence), exit_status(status) {}

    int exit_status;
};

using help_page::Example;

/// One command. Its help, its page of manual and its completion are all made from this and from the options
/// that `add` declares.
struct Command {
    std::string name;
    std::string summary; ///< one line, without a full stop
    std::string description;
    std::vector<Example> examples;
    /// Declares arguments and options, and returns what runs the command once they are read.
    std::function<std::function<int()>(CLI::App&)> add;
};

// Each is defined in the file of its family.
Command get_command();
Command head_command();
Command put_command();
Command post_command();
Command del_command();
Command publish_command();
Command watch_command();
Command services_command();
Command index_command();
Command who_command();
Command call_command();
Command ping_command();
Command bench_command();
Command doctor_command();
Command demo_command();
Command completion_command();
Command version_command();
} // namespace tarn_command
