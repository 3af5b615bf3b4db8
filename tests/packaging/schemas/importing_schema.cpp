// SPDX-License-Identifier: Apache-2.0
// A schema of the application that imports tarn's.
#include <iostream>

#include <importing.pb.h>
#include <tarn/tarn.h>

int main()
{
    slate::set_log_sinks({});
    importing::Record record;
    record.set_status(tarn::BadGateway);
    *record.mutable_message() = *tarn::make_message_factory()->make_get("/a/b");

    std::string json;
    tarn::to_json(record, &json, slate::ErrorLevel);
    importing::Record copy;
    if (!copy.ParseFromString(tarn::to_binary(record, slate::ErrorLevel)) ||
        copy.message().get().head().path() != "/a/b" || json.find("BadGateway") == std::string::npos ||
        importing::Record::descriptor()->field(0)->message_type() != tarn::Message::descriptor())
        return 1;
    std::cout << "ours and theirs\n";
}
