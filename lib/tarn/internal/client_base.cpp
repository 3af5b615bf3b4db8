// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/client_base.h"

#include <cstdint>
#include <istream>
#include <ostream>
#include <utility>

#include "slate/file.h"
#include "slate/log.h"
#include "slate/uuid.h"
#include "tarn/proto/message.pb.h"
#include "tarn/transfer/chunk_headers.h"
#include "tarn/transfer/transfer_result.h"

namespace tarn_internal {
namespace {
/// The next chunk of a stream: max_chunk_bytes, or less at its end.
std::string read_chunk(std::istream& stream)
{
    std::string chunk(max_chunk_bytes, '\0');
    stream.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    chunk.resize(static_cast<std::size_t>(stream.gcount()));
    return chunk;
}

/// Takes the headers of a chunk out of the caller's dictionary, however the upload ends.
class ChunkHeaders {
public:
    ChunkHeaders(slate::Dictionary& headers, const std::string& transfer) : headers_(headers)
    {
        headers_.set(chunk_header::transfer, std::string_view(transfer));
    }
    ~ChunkHeaders()
    {
        headers_.remove(chunk_header::transfer);
        headers_.remove(chunk_header::number);
    }
    ChunkHeaders(const ChunkHeaders&) = delete;
    ChunkHeaders& operator=(const ChunkHeaders&) = delete;

    void set_number(std::uint32_t number) { headers_.set(chunk_header::number, number); }

private:
    slate::Dictionary& headers_;
};

/// Sends a stream chunk by chunk, each by `send`, and an empty chunk at its end. Null if the stream fails.
template <class Send>
std::shared_ptr<Reply> send_in_chunks(std::istream& body, slate::Dictionary& headers, Send send)
{
    if (headers.has(chunk_header::transfer)) // the caller's own transfer
        return send(slate::slurp(body));

    ChunkHeaders chunk_headers(headers, slate::make_uuid().to_string());
    for (std::uint32_t number = 0;; ++number) {
        chunk_headers.set_number(number);
        std::string chunk = read_chunk(body);
        // An empty chunk would end the transfer as if the body were whole, and would be followed by others
        // for ever.
        if (chunk.empty() && !body.eof())
            return nullptr;
        auto reply = send(std::move(chunk));
        if (reply->bad())
            return reply;
        if (body.eof()) {
            chunk_headers.set_number(number + 1);
            return send(std::string());
        }
    }
}
} // namespace

std::shared_ptr<Reply> ClientBase::head(std::string_view path, const Headers& headers,
                                        const slate::Duration& timeout) const
{
    return ask(factory().make_head(path, headers, timeout), timeout);
}

std::shared_ptr<Reply> ClientBase::get(std::string_view path, const Headers& headers,
                                       const slate::Duration& timeout) const
{
    return ask(factory().make_get(path, headers, timeout), timeout);
}

std::shared_ptr<Reply> ClientBase::get(std::string_view path, std::ostream& out, const Headers& headers,
                                       const slate::Duration& timeout) const
{
    if (!headers)
        return get(path, out, slate::make_dictionary(), timeout);
    headers->set(chunk_header::supported, "true");
    auto reply = get(path, headers, timeout);
    if (reply->bad() || !reply->has_body())
        return reply;
    out << reply->data();

    const std::string transfer = reply->header(chunk_header::transfer, "");
    if (transfer.empty()) // all of it came in one reply
        return reply;
    headers->set(chunk_header::transfer, std::string_view(transfer));
    for (;;) {
        reply = get(path, headers, timeout);
        if (reply->bad() || !reply->has_body() || reply->data().empty())
            return reply;
        out << reply->data();
    }
}

std::shared_ptr<Reply> ClientBase::put(std::string_view path, const std::string& body, const Headers& headers,
                                       const slate::Duration& timeout)
{
    return ask(factory().make_put(path, body, headers, timeout), timeout);
}

std::shared_ptr<Reply> ClientBase::put(std::string_view path, std::string&& body, const Headers& headers,
                                       const slate::Duration& timeout)
{
    return ask(factory().make_put(path, std::move(body), headers, timeout), timeout);
}

std::shared_ptr<Reply> ClientBase::put(std::string_view path, std::istream& body, const Headers& headers,
                                       const slate::Duration& timeout)
{
    if (!headers)
        return put(path, body, slate::make_dictionary(), timeout);
    return or_bad_request(send_in_chunks(
        body, *headers, [&](std::string&& chunk) { return put(path, std::move(chunk), headers, timeout); }));
}

std::shared_ptr<Reply> ClientBase::post(std::string_view path, const std::string& body,
                                        const Headers& headers, const slate::Duration& timeout)
{
    return ask(factory().make_post(path, body, headers, timeout), timeout);
}

std::shared_ptr<Reply> ClientBase::post(std::string_view path, std::string&& body, const Headers& headers,
                                        const slate::Duration& timeout)
{
    return ask(factory().make_post(path, std::move(body), headers, timeout), timeout);
}

std::shared_ptr<Reply> ClientBase::post(std::string_view path, std::istream& body, const Headers& headers,
                                        const slate::Duration& timeout)
{
    if (!headers)
        return post(path, body, slate::make_dictionary(), timeout);
    return or_bad_request(send_in_chunks(
        body, *headers, [&](std::string&& chunk) { return post(path, std::move(chunk), headers, timeout); }));
}

std::shared_ptr<Reply> ClientBase::del(std::string_view path, const Headers& headers,
                                       const slate::Duration& timeout)
{
    return ask(factory().make_del(path, headers, timeout), timeout);
}

/// The upload's reply; status 400 if the caller's stream failed.
std::shared_ptr<Reply> ClientBase::or_bad_request(std::shared_ptr<Reply> reply) const
{
    if (reply)
        return reply;
    slate::log_error(SLATE_HERE, "upload abandoned, the stream can't be read");
    return invalid_request();
}

std::shared_ptr<Reply> ClientBase::ask(const std::shared_ptr<Message>& message,
                                       const slate::Duration& timeout) const
{
    return message ? exchange(message, timeout) : invalid_request();
}

std::shared_ptr<Reply> ClientBase::invalid_request() const
{
    auto reply =
        std::make_shared<Reply>(factory().make_response(Status::BadRequest), LocalCause::InvalidRequest);
    reply->set_status(Status::BadRequest, "there is nothing that can be sent");
    return reply;
}
} // namespace tarn_internal
