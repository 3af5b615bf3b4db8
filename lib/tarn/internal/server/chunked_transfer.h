// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

#include "tarn/internal/session.h"
#include "tarn/route.h"

namespace slate {
class Counter;
}

namespace tarn_internal {
/// The headers of a body that travels in pieces; lib/tarn/client.cpp is the other side.
namespace chunk_header {
/// The id of a transfer: makes a put or post a chunk.
inline constexpr const char* transfer = "X-Tarn-Chunked-Transfer";
/// The chunk's position, from 0.
inline constexpr const char* number = "X-Tarn-Chunk-Number";
/// Opens a transfer without the help of a number 0.
inline constexpr const char* begin = "X-Tarn-Transfer-Begin";
/// Tells a route that it may answer in pieces.
inline constexpr const char* supported = "X-Tarn-Supports-Chunked-Transfer";
} // namespace chunk_header

/// Where the file of a large upload lies.
enum class TransferFile { InTemporaryFolder, BesideTemporaryFolder };

/// Puts the chunks of uploads together, so that a route sees one put or post with the whole body.
///
/// A chunk with number 0, or with the header that opens a transfer, begins one; an empty chunk ends it.
/// Whatever goes wrong with a chunk, the handler's failure included, ends the transfer and deletes its file.
///
/// Threads: any. No lock is held while the handler runs.
class ChunkedTransfers {
public:
    /// `settings` are read for "session_ttl".
    ChunkedTransfers(std::shared_ptr<const slate::Dictionary> settings,
                     std::shared_ptr<slate::Provider> provider, std::shared_ptr<slate::Counter> err);

    /// Takes a put or post that the route accepts, and calls `handler` now, or later with the whole body, or,
    /// for a route that wants them, with each chunk. Throws MessageException for chunks that don't fit, and
    /// what `handler` throws.
    void handle_write(Context& context, const Route& route, TransferFile place,
                      const std::function<void()>& handler);

    /// Upkeep: discards sessions that are too many or too old. To be called after each request.
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
    const std::shared_ptr<slate::Provider> provider_;
    const std::shared_ptr<slate::Counter> err_;
    Sessions sessions_;
};
} // namespace tarn_internal
