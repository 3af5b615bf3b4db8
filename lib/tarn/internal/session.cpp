// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/session.h"

#include <fstream>
#include <utility>

#include "slate/strings.h"
#include "slate/uuid.h"
#include "tarn/exception.h"

namespace tarn_internal {
namespace {
std::filesystem::path with_uuid(const std::string& prefix)
{
    return prefix + slate::trim_alphanumeric(slate::make_uuid().to_string());
}
} // namespace

TemporaryPath::TemporaryPath() : prefix("."), path(std::filesystem::temp_directory_path() / with_uuid(prefix))
{
}

TemporaryPath::TemporaryPath(const std::filesystem::path& destination)
    : prefix("." + destination.filename().string() + "_"),
      path(destination.parent_path() / with_uuid(prefix))
{
    if (!destination.has_root_directory())
        throw tarn::Exception(slate::trace_error(
            SLATE_HERE, "The destination for the temporary file must be an absolute path!"));
    if (destination.filename().string().starts_with('.'))
        throw tarn::Exception(slate::trace_error(
            SLATE_HERE, "The destination for the temporary file cannot be a hidden file!"));
}

TransferBuffer::TransferBuffer(TemporaryPath temporary_path) : path(std::move(temporary_path))
{
    data.reserve(max_data_in_memory);
}

TransferBuffer::~TransferBuffer()
{
    if (keep_file)
        return;
    try {
        std::filesystem::remove(path.path);
    }
    catch (...) {
        slate::log_error(SLATE_HERE, "~TransferBuffer caught exception");
    }
}

void TransferBuffer::flush() const
{
    // A failure shows when the file is opened.
    std::error_code ignored;
    std::filesystem::create_directories(path.path.parent_path(), ignored);

    std::ofstream file(path.path, std::ios::out | std::ios::app | std::ios::binary);
    if (!file)
        throw tarn::Exception(
            slate::trace_error(SLATE_HERE, "flush failed, failed to open: ", path.path.string()));
    file.write(data.data(), static_cast<std::streamsize>(data.size()));
    file.close();
    if (file.fail())
        throw tarn::Exception(slate::trace_error(SLATE_HERE, "flush failed, out of disk space?"));
    data.clear();
}

void TransferBuffer::read(std::string* out) const
{
    std::error_code ignored; // a file whose status can't be read was never created
    if (!std::filesystem::exists(path.path, ignored)) {
        out->swap(data);
        data.clear();
        return;
    }
    flush();
    std::ifstream file(path.path, std::ios::in | std::ios::binary);
    file.seekg(0, std::ios::end);
    out->resize(static_cast<std::size_t>(std::max<std::streamoff>(0, file.tellg())));
    file.seekg(0, std::ios::beg);
    file.read(out->data(), static_cast<std::streamsize>(out->size()));
    if (!file) // else a handler would take a part for the whole
        throw tarn::Exception(slate::trace_error(SLATE_HERE, "read failed: ", path.path.string()));
}

WriteSession::WriteSession(std::string transfer_id, slate::Duration expiry, TemporaryPath path)
    : id(std::move(transfer_id)),
      expires(expiry),
      buffer(std::move(path))
{
}

void WriteSession::append(const std::string& data, std::optional<std::uint32_t> chunk)
{
    if (chunk && *chunk != next_chunk) {
        if (*chunk == next_chunk - 1) // sent twice
            return;
        if (next_chunk < *chunk)
            throw tarn::MessageException(tarn::Status::BadRequest,
                                         slate::trace_error(SLATE_HERE, "wrong chunk; expected ",
                                                            std::to_string(next_chunk), " but got ",
                                                            std::to_string(*chunk)));
        // Deliberate: only a gap ahead is refused; a chunk older than the last one is taken as if it were
        // right.
    }
    buffer.data.append(data);
    if (buffer.data.size() > TransferBuffer::max_data_in_memory)
        buffer.flush();
    ++next_chunk;
}

std::string to_string(const WriteSession& session)
{
    // Prints the expiry under the name "path": kept, because log readers know it so.
    return "WriteSession { id: " + session.id + ", path: " + session.expires.to_string(0) + " }";
}
} // namespace tarn_internal
