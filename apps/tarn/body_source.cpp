// SPDX-License-Identifier: Apache-2.0
#include "body_source.h"

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <slate/strings.h>
#include <unistd.h>

#include "command.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
[[noreturn]] void fail(const std::string& name, int error)
{
    throw Failure(ExitOther, "cannot read the body from " + name + ": " +
                                 std::generic_category().message(error) +
                                 "; name a file behind the '@', or '-' for standard input");
}

std::string quoted(const std::string& name)
{
    return "'" + brief(name) + "'";
}
} // namespace

BodySource::BodySource(const std::optional<std::string>& argument) : text_(argument.value_or(""))
{
    if (text_ == "-") {
        // Streams take what they can't read for the end.
        if ((fcntl(STDIN_FILENO, F_GETFL) & O_ACCMODE) == O_WRONLY)
            fail("standard input", EBADF);
        stream_ = &std::cin;
        return;
    }
    if (!slate::starts_with(text_, "@"))
        return;
    const std::string name = text_.substr(1);
    std::error_code error;
    if (std::filesystem::is_directory(name, error))
        fail(quoted(name), EISDIR);
    file_.open(name, std::ios::binary);
    if (!file_)
        fail(quoted(name), errno);
    stream_ = &file_;
    if (const auto size = std::filesystem::file_size(name, error); !error)
        size_ = size;
}

std::string BodySource::read_all()
{
    return stream_ ? std::string(std::istreambuf_iterator<char>(*stream_), {}) : text_;
}
} // namespace tarn_command
