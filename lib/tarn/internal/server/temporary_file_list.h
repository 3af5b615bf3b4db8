// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include "slate/descriptor.h"
#include "tarn/types.h"

namespace tarn_internal {
/// The temporary files that one server has open, in a file of its own, so that the next start of the service
/// removes what a killed process has left behind.
///
/// The list is a locked file, and exists only while there are temporary files: a line for each path, written
/// before the file is made. The line of a file that is gone begins with "#" until another takes its place, so
/// the list is never longer than the greatest number of files at one time. A process that finds the list
/// unlocked knows that its owner has ended.
///
/// Everything here is a service to the disk: what fails is left undone, and no upload fails because of it.
///
/// Threads: any.
class TemporaryFileList {
public:
    /// The list of a server with these endpoints, in a folder that outlives the process: named by the user
    /// and the first endpoint, which no other process has at the same time. Null without an endpoint that
    /// others can reach, because no later process would look for the list.
    static std::shared_ptr<TemporaryFileList> for_endpoints(const std::vector<Endpoint>& endpoints);

    explicit TemporaryFileList(std::filesystem::path path);
    ~TemporaryFileList();
    TemporaryFileList(const TemporaryFileList&) = delete;
    TemporaryFileList& operator=(const TemporaryFileList&) = delete;

    const std::filesystem::path& path() const { return path_; }

    /// Removes the files that an ended process has left, and its list. Does nothing if the list is in use or
    /// could be somebody else's. Only regular files of this user with names such as TemporaryPath makes go.
    void sweep();

    /// Notes a file that is about to be made.
    void add(const std::filesystem::path& file);
    /// Forgets a file that is gone.
    void remove(const std::filesystem::path& file);

private:
    struct Place {
        off_t offset;
        std::size_t size;
    };

    bool open_list(bool create);
    void sweep_listed();
    void close_list();
    bool write_line(const Place& place, const std::string& line) const;

    const std::filesystem::path path_;
    std::mutex mutex_; // guards the rest
    slate::Descriptor list_;
    std::map<std::string, Place> listed_;
    std::vector<Place> free_; // lines whose files are gone
    off_t end_ = 0;
};
} // namespace tarn_internal
