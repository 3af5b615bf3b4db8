// SPDX-License-Identifier: Apache-2.0
#include "personal_directory.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/stat.h>

#include <tarn/fabric/fabric.h>

namespace personal_directory {
void require(const std::filesystem::path& directory)
{
    if (const auto fault = tarn::check_personal_directory(directory))
        throw std::runtime_error(*fault);
}

void make(const std::filesystem::path& directory)
{
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::runtime_error(directory.string() +
                                 " can't be made: " + std::generic_category().message(errno));
    require(directory);
}
} // namespace personal_directory
