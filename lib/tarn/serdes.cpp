// SPDX-License-Identifier: Apache-2.0
#include "tarn/serdes.h"

#include <google/protobuf/stubs/common.h>
#include <google/protobuf/util/json_util.h>

#include "tarn/exception.h"

namespace tarn_internal {
std::string serialize_binary(const google::protobuf::Message& message, slate::TraceLevel level)
{
    std::string bytes;
    // A release build of protobuf doesn't look for missing fields itself.
    if (!message.IsInitialized() || !message.SerializeToString(&bytes))
        throw tarn::SerdesException(
            slate::trace(level, SLATE_HERE, "failed to serialize to proto; missing required fields"), "");
    return bytes;
}

void serialize_json(const google::protobuf::Message& message, std::string* out, slate::TraceLevel level)
{
    google::protobuf::util::JsonPrintOptions options;
    options.add_whitespace = true;
#if GOOGLE_PROTOBUF_VERSION >= 5026000
    options.always_print_fields_with_no_presence = true; // the same option, renamed in 26.0
#else
    options.always_print_primitive_fields = true;
#endif
    options.always_print_enums_as_ints = false;
    options.preserve_proto_field_names = false;

    const auto status = google::protobuf::util::MessageToJsonString(message, out, options);
    if (!status.ok())
        throw tarn::SerdesException(
            slate::trace(level, SLATE_HERE, "failed to serialize to json: " + std::string(status.ToString())),
            "");
}
} // namespace tarn_internal
