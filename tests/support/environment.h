// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace tarn_test {
/// Makes a path the system's folder for temporary files, for as long as it lives. Set it while no other
/// thread asks.
class TemporaryFolderVariable {
public:
    explicit TemporaryFolderVariable(const std::filesystem::path& path)
    {
        if (const char* value = std::getenv(name))
            before_ = value;
        setenv(name, path.c_str(), 1);
    }
    ~TemporaryFolderVariable()
    {
        if (before_)
            setenv(name, before_->c_str(), 1);
        else
            unsetenv(name);
    }
    TemporaryFolderVariable(const TemporaryFolderVariable&) = delete;
    TemporaryFolderVariable& operator=(const TemporaryFolderVariable&) = delete;

private:
    static constexpr const char* name = "TMPDIR";

    std::optional<std::string> before_;
};

/// Lets no file of this process grow beyond so many bytes: what a full disk looks like to a writer.
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::size_t bytes)
    {
        if (getrlimit(RLIMIT_FSIZE, &before_) != 0)
            throw std::system_error(errno, std::generic_category(), "can't read the limit");
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignore, &action_before_);
        const rlimit limit = {bytes, before_.rlim_max};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            throw std::system_error(errno, std::generic_category(), "can't set the limit");
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        sigaction(SIGXFSZ, &action_before_, nullptr);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit before_{};
    struct sigaction action_before_ {};
};

/// Whether the allocator ends the process where another one would report that there is no memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool allocator_aborts = true;
#else
inline constexpr bool allocator_aborts = false;
#endif

/// Lets this process have so many bytes of address space more than now.
class AddressSpaceLimit {
public:
    explicit AddressSpaceLimit(std::size_t bytes)
    {
        if (getrlimit(RLIMIT_AS, &before_) != 0)
            throw std::system_error(errno, std::generic_category(), "can't read the limit");
        std::size_t pages = 0;
        if (!(std::ifstream("/proc/self/statm") >> pages))
            throw std::runtime_error("can't read the size of this process");
        const rlimit limit = {pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + bytes,
                              before_.rlim_max};
        if (setrlimit(RLIMIT_AS, &limit) != 0)
            throw std::system_error(errno, std::generic_category(), "can't set the limit");
    }
    ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &before_); }
    AddressSpaceLimit(const AddressSpaceLimit&) = delete;
    AddressSpaceLimit& operator=(const AddressSpaceLimit&) = delete;

private:
    rlimit before_{};
};

/// Lets this process have so many file descriptors.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t count)
    {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit limit = {count, before_.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
            throw std::system_error(errno, std::generic_category(), "can't set the limit");
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before_{};
};

/// What lies below a folder and is not a folder itself.
inline std::vector<std::filesystem::path> files_below(const std::filesystem::path& folder)
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_directory())
            files.push_back(entry.path());
    }
    return files;
}
} // namespace tarn_test
