// SPDX-License-Identifier: Apache-2.0
#include "tarn/transfer/download.h"

#include <ostream>
#include <utility>

#include "slate/log.h"
#include "tarn/client.h"
#include "tarn/exception.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/internal/transfer_steps.h"
#include "tarn/proto/status.pb.h"

namespace tarn {
using tarn_internal::make_local_reply;

class Download::Impl {
public:
    Impl(std::shared_ptr<Client> client, std::string path, const Headers& headers, DownloadOptions options)
        : client_(std::move(client)),
          path_(std::move(path)),
          options_(std::move(options)),
          steps_(headers)
    {
        if (!client_)
            throw Exception(slate::trace_error(SLATE_HERE, "cannot download without a client: ", path_));
    }

    std::optional<std::string> read()
    {
        if (steps_.has_ended())
            return std::nullopt;
        if (options_.stop.stop_requested()) {
            cancel();
            return std::nullopt;
        }
        if (!steps_.take_answer(client_->get(path_, steps_.headers(), options_.chunk_timeout)))
            return std::nullopt;

        std::string chunk = steps_.reply()->data();
        try {
            if (options_.progress)
                options_.progress(steps_.received());
        }
        catch (...) {
            cancel();
            throw; // and the chunk is lost
        }
        return chunk;
    }

    TransferResult result() const { return {steps_.reply(), steps_.received()}; }

private:
    void cancel() { steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the download was cancelled"); }

    const std::shared_ptr<Client> client_;
    const std::string path_;
    const DownloadOptions options_;
    tarn_internal::DownloadSteps steps_;
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
