// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tarn/internal/session.h"
#include "tarn/route.h"
#include "tarn/types.h"

namespace slate {
class Counter;
class Dictionary;
} // namespace slate

namespace tarn_internal {
/// Where the temporary file of a large upload is created.
enum class TransferFile { InTemporaryFolder, BesideTemporaryFolder };

/// Puts the chunks of uploads together, so that a route sees one put or post with the whole body.
///
/// A chunk with number 0, or with the header that opens a transfer, begins one; an empty chunk ends it.
/// Any failure of a chunk, the handler's included, ends the transfer and deletes its file.
///
/// Threads: any. No lock is held while the handler runs.
class ChunkedTransfers {
public:
    /// `settings` are read for "max_transfer_bytes", and at each chunk for "session_ttl". Removes the files
    /// of uploads that an ended process of the service at these endpoints has left.
    ChunkedTransfers(std::shared_ptr<const slate::Dictionary> settings,
                     std::shared_ptr<slate::Provider> provider, std::shared_ptr<slate::Counter> err,
                     const std::vector<Endpoint>& endpoints);

    /// Takes a put or post that the route accepts. Calls `handler` at once if the request is not a chunk or
    /// the route takes chunks, else with the last chunk and the whole body. Throws MessageException for a
    /// chunk that doesn't fit, and what `handler` throws.
    void handle_write(Context& context, const Route& route, TransferFile place,
                      const std::function<void()>& handler);

    /// Discards sessions beyond the limit and expired ones. To be called after each request.
    void clean();

private:
    using Sessions = SessionList<WriteSession>;

    void handle_chunk(Context& context, const std::string& id, TransferFile place,
                      const std::function<void()>& handler);
    Sessions::Handle find_or_begin(const std::string& id, bool begins, const slate::Duration& expires,
                                   TransferFile place);
    void complete(Context& context, Sessions::Entry& entry);
    slate::Duration expiry() const;

    const std::shared_ptr<const slate::Dictionary> settings_;
    const std::uint64_t max_transfer_bytes_;
    const std::shared_ptr<slate::Provider> provider_;
    const std::shared_ptr<slate::Counter> err_;
    const std::shared_ptr<TemporaryFileList> files_; // null if nothing is listed
    Sessions sessions_;
};
} // namespace tarn_internal
