// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <google/protobuf/message.h>

#include "slate/log.h"

namespace tarn_internal {
std::string serialize_binary(const google::protobuf::Message& message, slate::TraceLevel level);
void serialize_json(const google::protobuf::Message& message, std::string* out, slate::TraceLevel level);
} // namespace tarn_internal

namespace tarn {
/// The bytes of a protobuf message. Throws SerdesException, logged at `level`, if a required field is missing
/// or the message is too large (2 GiB).
template <class T>
std::string to_binary(const T& message, slate::TraceLevel level)
{
    return tarn_internal::serialize_binary(message, level);
}

/// A protobuf message as indented JSON: fields at their defaults included, enums by name, names in
/// lowerCamelCase. Throws SerdesException, logged at `level`, if it can't be done.
template <class T>
void to_json(const T& message, std::string* out, slate::TraceLevel level)
{
    tarn_internal::serialize_json(message, out, level);
}
} // namespace tarn
