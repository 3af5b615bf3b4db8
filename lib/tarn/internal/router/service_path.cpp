// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/router/service_path.h"

#include <vector>

#include <sys/stat.h>

#include "slate/strings.h"
#include "slate/uri.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
/// Looks only at the directory, not at the socket in it. No path may escape from the directory.
bool is_service(const std::filesystem::path& directory, const std::string& name)
{
    return name != "." && name != ".." && std::filesystem::exists(directory / name);
}
} // namespace

std::optional<ServicePath> find_service(const std::filesystem::path& run_time_directory,
                                        std::string_view path)
{
    auto segments = slate::split<std::vector<std::string>>(path, "/", false, true);
    if (segments.empty() || !is_service(run_time_directory, segments.front()))
        return std::nullopt;

    std::string endpoint = "ipc://" + run_time_directory.string() + "/" + segments.front();
    unsigned int number = 0;
    const bool numbered = segments.size() > 1 && slate::try_parse(segments[1], &number);
    if (numbered)
        endpoint += "/" + std::to_string(number);
    endpoint += "/zmq.sock";
    segments.erase(segments.begin(), segments.begin() + (numbered ? 2 : 1));

    auto uri = slate::make_uri(endpoint);
    if (!uri) // the name can't be part of an endpoint
        return std::nullopt;
    return ServicePath{std::move(uri), "/" + slate::join(segments, "/")};
}

std::filesystem::path normalise_directory(const std::filesystem::path& directory)
{
    auto result = std::filesystem::absolute(directory).lexically_normal();
    return result.has_filename() ? result : result.parent_path();
}

bool is_same_socket(const slate::Uri& one, const slate::Uri& other)
{
    if (one.scheme() != "ipc" || other.scheme() != "ipc")
        return false;
    struct stat first {};
    struct stat second {};
    return one.address() == other.address() ||
           (stat(one.address().c_str(), &first) == 0 && stat(other.address().c_str(), &second) == 0 &&
            first.st_dev == second.st_dev && first.st_ino == second.st_ino);
}

bool is_routable(const Message& message)
{
    return message.type_case() != Message::TYPE_NOT_SET && !message.has_call() && !message.has_response();
}
} // namespace tarn_internal
