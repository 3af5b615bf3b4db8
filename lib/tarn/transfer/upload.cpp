// SPDX-License-Identifier: Apache-2.0
#include "tarn/transfer/upload.h"

#include <algorithm>
#include <istream>
#include <utility>
#include <vector>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/uuid.h"
#include "tarn/client.h"
#include "tarn/exception.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/message_factory.h"
#include "tarn/proto/status.pb.h"
#include "tarn/transfer/chunk_headers.h"

namespace tarn {
using tarn_internal::copy_without_transfer;
using tarn_internal::make_local_reply;
using tarn_internal::only_response;

class Upload::Impl {
public:
    Impl(std::shared_ptr<Client> client, std::string path, const Headers& headers, UploadOptions options)
        : client_(std::move(client)),
          path_(std::move(path)),
          options_(std::move(options)),
          chunk_bytes_(std::clamp<std::size_t>(options_.chunk_bytes, 1, max_chunk_bytes)),
          headers_(copy_without_transfer(headers))
    {
        if (!client_)
            throw Exception(slate::trace_error(SLATE_HERE, "cannot upload without a client: ", path_));
        headers_->set(chunk_header::transfer, std::string_view(slate::make_uuid().to_string()));
    }

    bool write(std::string_view bytes)
    {
        try {
            while (!ended_ && !bytes.empty()) {
                const auto part = bytes.substr(0, chunk_bytes_ - chunk_.size());
                chunk_ += part;
                bytes.remove_prefix(part.size());
                if (chunk_.size() == chunk_bytes_)
                    send_chunk();
            }
        }
        catch (...) {
            abort(); // the body would have a hole
            throw;
        }
        return !ended_;
    }

    TransferResult finish()
    {
        if (!ended_ && !chunk_.empty())
            send_chunk();
        if (options_.stop.stop_requested())
            abort();
        if (!ended_)
            end(exchange({}, options_.last_timeout));
        return {ended_, acknowledged_};
    }

    void abort() { abort("the upload was aborted", Status::RequestTimeout, LocalCause::Cancelled); }

    void abort(const std::string& reason, Status status, LocalCause cause)
    {
        if (ended_)
            return;
        end(make_local_reply(status, cause, reason));
        if (next_chunk_ > 0)
            make_server_forget();
    }

    std::uint64_t acknowledged() const { return acknowledged_; }

private:
    /// Sends what has been collected. A failure ends the upload.
    void send_chunk()
    {
        if (options_.stop.stop_requested()) {
            abort();
            return;
        }
        const std::size_t size = chunk_.size();
        auto reply = exchange(std::exchange(chunk_, {}), options_.chunk_timeout);
        if (reply->bad()) {
            end(std::move(reply));
            return;
        }
        acknowledged_ += size;
        if (options_.progress)
            options_.progress(acknowledged_);
    }

    std::shared_ptr<Reply> exchange(std::string&& bytes, const slate::Duration& timeout)
    {
        headers_->set(chunk_header::number, next_chunk_++);
        return only_response(options_.verb == UploadOptions::Verb::Put
                                 ? client_->put(path_, std::move(bytes), headers_, timeout)
                                 : client_->post(path_, std::move(bytes), headers_, timeout));
    }

    /// A chunk beyond a gap is refused and ends the transfer at once, file included. It isn't empty, so that
    /// a route which takes chunks itself doesn't take it for the end of the body.
    void make_server_forget()
    {
        ++next_chunk_;
        (void)exchange(std::string(1, '\0'), options_.chunk_timeout);
    }

    void end(std::shared_ptr<Reply> reply)
    {
        if (reply->bad())
            slate::log_error(SLATE_HERE, "upload to ", path_,
                             " failed after bytes acknowledged: ", std::to_string(acknowledged_));
        ended_ = std::move(reply);
    }

    const std::shared_ptr<Client> client_;
    const std::string path_;
    const UploadOptions options_;
    const std::size_t chunk_bytes_;
    const Headers headers_; // of each chunk
    std::string chunk_;     // collected, and not yet sent
    std::uint32_t next_chunk_ = 0;
    std::uint64_t acknowledged_ = 0;
    std::shared_ptr<Reply> ended_; // the reply that ended the upload; null while it goes on
};

Upload::Upload(std::shared_ptr<Client> client, std::string path, const Headers& headers,
               UploadOptions options)
    : impl_(std::make_unique<Impl>(std::move(client), std::move(path), headers, std::move(options)))
{
}

Upload::~Upload()
{
    try {
        impl_->abort();
    }
    catch (const std::exception& error) {
        slate::log_error(SLATE_HERE, "cannot abort upload: ", error.what());
    }
    catch (...) {
        slate::log_error(SLATE_HERE, "cannot abort upload: unknown exception");
    }
}

bool Upload::write(std::string_view bytes)
{
    return impl_->write(bytes);
}

TransferResult Upload::finish()
{
    return impl_->finish();
}

void Upload::abort()
{
    impl_->abort();
}

std::uint64_t Upload::acknowledged_bytes() const
{
    return impl_->acknowledged();
}

TransferResult upload(const std::shared_ptr<Client>& client, std::string path, std::istream& body,
                      const UploadOptions& options)
{
    return upload(client, std::move(path), body, nullptr, options);
}

TransferResult upload(const std::shared_ptr<Client>& client, std::string path, std::istream& body,
                      const Headers& headers, const UploadOptions& options)
{
    Upload upload(client, std::move(path), headers, options);
    std::vector<char> buffer(std::size_t{64} * 1024);
    while (body.read(buffer.data(), static_cast<std::streamsize>(buffer.size())), body.gcount() > 0) {
        if (!upload.write({buffer.data(), static_cast<std::size_t>(body.gcount())}))
            return upload.finish();
    }
    if (!body.eof()) {
        upload.abort();
        return {make_local_reply(Status::BadRequest, LocalCause::InvalidRequest, "the stream can't be read"),
                upload.acknowledged_bytes()};
    }
    return upload.finish();
}
} // namespace tarn
