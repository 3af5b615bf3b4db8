// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/session.h"

#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "slate/descriptor.h"
#include "slate/file.h"
#include "slate/strings.h"
#include "slate/uuid.h"
#include "tarn/exception.h"
#include "tarn/internal/server/temporary_file_list.h"

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

struct TransferBuffer::File {
    slate::Descriptor descriptor;
    std::uint64_t size = 0;
};

TransferBuffer::TransferBuffer(TemporaryPath temporary_path) : path(std::move(temporary_path))
{
    data.reserve(max_data_in_memory);
}

TransferBuffer::~TransferBuffer()
{
    try {
        if (!keep_file)
            std::filesystem::remove(path.path);
    }
    catch (...) {
        slate::log_error(SLATE_HERE, "~TransferBuffer caught exception");
    }
    if (list_)
        list_->remove(path.path);
}

void TransferBuffer::list_in(std::shared_ptr<TemporaryFileList> list)
{
    list_ = std::move(list);
}

void TransferBuffer::flush() const
{
    if (!file_)
        make_file();
    std::string_view rest = data;
    while (!rest.empty()) {
        const ssize_t written = slate::retry_interrupted(
            [&] { return write(file_->descriptor.get(), rest.data(), rest.size()); });
        if (written <= 0)
            throw tarn::Exception(slate::trace_error(SLATE_HERE, "flush failed, out of disk space?"));
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    file_->size += data.size();
    data.clear();
}

void TransferBuffer::make_file() const
{
    try {
        slate::powersafe_create_directories(path.path.parent_path());
    }
    catch (const std::filesystem::filesystem_error&) {
        // Shows when the file is opened.
    }
    if (list_)
        list_->add(path.path);
    slate::Descriptor made(
        open(path.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!made.is_open()) {
        if (list_)
            list_->remove(path.path);
        throw tarn::Exception(
            slate::trace_error(SLATE_HERE, "flush failed, failed to open: ", path.path.string()));
    }
    file_ = std::make_shared<File>(File{std::move(made)});
}

std::uint64_t TransferBuffer::size() const
{
    return data.size() + (file_ ? file_->size : 0);
}

void TransferBuffer::read(std::string* out) const
{
    if (!file_) {
        out->swap(data);
        data.clear();
        return;
    }
    flush();
    if (file_->size > out->max_size())
        throw tarn::Exception(slate::trace_error(SLATE_HERE, "read failed, too large: ", path.path.string()));
    out->resize(static_cast<std::size_t>(file_->size));
    for (std::size_t done = 0; done < out->size();) {
        const ssize_t count = slate::retry_interrupted([&] {
            return pread(file_->descriptor.get(), out->data() + done, out->size() - done,
                         static_cast<off_t>(done));
        });
        if (count <= 0) // else a handler would take a part for the whole
            throw tarn::Exception(slate::trace_error(SLATE_HERE, "read failed: ", path.path.string()));
        done += static_cast<std::size_t>(count);
    }
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
