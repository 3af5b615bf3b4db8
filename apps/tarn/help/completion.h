// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarn_command {
/// What the last one of these words of a command line could become: a command, an option, or a path from the
/// live index. The shells' scripts only pass it on. Nothing is offered that a shell would take for anything
/// but a word.
std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words);

/// The script for "bash" or "zsh"; empty for another shell.
std::string completion_script(const std::string& shell);
} // namespace tarn_command
