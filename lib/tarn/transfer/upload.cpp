// SPDX-License-Identifier: Apache-2.0
#include "tarn/transfer/upload.h"

#include <istream>
#include <utility>
#include <vector>

#include "slate/log.h"
#include "tarn/client.h"
#include "tarn/exception.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/internal/transfer_steps.h"
#include "tarn/proto/status.pb.h"

namespace tarn {
using tarn_internal::make_local_reply;
using tarn_internal::only_response;

class Upload::Impl {
public:
    Impl(std::shared_ptr<Client> client, std::string path, const Headers& headers, UploadOptions options)
        : client_(std::move(client)),
          path_(std::move(path)),
          options_(std::move(options)),
          steps_(path_, headers, options_.chunk_bytes)
    {
        if (!client_)
            throw Exception(slate::trace_error(SLATE_HERE, "cannot upload without a client: ", path_));
    }

    bool write(std::string_view bytes)
    {
        try {
            while (!steps_.ended() && !bytes.empty()) {
                bytes.remove_prefix(steps_.collect(bytes));
                if (steps_.has_whole_chunk())
                    send_chunk();
            }
        }
        catch (...) {
            abort(); // the body would have a hole
            throw;
        }
        return !steps_.ended();
    }

    TransferResult finish()
    {
        if (!steps_.ended() && steps_.has_rest())
            send_chunk();
        if (options_.stop.stop_requested())
            abort();
        if (!steps_.ended())
            steps_.end(only_response(exchange(steps_.take_last_chunk(), options_.last_timeout)));
        return {steps_.ended(), steps_.acknowledged()};
    }

    void abort()
    {
        if (steps_.ended())
            return;
        steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the upload was aborted");
        if (steps_.has_begun())
            (void)exchange(steps_.take_forgetting_chunk(), options_.chunk_timeout);
    }

    std::uint64_t acknowledged() const { return steps_.acknowledged(); }

private:
    /// Sends what has been collected. A failure ends the upload.
    void send_chunk()
    {
        if (options_.stop.stop_requested()) {
            abort();
            return;
        }
        std::string chunk = steps_.take_chunk();
        const std::size_t size = chunk.size();
        if (steps_.take_answer(exchange(std::move(chunk), options_.chunk_timeout), size) && options_.progress)
            options_.progress(steps_.acknowledged());
    }

    std::shared_ptr<Reply> exchange(std::string&& bytes, const slate::Duration& timeout)
    {
        return options_.verb == UploadOptions::Verb::Put
                   ? client_->put(path_, std::move(bytes), steps_.headers(), timeout)
                   : client_->post(path_, std::move(bytes), steps_.headers(), timeout);
    }

    const std::shared_ptr<Client> client_;
    const std::string path_;
    const UploadOptions options_;
    tarn_internal::UploadSteps steps_;
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
