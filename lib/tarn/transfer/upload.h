// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>

#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/transfer/transfer_result.h"
#include "tarn/types.h"

namespace tarn {
class Client;

struct UploadOptions {
    enum class Verb { Put, Post };

    Verb verb = Verb::Put;
    /// In bytes, from 1 to max_chunk_bytes; other values are brought into that range.
    std::size_t chunk_bytes = max_chunk_bytes;
    /// For one wait for the answer to one chunk; see Client.
    slate::Duration chunk_timeout = default_timeout();
    /// The same for the last step, in which the server reads the whole body again and runs the handler.
    slate::Duration last_timeout = slate::Minutes(1);
    TransferProgress progress = {};
    /// Cancels the upload between two chunks.
    std::stop_token stop = {};
};

/// Sends a body of any size, chunk by chunk, as it is written; the route sees one PUT or POST with the whole
/// body. Every size is right, 0 and multiples of the chunk's size included: exactly one empty chunk ends the
/// transfer.
///
///     tarn::Upload upload(client, "/firmware", headers);
///     while (const auto bytes = next_bytes(); !bytes.empty())
///         if (!upload.write(bytes))
///             break;
///     const auto result = upload.finish();
///
/// No chunk is ever sent twice: if the answer to one is lost, the upload has failed, and result.bytes tells
/// how much the server had acknowledged before.
///
/// Errors: write() and finish() report failures of the exchange, and throw what Client throws for a recipient
/// that can't be taken apart. The constructor throws Exception without a client.
///
/// Threads: one at a time. Lifetime: it keeps the client. An upload that is destroyed before finish() is
/// aborted: if it has sent a chunk, it then sends one more request, and blocks as long as one chunk may take.
class Upload {
public:
    /// `headers`, which may be null, are copied; `path` is a recipient as for Client.
    Upload(std::shared_ptr<Client> client, std::string path, const Headers& headers = nullptr,
           UploadOptions options = {});
    ~Upload();
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;

    /// Adds bytes to the body. Blocks while a chunk is sent. False once the upload has failed, or was
    /// cancelled: nothing more is sent then, and finish() tells why.
    [[nodiscard]] bool write(std::string_view bytes);

    /// Sends the rest of the body and ends the transfer. The second call gives the same result again.
    [[nodiscard]] TransferResult finish();

    /// Gives the upload up and asks the server to forget what it has; finish() then reports a cancelled
    /// upload. If a chunk has been sent, this sends one more request, and blocks as long as one chunk may
    /// take. Does nothing once the upload has ended.
    void abort();

    /// What the server has acknowledged so far.
    std::uint64_t acknowledged_bytes() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

/// Uploads a stream's rest. A stream that fails before its end aborts the upload: status 400, made here.
[[nodiscard]] TransferResult upload(const std::shared_ptr<Client>& client, std::string path,
                                    std::istream& body, const UploadOptions& options = {});
[[nodiscard]] TransferResult upload(const std::shared_ptr<Client>& client, std::string path,
                                    std::istream& body, const Headers& headers, const UploadOptions& options);
} // namespace tarn
