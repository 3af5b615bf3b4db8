// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tarn/async/pending.h"
#include "tarn/transfer/download.h"
#include "tarn/transfer/transfer_result.h"
#include "tarn/transfer/upload.h"
#include "tarn/types.h"

namespace tarn {
class AsyncClient;

/// The asynchronous form of Upload: sends a body of any size, chunk by chunk, as it is written, and never
/// blocks. The route sees one PUT or POST with the whole body.
///
///     tarn::AsyncUpload upload(client, "/firmware", headers);
///     for (auto bytes = next_bytes(); !bytes.empty(); bytes = next_bytes())
///         if ((co_await upload.write(std::move(bytes)))->bad())
///             break;
///     const auto reply = co_await upload.finish();
///
/// One step at a time: a step that is asked for before the last one has its reply gets status 429,
/// LocalCause::TooMany, and changes nothing. So no more than one write's bytes wait here.
///
/// One chunk is in flight at a time, and none is ever sent twice. The limit of the client's calls doesn't
/// refuse them. Options are those of Upload, except that `progress` runs where functions of Pending::then()
/// do, while the upload goes on; what it throws is logged. `stop` ends the upload between two chunks, and
/// cancelling a step at once; either is like abort().
///
/// Errors: failures of the exchange are replies of the steps. A recipient that can't be taken apart throws as
/// MessageFactory says, from the step that would send the first chunk; what the client's factory throws for a
/// later one ends the upload with status 400. The constructor throws Exception without a client that
/// make_async_client has made.
///
/// Threads: one at a time. Lifetime: it keeps the client until its last request has its reply. An upload that
/// is destroyed before its end is aborted, without waiting for that.
class AsyncUpload {
public:
    /// `headers`, which may be null, are copied; `path` is a recipient as for Client.
    AsyncUpload(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers = nullptr,
                UploadOptions options = {});
    ~AsyncUpload();
    AsyncUpload(const AsyncUpload&) = delete;
    AsyncUpload& operator=(const AsyncUpload&) = delete;

    /// Adds bytes to the body. The reply comes when the next ones may be written: all whole chunks are
    /// acknowledged, and less than a chunk is kept. It is a good one, status 204, made here; a bad one is the
    /// one that ended the upload.
    Pending write(std::string bytes);

    /// Sends the rest of the body and ends the transfer. The reply is the one that ended it, as
    /// TransferResult says; the second call gives the same one again.
    Pending finish();

    /// Gives the upload up, and asks the server to forget what it has. A step that is under way gets status
    /// 408, LocalCause::Cancelled, and so does finish(). Does nothing once the upload has ended.
    void abort();

    /// What the server has acknowledged so far. Any thread.
    std::uint64_t acknowledged_bytes() const;

private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};

/// The asynchronous form of Download: fetches a body of any size, chunk by chunk as the route gives it, and
/// never blocks.
///
///     tarn::AsyncDownload download(client, "/image");
///     for (auto chunk = co_await download.read(); chunk->has_body(); chunk = co_await download.read())
///         use(chunk->data());
///     if (download.result().bad()) ...
///
/// A chunk is asked for when it is read, and not before, so no more than one waits here. One read at a time:
/// another one meanwhile gets status 429, LocalCause::TooMany, and changes nothing.
///
/// Options are those of Download, except that `progress` runs where functions of Pending::then() do, and what
/// it throws is logged. `stop` ends the download at once, as cancelling a read does.
///
/// Errors: the reads end, and result() tells why. Recipients and the constructor are as for AsyncUpload.
///
/// Threads: one at a time. Lifetime: it keeps the client. Destroying it cancels a read that is under way.
class AsyncDownload {
public:
    /// `headers`, which may be null, are copied; `path` is a recipient as for Client.
    AsyncDownload(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers = nullptr,
                  DownloadOptions options = {});
    ~AsyncDownload();
    AsyncDownload(const AsyncDownload&) = delete;
    AsyncDownload& operator=(const AsyncDownload&) = delete;

    /// The next chunk: a good reply with a body, never an empty one. At the end of the body a good reply
    /// without a body, made here, and after a failure the bad reply, without its body; then again and again.
    Pending read();

    /// How it ended, once read() has given no body. A bad reply means that what was read is not the whole
    /// body. Any thread.
    TransferResult result() const;

private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};
} // namespace tarn
