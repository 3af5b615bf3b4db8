// SPDX-License-Identifier: Apache-2.0
// The tables of our schemas, under the names by which protoc's code for an application refers to them if one
// of its schemas imports ours.
//
// protoc names a table after its file, and an application may have a status.proto of its own. Its table would
// then be found in place of ours. So the library's own tables have names of their own, which it doesn't
// export (see CMakeLists.txt), and it never reads the ones here. They say that they are registered, which is
// all that anybody asks of them, and which stays true of the copy that a linker makes of one in a program
// that isn't position-independent.
#include <google/protobuf/generated_message_reflection.h>

using google::protobuf::internal::DescriptorTable;

// NOLINTBEGIN(readability-identifier-naming)
#define TARN_SCHEMA(name)                                                                                    \
    extern const DescriptorTable descriptor_table_##name##_2eproto;                                          \
    const DescriptorTable descriptor_table_##name##_2eproto = {.is_initialized = true};

TARN_SCHEMA(access)
TARN_SCHEMA(format)
TARN_SCHEMA(identity)
TARN_SCHEMA(message)
TARN_SCHEMA(routing)
TARN_SCHEMA(stats)
TARN_SCHEMA(status)
// NOLINTEND(readability-identifier-naming)
