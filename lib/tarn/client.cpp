// SPDX-License-Identifier: Apache-2.0
#include "tarn/client.h"

#include <cstdint>
#include <istream>
#include <ostream>
#include <utility>

#include "slate/file.h"
#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/transfer/chunk_headers.h"
#include "tarn/transfer/transfer_result.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
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

class ClientImpl : public Client {
public:
    ClientImpl(const std::shared_ptr<zmq::context_t>& context, const Endpoint& endpoint, unsigned int retries,
               const std::shared_ptr<MessageFactory>& factory)
        : cycle_("zmq.client", tarn_internal::next_client_instance(), context, endpoint, retries, factory)
    {
    }

    Endpoint url() const override { return cycle_.uri(); }

    std::shared_ptr<Reply> head(std::string_view path, const Headers& headers,
                                const slate::Duration& timeout) const override
    {
        return read_reply(cycle_.factory().make_head(path, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> get(std::string_view path, const Headers& headers,
                               const slate::Duration& timeout) const override
    {
        return read_reply(cycle_.factory().make_get(path, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> get(std::string_view path, std::ostream& out, const Headers& headers,
                               const slate::Duration& timeout) const override
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

    std::shared_ptr<Reply> put(std::string_view path, const std::string& body, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        return read_reply(cycle_.factory().make_put(path, body, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> put(std::string_view path, std::string&& body, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        return read_reply(cycle_.factory().make_put(path, std::move(body), headers, timeout), timeout);
    }

    std::shared_ptr<Reply> put(std::string_view path, std::istream& body, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        if (!headers)
            return put(path, body, slate::make_dictionary(), timeout);
        return or_bad_request(send_in_chunks(body, *headers, [&](std::string&& chunk) {
            return put(path, std::move(chunk), headers, timeout);
        }));
    }

    std::shared_ptr<Reply> post(std::string_view path, const std::string& body, const Headers& headers,
                                const slate::Duration& timeout) override
    {
        return read_reply(cycle_.factory().make_post(path, body, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> post(std::string_view path, std::string&& body, const Headers& headers,
                                const slate::Duration& timeout) override
    {
        return read_reply(cycle_.factory().make_post(path, std::move(body), headers, timeout), timeout);
    }

    std::shared_ptr<Reply> post(std::string_view path, std::istream& body, const Headers& headers,
                                const slate::Duration& timeout) override
    {
        if (!headers)
            return post(path, body, slate::make_dictionary(), timeout);
        return or_bad_request(send_in_chunks(body, *headers, [&](std::string&& chunk) {
            return post(path, std::move(chunk), headers, timeout);
        }));
    }

    std::shared_ptr<Reply> del(std::string_view path, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        return read_reply(cycle_.factory().make_del(path, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> send(const Request& request, const slate::Duration& timeout) override
    {
        return read_reply(request.message, timeout);
    }

private:
    std::shared_ptr<Reply> read_reply(const std::shared_ptr<const Message>& message,
                                      const slate::Duration& timeout) const
    {
        if (!message)
            return cycle_.make_reply(Status::BadRequest, LocalCause::InvalidRequest);
        return cycle_.read_reply(*message, timeout);
    }

    /// The upload's reply; status 400 if the caller's stream failed.
    std::shared_ptr<Reply> or_bad_request(std::shared_ptr<Reply> reply) const
    {
        if (reply)
            return reply;
        slate::log_error(SLATE_HERE, "upload abandoned, the stream can't be read");
        return cycle_.make_reply(Status::BadRequest, LocalCause::InvalidRequest);
    }

    mutable tarn_internal::RequestCycle cycle_; // locks itself
};
} // namespace

std::shared_ptr<Client> make_client(const Endpoint& endpoint, unsigned int retries,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    const auto runtime = tarn_internal::find_runtime("make_client");
    if (!runtime)
        return nullptr;
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "cannot make_client, no endpoint given");
        return nullptr;
    }
    return std::make_shared<ClientImpl>(runtime->context, endpoint, retries, factory);
}

std::shared_ptr<Client> make_client(unsigned int retries, const std::shared_ptr<MessageFactory>& factory)
{
    const auto runtime = tarn_internal::find_runtime("make_client");
    return runtime ? make_client(relay_zmq_sock(runtime->settings), retries, factory) : nullptr;
}

std::shared_ptr<Client> make_client(const std::filesystem::path& path, unsigned int retries,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    const auto endpoint = slate::make_uri("ipc://" + path.string());
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "failed to create ipc client ( ", path.string(), " ): invalid uri");
        return nullptr;
    }
    return make_client(endpoint, retries, factory);
}

std::shared_ptr<Client> make_client_at(std::string_view endpoint_or_path, unsigned int retries,
                                       const std::shared_ptr<MessageFactory>& factory)
{
    if (!slate::contains(endpoint_or_path, "://"))
        return make_client(std::filesystem::path(endpoint_or_path), retries, factory);
    const auto endpoint = slate::make_uri(std::string(endpoint_or_path));
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "failed to create client ( ", endpoint_or_path, " ): invalid uri");
        return nullptr;
    }
    return make_client(endpoint, retries, factory);
}
} // namespace tarn
