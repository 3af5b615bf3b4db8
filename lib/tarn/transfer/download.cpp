// SPDX-License-Identifier: Apache-2.0
#include "tarn/transfer/download.h"

#include <ostream>
#include <utility>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "tarn/client.h"
#include "tarn/exception.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/proto/status.pb.h"
#include "tarn/transfer/chunk_headers.h"

namespace tarn {
using tarn_internal::copy_without_transfer;
using tarn_internal::make_local_reply;
using tarn_internal::only_response;

class Download::Impl {
public:
    Impl(std::shared_ptr<Client> client, std::string path, const Headers& headers, DownloadOptions options)
        : client_(std::move(client)),
          path_(std::move(path)),
          options_(std::move(options)),
          headers_(copy_without_transfer(headers))
    {
        if (!client_)
            throw Exception(slate::trace_error(SLATE_HERE, "cannot download without a client: ", path_));
        headers_->set(chunk_header::supported, "true");
    }

    std::optional<std::string> read()
    {
        if (whole_)
            return std::nullopt;
        if (options_.stop.stop_requested()) {
            end(make_local_reply(Status::RequestTimeout, LocalCause::Cancelled,
                                 "the download was cancelled"));
            return std::nullopt;
        }
        reply_ = only_response(client_->get(path_, headers_, options_.chunk_timeout));
        const bool first = !headers_->has(chunk_header::transfer);
        const std::string transfer = reply_->bad() ? "" : reply_->header(chunk_header::transfer, "");
        if (first && !transfer.empty())
            headers_->set(chunk_header::transfer, std::string_view(transfer));
        // The end of a body in chunks is a chunk without bytes; a body in one reply ends with it.
        const bool has_bytes = reply_->good() && reply_->has_body() && !reply_->data().empty();
        whole_ = !has_bytes || (first && transfer.empty());
        if (!has_bytes)
            return std::nullopt;

        std::string chunk = reply_->data();
        received_ += chunk.size();
        try {
            if (options_.progress)
                options_.progress(received_);
        }
        catch (...) {
            end(make_local_reply(Status::RequestTimeout, LocalCause::Cancelled,
                                 "the download was cancelled"));
            throw; // and the chunk is lost
        }
        return chunk;
    }

    void end(std::shared_ptr<Reply> reply)
    {
        reply_ = std::move(reply);
        whole_ = true;
    }

    TransferResult result() const { return {reply_, received_}; }

private:
    const std::shared_ptr<Client> client_;
    const std::string path_;
    const DownloadOptions options_;
    const Headers headers_; // of the next request
    bool whole_ = false;    // nothing more is asked for
    std::uint64_t received_ = 0;
    std::shared_ptr<Reply> reply_ =
        make_local_reply(Status::BadRequest, LocalCause::InvalidRequest, "nothing has been read yet");
};

Download::Download(std::shared_ptr<Client> client, std::string path, const Headers& headers,
                   DownloadOptions options)
    : impl_(std::make_unique<Impl>(std::move(client), std::move(path), headers, std::move(options)))
{
}

Download::~Download() = default;

std::optional<std::string> Download::read()
{
    return impl_->read();
}

TransferResult Download::result() const
{
    return impl_->result();
}

TransferResult download(const std::shared_ptr<Client>& client, std::string path, std::ostream& out,
                        const DownloadOptions& options)
{
    return download(client, std::move(path), out, nullptr, options);
}

TransferResult download(const std::shared_ptr<Client>& client, std::string path, std::ostream& out,
                        const Headers& headers, const DownloadOptions& options)
{
    Download download(client, std::move(path), headers, options);
    while (const auto chunk = download.read()) {
        if (!out.write(chunk->data(), static_cast<std::streamsize>(chunk->size())))
            return {make_local_reply(Status::BadRequest, LocalCause::InvalidRequest,
                                     "the stream can't be written"),
                    download.result().bytes};
    }
    return download.result();
}
} // namespace tarn
