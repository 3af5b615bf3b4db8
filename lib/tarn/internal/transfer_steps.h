// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarn/reply.h"
#include "tarn/types.h"

namespace tarn_internal {
/// What an upload sends, and what its answers mean; sending is its owner's part.
///
/// Threads: one at a time.
class UploadSteps {
public:
    /// `headers` are copied. `chunk_bytes` is brought into its range; see UploadOptions.
    UploadSteps(std::string path, const Headers& headers, std::size_t chunk_bytes);

    /// Takes the beginning of `bytes`, up to a whole chunk, and returns how much that is.
    std::size_t collect(std::string_view bytes);
    bool has_whole_chunk() const { return chunk_.size() == chunk_bytes_; }
    bool has_rest() const { return !chunk_.empty(); }

    // The bytes of the next request, whose headers are then in headers(): what has been collected, ...
    std::string take_chunk();
    /// ... the end of the body, which is an empty chunk, ...
    std::string take_last_chunk();
    /// ... and one that makes the server forget the transfer: it is beyond a gap, which ends the transfer at
    /// once, file included. It isn't empty, so that a route which takes chunks itself doesn't take it for the
    /// end of the body.
    std::string take_forgetting_chunk();
    const Headers& headers() const { return headers_; }

    /// Whether the server has anything to forget.
    bool has_begun() const { return next_chunk_ > 0; }

    /// The answer to a chunk of `bytes` bytes. A bad one ends the upload; returns whether it was good.
    bool take_answer(std::shared_ptr<Reply> reply, std::size_t bytes);

    /// Ends the upload by this reply. Does nothing if it has ended.
    void end(std::shared_ptr<Reply> reply);
    /// By a reply that no server gave.
    void end(Status status, LocalCause cause, const std::string& reason);
    /// The reply that ended the upload; null while it goes on.
    const std::shared_ptr<Reply>& ended() const { return ended_; }

    std::uint64_t acknowledged() const { return acknowledged_; }

private:
    void number_chunk();

    const std::string path_; // for the log
    const std::size_t chunk_bytes_;
    const Headers headers_;
    std::string chunk_; // collected, and not yet taken
    std::uint32_t next_chunk_ = 0;
    std::uint64_t acknowledged_ = 0;
    std::shared_ptr<Reply> ended_;
};

/// What a download asks for, and what its answers mean; asking is its owner's part.
///
/// Threads: one at a time.
class DownloadSteps {
public:
    /// `headers` are copied.
    explicit DownloadSteps(const Headers& headers);

    /// Of the next request.
    const Headers& headers() const { return headers_; }
    /// Whether nothing more is to be asked for.
    bool has_ended() const { return ended_; }

    /// The next answer. Whether it brings bytes, which are in reply() then; otherwise the download has ended.
    bool take_answer(const std::shared_ptr<Reply>& answer);
    /// Ends the download by a reply that no server gave.
    void end(Status status, LocalCause cause, const std::string& reason);

    /// The last answer, or what ended the download.
    const std::shared_ptr<Reply>& reply() const { return reply_; }
    std::uint64_t received() const { return received_; }

private:
    const Headers headers_;
    bool ended_ = false;
    std::uint64_t received_ = 0;
    std::shared_ptr<Reply> reply_;
};
} // namespace tarn_internal
