// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/chunked_transfer.h"

#include <cstdint>
#include <utility>

#include "slate/dictionary.h"
#include "slate/provider.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/server/temporary_file_list.h"
#include "tarn/internal/settings.h"
#include "tarn/internal/utils/request_bounds.h"
#include "tarn/proto/message.pb.h"
#include "tarn/transfer/chunk_headers.h"

namespace tarn_internal {
ChunkedTransfers::ChunkedTransfers(std::shared_ptr<const slate::Dictionary> settings,
                                   std::shared_ptr<slate::Provider> provider,
                                   std::shared_ptr<slate::Counter> err,
                                   const std::vector<Endpoint>& endpoints)
    : settings_(std::move(settings)),
      max_transfer_bytes_(size_setting(*settings_, "max_transfer_bytes").value_or(SIZE_MAX)),
      provider_(std::move(provider)),
      err_(std::move(err)),
      files_(TemporaryFileList::for_endpoints(endpoints)),
      sessions_(slate::make_clock_factory()->make_clock())
{
    // Asked again at each chunk; here for the line in the log if it isn't a duration.
    (void)duration_setting(*settings_, session_ttl(), default_session_ttl());
    if (files_)
        files_->sweep();
}

void ChunkedTransfers::handle_write(Context& context, const Route& route, TransferFile place,
                                    const std::function<void()>& handler)
{
    const std::string id = route.supports_chunked_transfer()
                               ? std::string()
                               : context.request.header(chunk_header::transfer, "");
    if (id.empty()) {
        handler();
        return;
    }
    if (id.size() > max_transfer_id_bytes)
        throw MessageException(Status::BadRequest,
                               slate::trace_error(provider_, SLATE_HERE, "transfer id of more than ",
                                                  std::to_string(max_transfer_id_bytes), " bytes"));
    try {
        handle_chunk(context, id, place, handler);
    }
    catch (...) {
        sessions_.remove(id);
        throw;
    }
}

void ChunkedTransfers::clean()
{
    sessions_.clean(provider_);
}

void ChunkedTransfers::handle_chunk(Context& context, const std::string& id, TransferFile place,
                                    const std::function<void()>& handler)
{
    const slate::Duration expires = expiry();
    const auto chunk = context.request.chunk_number();
    const bool begins = context.request.has_header(chunk_header::begin) || chunk == 0u;
    const auto entry = find_or_begin(id, begins, expires, place);
    {
        const std::lock_guard lock(entry->mutex);
        entry->session.append(context.request.data(), chunk);
        if (entry->session.buffer.size() > max_transfer_bytes_)
            throw MessageException(Status::PayloadTooLarge,
                                   slate::trace_error(provider_, SLATE_HERE, "transfer of more than ",
                                                      std::to_string(max_transfer_bytes_), " bytes"));
    }
    sessions_.set_expiry(*entry, expires); // every chunk extends the session's life

    if (!context.request.data().empty())
        return;
    complete(context, *entry);
    handler();
    sessions_.remove(id);
}

ChunkedTransfers::Sessions::Handle ChunkedTransfers::find_or_begin(const std::string& id, bool begins,
                                                                   const slate::Duration& expires,
                                                                   TransferFile place)
{
    if (!begins) {
        if (auto existing = sessions_.find(id))
            return existing;
        err_->increment();
        throw MessageException(Status::Conflict,
                               slate::trace_error(SLATE_HERE, "transfer interrupted try again"));
    }
    auto begun = place == TransferFile::InTemporaryFolder
                     ? sessions_.add(id, expires)
                     : sessions_.add(id, expires, std::filesystem::temp_directory_path());
    if (!begun)
        throw MessageException(Status::Conflict,
                               slate::trace_error(SLATE_HERE, "transfer already in progress"));
    {
        const std::lock_guard lock(begun->mutex);
        begun->session.buffer.list_in(files_);
    }
    slate::log_extreme(provider_, SLATE_HERE, "begin: ", sessions_.to_text(*begun));
    return begun;
}

/// How long the transfer may pause is asked at each chunk, so that an application may change it.
slate::Duration ChunkedTransfers::expiry() const
{
    const std::string key = session_ttl();
    const auto ttl = settings_->has(key)
                         ? slate::Duration::from(settings_->get(key, ""), default_session_ttl())
                         : default_session_ttl();
    return sessions_.now() + ttl;
}

/// Makes the last chunk the whole request: its body, and no trace of the transfer.
void ChunkedTransfers::complete(Context& context, Sessions::Entry& entry)
{
    const std::lock_guard lock(entry.mutex);
    slate::log_extreme(provider_, SLATE_HERE, "end: ", sessions_.to_text(entry));

    Body* body = context.request.mutable_body();
    entry.session.buffer.read(is_binary_format(context.request.format()) ? body->mutable_bin()
                                                                         : body->mutable_txt());
    for (const char* header : {chunk_header::transfer, chunk_header::number}) {
        context.params->remove(header);
        context.request.clr_header(header);
    }
}
} // namespace tarn_internal
