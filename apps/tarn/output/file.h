// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace tarn_command {
/// A file that gets its name only when it is whole, so that no broken download is taken for a good one. Until
/// then it stands beside its place, and what ends the process early removes it, but for SIGKILL. It keeps the
/// mode of a file that it replaces, and goes where a link leads to. What isn't a regular file, such as
/// /dev/null, is written directly. One at a time.
class OutputFile {
public:
    /// Make it before any thread. This and all else throws Failure if the file can't be written.
    explicit OutputFile(std::string name);
    /// Removes what hasn't been finished.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(std::string_view bytes);
    void finish();

private:
    void open_beside(const std::string& target);
    [[noreturn]] void fail(int error) const;

    std::string name_;   // as it was given
    std::string target_; // where links lead
    std::string written_;
    bool is_direct_ = false;
    FILE* file_ = nullptr;
};
} // namespace tarn_command
