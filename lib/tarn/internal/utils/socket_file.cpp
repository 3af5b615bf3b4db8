// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/socket_file.h"

#include <utility>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/utils/socket_ops.h"

namespace tarn_internal {
namespace {
slate::Descriptor open_socket(const slate::Uri& endpoint)
{
    if (endpoint.scheme() != "ipc" || endpoint.address().starts_with('@')) // which is no file
        return slate::Descriptor();
    return slate::Descriptor(open(endpoint.address().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}
} // namespace

SocketFile::SocketFile(Endpoint endpoint) : endpoint_(std::move(endpoint)), file_(open_socket(*endpoint_)) {}

void SocketFile::remove() const
{
    if (!file_.is_open())
        return;
    if (slate::is_in(file_, AT_FDCWD, endpoint_->address().c_str()))
        (void)tarn::try_cleanup_socket_file(endpoint_);
    else
        slate::log_debug(SLATE_HERE, "another socket has taken the place of ours: ", endpoint_->to_string());
}
} // namespace tarn_internal
