// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transfer_steps.h"

#include <algorithm>
#include <utility>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/uuid.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/proto/status.pb.h"
#include "tarn/transfer/chunk_headers.h"
#include "tarn/transfer/transfer_result.h"

namespace tarn_internal {
UploadSteps::UploadSteps(std::string path, const Headers& headers, std::size_t chunk_bytes)
    : path_(std::move(path)),
      chunk_bytes_(std::clamp<std::size_t>(chunk_bytes, 1, max_chunk_bytes)),
      headers_(copy_without_transfer(headers))
{
    headers_->set(chunk_header::transfer, std::string_view(slate::make_uuid().to_string()));
}

std::size_t UploadSteps::collect(std::string_view bytes)
{
    const auto part = bytes.substr(0, chunk_bytes_ - chunk_.size());
    chunk_ += part;
    return part.size();
}

void UploadSteps::number_chunk()
{
    headers_->set(chunk_header::number, next_chunk_++);
}

std::string UploadSteps::take_chunk()
{
    number_chunk();
    return std::exchange(chunk_, {});
}

std::string UploadSteps::take_last_chunk()
{
    number_chunk();
    return {};
}

std::string UploadSteps::take_forgetting_chunk()
{
    ++next_chunk_;
    number_chunk();
    return std::string(1, '\0');
}

bool UploadSteps::take_answer(std::shared_ptr<Reply> reply, std::size_t bytes)
{
    reply = only_response(std::move(reply));
    if (reply->bad()) {
        end(std::move(reply));
        return false;
    }
    acknowledged_ += bytes;
    return true;
}

void UploadSteps::end(std::shared_ptr<Reply> reply)
{
    if (ended_)
        return;
    if (reply->bad())
        slate::log_error(SLATE_HERE, "upload to ", path_,
                         " failed after bytes acknowledged: ", std::to_string(acknowledged_));
    ended_ = std::move(reply);
}

void UploadSteps::end(Status status, LocalCause cause, const std::string& reason)
{
    end(make_local_reply(status, cause, reason));
}

DownloadSteps::DownloadSteps(const Headers& headers)
    : headers_(copy_without_transfer(headers)),
      reply_(make_local_reply(Status::BadRequest, LocalCause::InvalidRequest, "nothing has been read yet"))
{
    headers_->set(chunk_header::supported, "true");
}

bool DownloadSteps::take_answer(const std::shared_ptr<Reply>& answer)
{
    reply_ = only_response(answer);
    const bool first = !headers_->has(chunk_header::transfer);
    const std::string transfer = reply_->bad() ? "" : reply_->header(chunk_header::transfer, "");
    if (first && !transfer.empty())
        headers_->set(chunk_header::transfer, std::string_view(transfer));
    // The end of a body in chunks is a chunk without bytes; a body in one reply ends with it.
    const bool has_bytes = reply_->good() && reply_->has_body() && !reply_->data().empty();
    ended_ = !has_bytes || (first && transfer.empty());
    if (has_bytes)
        received_ += reply_->data().size();
    return has_bytes;
}

void DownloadSteps::end(Status status, LocalCause cause, const std::string& reason)
{
    reply_ = make_local_reply(status, cause, reason);
    ended_ = true;
}
} // namespace tarn_internal
