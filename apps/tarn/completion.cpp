// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "command.h"
#include "help/completion.h"
#include "output/body.h"
#include "output/terminal.h"

namespace tarn_command {
Command completion_command()
{
    return {"completion",
            "the completion for a shell",
            "Prints a script that lets bash or zsh complete commands, options, and paths from the services "
            "that run. An installed tarn brings it along.",
            {{"source <(tarn completion bash)", "in this shell"},
             {"source <(tarn completion zsh)", "in zsh, after compinit"}},
            [](CLI::App& app) {
                auto shell = std::make_shared<std::string>();
                app.add_option("SHELL", *shell, "bash or zsh")->required();
                return [=] {
                    const std::string script = completion_script(*shell);
                    if (script.empty())
                        throw Failure(ExitUsage, "there is no completion for '" + brief(*shell) +
                                                     "'; there is one for bash and one for zsh");
                    write_out(script);
                    return static_cast<int>(ExitGood);
                };
            }};
}
} // namespace tarn_command
