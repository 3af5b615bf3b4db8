// SPDX-License-Identifier: Apache-2.0
#include "tarn/storage/file_store.h"

#include <fstream>

#include "slate/file.h"
#include "slate/log.h"
#include "tarn/exception.h"

namespace tarn {
FileStore::FileStore(const std::filesystem::path& path, const std::shared_ptr<slate::Provider>& provider)
    : path_(path),
      provider_(provider)
{
    if (path_.empty() || std::filesystem::is_directory(path_))
        throw Exception(
            slate::trace_error(provider_, SLATE_HERE, "file store; invalid path: ", path_.string()));
    if (!provider_)
        throw Exception(slate::trace_error(SLATE_HERE, "file store; null provider, path: ", path_.string()));
}

std::optional<std::string> FileStore::read(long revision) const
{
    if (!exists(revision))
        return std::nullopt;
    return slate::slurp_trusted_file(path_);
}

void FileStore::write(const std::string& data)
{
    if (const auto folder = path_.parent_path(); !std::filesystem::exists(folder))
        slate::powersafe_create_directories(folder);
    slate::powersafe_write(path_, [&](std::ofstream& stream) {
        stream.write(data.data(), static_cast<std::streamsize>(data.size()));
    });
}

bool FileStore::exists(long /*revision*/) const
{
    const auto type = std::filesystem::status(path_).type();
    return type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::none;
}

void FileStore::erase(PurgePolicy /*policy*/)
{
    slate::remove_powersafe_leftover(path_); // erased data must not survive in an unfinished write
    (void)slate::powersafe_remove(path_);    // a missing file is not an error
}
} // namespace tarn
