// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/temporary_file_list.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "slate/log.h"
#include "slate/uri.h"

namespace tarn_internal {
namespace {
namespace fs = std::filesystem;

// A list that is longer was made by nobody here.
constexpr std::size_t max_list_bytes = 1 << 20;
// Others may remove the list while we open it, but not for ever.
constexpr int max_attempts = 10;
constexpr std::size_t uuid_digits = 32;

// Not the folder for temporary files: a service may have that changed between two starts. The first one
// usually outlives a restart of the device, as the files may.
constexpr std::array list_folders{"/var/tmp", "/tmp"};

/// FNV-1a, which gives the same number in every process and in every release.
std::uint64_t hash(std::string_view text)
{
    std::uint64_t value = 0xcbf29ce484222325;
    for (const char c : text)
        value = (value ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return value;
}

std::string list_name(const std::string& endpoint)
{
    std::array<char, 64> name;
    std::snprintf(name.data(), name.size(), ".tarn-%ld-%016llx", static_cast<long>(geteuid()),
                  static_cast<unsigned long long>(hash(endpoint)));
    return name.data();
}

bool is_alphanumeric(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

/// Whether TemporaryPath makes such names: a dot, perhaps another file's name and "_", and a UUID.
bool is_name_of_temporary(std::string_view name)
{
    if (name.size() < 1 + uuid_digits || name.front() != '.' ||
        !is_alphanumeric(name.substr(name.size() - uuid_digits)))
        return false;
    const std::string_view between = name.substr(1, name.size() - uuid_digits - 1);
    return between.empty() || between.back() == '_';
}

/// Whether we alone may read and write the file, and it has no other name.
bool is_private(const slate::Descriptor& file)
{
    struct stat status {};
    return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 && status.st_nlink == 1;
}

std::string content_of(const slate::Descriptor& file)
{
    std::string content(max_list_bytes, '\0');
    const auto size =
        slate::retry_interrupted([&] { return pread(file.get(), content.data(), content.size(), 0); });
    content.resize(static_cast<std::size_t>(std::max<ssize_t>(0, size)));
    return content;
}

void remove_left_behind(const fs::path& file)
{
    const std::string name = file.filename().native();
    if (!file.is_absolute() || !is_name_of_temporary(name))
        return;
    const slate::Descriptor folder(open(file.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (folder.is_open() && fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode) && status.st_uid == geteuid() && unlinkat(folder.get(), name.c_str(), 0) == 0)
        slate::log_info(SLATE_HERE, "removed what an ended process left: ", file.native());
}
} // namespace

std::shared_ptr<TemporaryFileList> TemporaryFileList::for_endpoints(const std::vector<Endpoint>& endpoints)
{
    if (endpoints.empty() || !endpoints.front() || endpoints.front()->scheme() == "inproc")
        return nullptr;
    const auto writable = std::find_if(list_folders.begin(), list_folders.end(),
                                       [](const char* folder) { return access(folder, W_OK | X_OK) == 0; });
    if (writable == list_folders.end())
        return nullptr;
    return std::make_shared<TemporaryFileList>(fs::path(*writable) /
                                               list_name(endpoints.front()->to_string()));
}

TemporaryFileList::TemporaryFileList(fs::path path) : path_(std::move(path)) {}

TemporaryFileList::~TemporaryFileList()
{
    if (list_.is_open())
        close_list();
}

void TemporaryFileList::sweep()
{
    const std::lock_guard lock(mutex_);
    if (list_.is_open() || !open_list(false))
        return;
    sweep_listed();
    close_list();
}

void TemporaryFileList::add(const fs::path& file)
{
    const std::string line = file.native() + '\n';
    if (!file.is_absolute() || file.native().find('\n') != std::string::npos || line.size() > max_list_bytes)
        return;

    const std::lock_guard lock(mutex_);
    if (!list_.is_open()) {
        if (!open_list(true))
            return;
        sweep_listed();
    }
    const auto same_size = std::find_if(free_.begin(), free_.end(),
                                        [&](const Place& place) { return place.size == line.size(); });
    const Place place = same_size == free_.end() ? Place{end_, line.size()} : *same_size;
    if (!write_line(place, line))
        return;
    if (same_size == free_.end())
        end_ += static_cast<off_t>(line.size());
    else
        free_.erase(same_size);
    listed_.emplace(file.native(), place);
}

void TemporaryFileList::remove(const fs::path& file)
{
    const std::lock_guard lock(mutex_);
    const auto found = listed_.find(file.native());
    if (found == listed_.end())
        return;
    if (write_line(found->second, "#"))
        free_.push_back(found->second);
    listed_.erase(found);
    if (listed_.empty())
        close_list();
}

/// Opens and locks the list. False if that isn't possible, or the file could be somebody else's: anybody may
/// put a file or a link into that folder.
bool TemporaryFileList::open_list(bool create)
{
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (create ? O_CREAT : 0);
    for (int i = 0; i < max_attempts; ++i) {
        slate::Descriptor opened(open(path_.c_str(), flags, S_IRUSR | S_IWUSR));
        if (!opened.is_open() || flock(opened.get(), LOCK_EX | LOCK_NB) != 0)
            return false;
        // The last owner may have removed the list before it gave up the lock.
        if (!slate::is_in(opened, AT_FDCWD, path_.c_str()))
            continue;
        if (!is_private(opened))
            return false;
        list_ = std::move(opened);
        return true;
    }
    return false;
}

/// Removes the listed files of the owner before, and empties the list.
void TemporaryFileList::sweep_listed()
{
    std::istringstream lines(content_of(list_));
    for (std::string line; std::getline(lines, line);)
        remove_left_behind(line);
    if (ftruncate(list_.get(), 0) != 0)
        slate::log_debug(SLATE_HERE, "can't empty ", path_.native());
    end_ = 0;
}

/// Removes the list, which we have locked, so that nothing stays behind.
void TemporaryFileList::close_list()
{
    if (slate::is_in(list_, AT_FDCWD, path_.c_str()))
        (void)unlink(path_.c_str()); // fails only if somebody has changed the folder
    list_ = slate::Descriptor();
    listed_.clear();
    free_.clear();
    end_ = 0;
}

bool TemporaryFileList::write_line(const Place& place, const std::string& line) const
{
    return slate::retry_interrupted([&] {
               return pwrite(list_.get(), line.data(), line.size(), place.offset);
           }) == static_cast<ssize_t>(line.size());
}
} // namespace tarn_internal
