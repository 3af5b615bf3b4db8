// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tarn_test {
/// A fresh folder for the files of one test, removed with all that is in it when the object dies.
class ScratchFolder {
public:
    ScratchFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
        if (!mkdtemp(name.data()))
            throw std::system_error(errno, std::generic_category(), "can't make a scratch folder");
        path_ = name;
    }
    ~ScratchFolder()
    {
        std::error_code ignored; // a folder left behind fails no test
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};
} // namespace tarn_test
