// SPDX-License-Identifier: Apache-2.0
#include "tarn/message_factory.h"

#include <climits>
#include <vector>

#include "slate/dictionary.h"
#include "slate/strings.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/envelope.h"
#include "tarn/internal/utils/parse_recipient.h"

namespace tarn {
namespace {
using namespace tarn_internal;

void add_key_value(google::protobuf::RepeatedPtrField<KeyValue>* list, const std::string& key,
                   const std::string& value)
{
    KeyValue* entry = list->Add();
    entry->set_key(key);
    entry->set_value(value);
}

std::vector<int> parse_pids(const std::string& to)
{
    std::vector<int> pids;
    for (const std::string& piece : slate::split<std::vector<std::string>>(to, ",", false, true)) {
        int pid = 0;
        if (!slate::try_parse(piece, &pid))
            throw Exception("Invalid 'to': " + piece);
        pids.push_back(pid);
    }
    return pids;
}

/// The field of the body that holds content of this format; null for a message without a body.
template <class Request>
std::string* body_field(Request* request)
{
    const Format format = request->head().format();
    if (format == Format::Empty)
        return nullptr;
    Body* body = request->mutable_body();
    return is_binary_format(format) ? body->mutable_bin() : body->mutable_txt();
}

template <class Request>
void fill_body(Request* request, const std::string& content)
{
    if (std::string* field = body_field(request))
        *field = content;
}

template <class Request>
void fill_body(Request* request, std::string&& content)
{
    if (std::string* field = body_field(request))
        field->swap(content);
}

class MessageFactoryImpl : public MessageFactory {
public:
    explicit MessageFactoryImpl(const std::shared_ptr<PidFinder>& finder)
        : finder_(finder ? finder : make_pid_finder())
    {
    }

    std::shared_ptr<Message> make_head(std::string_view recipient, const Headers& headers,
                                       const slate::Duration& ttl) const override
    {
        auto message = std::make_shared<Message>();
        add_head(message->mutable_head(), recipient, headers, ttl, Message::kHead);
        return message;
    }

    std::shared_ptr<Message> make_get(std::string_view recipient, const Headers& headers,
                                      const slate::Duration& ttl) const override
    {
        auto message = std::make_shared<Message>();
        add_head(message->mutable_get()->mutable_head(), recipient, headers, ttl, Message::kGet);
        return message;
    }

    std::shared_ptr<Message> make_put(std::string_view recipient, const std::string& body,
                                      const Headers& headers, const slate::Duration& ttl) const override
    {
        return make_put_of(recipient, body, headers, ttl);
    }

    std::shared_ptr<Message> make_put(std::string_view recipient, std::string&& body, const Headers& headers,
                                      const slate::Duration& ttl) const override
    {
        return make_put_of(recipient, std::move(body), headers, ttl);
    }

    std::shared_ptr<Message> make_post(std::string_view recipient, const std::string& body,
                                       const Headers& headers, const slate::Duration& ttl) const override
    {
        return make_post_of(recipient, body, headers, ttl);
    }

    std::shared_ptr<Message> make_post(std::string_view recipient, std::string&& body, const Headers& headers,
                                       const slate::Duration& ttl) const override
    {
        return make_post_of(recipient, std::move(body), headers, ttl);
    }

    std::shared_ptr<Message> make_del(std::string_view recipient, const Headers& headers,
                                      const slate::Duration& ttl) const override
    {
        auto message = std::make_shared<Message>();
        add_head(message->mutable_del()->mutable_head(), recipient, headers, ttl, Message::kDel);
        return message;
    }

    std::shared_ptr<Message> make_message(const void* data, unsigned long size) const override
    {
        // Protobuf counts in int; a larger size must not be truncated to its lower bits.
        if (size > INT_MAX)
            return nullptr;
        auto message = std::make_shared<Message>();
        return message->ParseFromArray(data, static_cast<int>(size)) ? message : nullptr;
    }

    std::shared_ptr<Message> make_response(const std::shared_ptr<Message>& request, int pid) const override
    {
        if (request->has_response() || request->has_call() || request->type_case() == Message::TYPE_NOT_SET)
            return nullptr;

        const Head* found = find_head(*request);
        const Head& source = found ? *found : Head::default_instance();

        auto message = std::make_shared<Message>();
        Response* response = message->mutable_response();
        Head* head = response->mutable_head();
        head->mutable_from()->set_pid(pid);
        head->set_path(source.path());
        head->set_format(source.format());
        head->add_to()->set_pid(source.from().pid());
        response->set_status(Status::NotFound);
        return message;
    }

    std::shared_ptr<Message> make_response(const Status& status) const override
    {
        auto message = std::make_shared<Message>();
        message->mutable_response()->set_status(status);
        return message;
    }

    std::shared_ptr<PidFinder> finder() const override { return finder_; }

private:
    template <class Content>
    std::shared_ptr<Message> make_put_of(std::string_view recipient, Content&& body, const Headers& headers,
                                         const slate::Duration& ttl) const
    {
        auto message = std::make_shared<Message>();
        add_head(message->mutable_put()->mutable_head(), recipient, headers, ttl, Message::kPut);
        fill_body(message->mutable_put(), std::forward<Content>(body));
        return message;
    }

    template <class Content>
    std::shared_ptr<Message> make_post_of(std::string_view recipient, Content&& body, const Headers& headers,
                                          const slate::Duration& ttl) const
    {
        auto message = std::make_shared<Message>();
        add_head(message->mutable_post()->mutable_head(), recipient, headers, ttl, Message::kPost);
        fill_body(message->mutable_post(), std::forward<Content>(body));
        return message;
    }

    void add_head(Head* head, std::string_view recipient, const Headers& headers, const slate::Duration& ttl,
                  Message::TypeCase verb) const
    {
        std::string to;
        std::string path;
        const auto params = slate::make_dictionary();
        parse_recipient(recipient, &to, &path, params);

        head->mutable_from()->set_pid(finder_->my_pid());
        head->set_path(path);
        head->set_format(Format::Unknown);
        add_key_value(head->mutable_meta(), "ttl", ttl.to_string(0));
        add_params(head, *params);
        if (headers)
            add_headers(head, *headers, verb == Message::kPut || verb == Message::kPost);
        for (const int pid : parse_pids(to))
            head->add_to()->set_pid(pid);
    }

    static void add_params(Head* head, const slate::Dictionary& params)
    {
        for (const std::string& key : params.keys()) {
            const std::string value = params.get(key, "");
            add_key_value(head->mutable_params(), key, value);
            if (key == "format") {
                if (const Format format = to_format(value); format != Format::Unknown)
                    head->set_format(format);
            }
        }
    }

    static void add_headers(Head* head, const slate::Dictionary& headers, bool has_body)
    {
        for (const std::string& key : headers.keys()) {
            const std::string value = headers.get(key, "");
            add_key_value(head->mutable_headers(), key, value);
            if (has_body && slate::equals_ignoring_case(key, "content-type")) {
                std::vector<Format> formats;
                parse_content_type(value, formats);
                if (!formats.empty())
                    head->set_format(formats.front());
            }
        }
    }

    std::shared_ptr<PidFinder> finder_;
};
} // namespace

std::shared_ptr<MessageFactory> make_message_factory(const std::shared_ptr<PidFinder>& finder)
{
    return std::make_shared<MessageFactoryImpl>(finder);
}
} // namespace tarn
