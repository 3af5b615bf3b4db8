// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/transfer/transfer_result.h"
#include "tarn/types.h"

namespace tarn {
class Client;

struct DownloadOptions {
    /// For one wait for one chunk; see Client.
    slate::Duration chunk_timeout = default_timeout();
    TransferProgress progress = {};
    /// Cancels the download between two chunks.
    std::stop_token stop = {};
};

/// Fetches a body of any size, chunk by chunk as the route gives it. A route that answers in one reply gives
/// one chunk.
///
///     tarn::Download download(client, "/image");
///     while (const auto chunk = download.read())
///         use(*chunk);
///     if (download.result().bad()) ...
///
/// Errors: read() ends, and result() tells why. It throws what Client throws for a recipient that can't be
/// taken apart; the constructor throws Exception without a client.
///
/// Threads: one at a time. Lifetime: it keeps the client.
class Download {
public:
    /// `headers`, which may be null, are copied; `path` is a recipient as for Client.
    Download(std::shared_ptr<Client> client, std::string path, const Headers& headers = nullptr,
             DownloadOptions options = {});
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    /// The next chunk, never empty. Nothing at the end of the body and after a failure; result() tells which.
    /// Blocks for (retries + 1) x chunk_timeout at most.
    [[nodiscard]] std::optional<std::string> read();

    /// How it ended, once read() has given none. A bad reply means that what was read is not the whole body.
    TransferResult result() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

/// Downloads into a stream. A stream that can't be written ends it: status 400, made here.
[[nodiscard]] TransferResult download(const std::shared_ptr<Client>& client, std::string path,
                                      std::ostream& out, const DownloadOptions& options = {});
[[nodiscard]] TransferResult download(const std::shared_ptr<Client>& client, std::string path,
                                      std::ostream& out, const Headers& headers,
                                      const DownloadOptions& options);
} // namespace tarn
