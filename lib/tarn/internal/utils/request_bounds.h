// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "tarn/proto/status.pb.h"
#include "tarn/types.h"

namespace tarn {
class Message;
}

namespace tarn_internal {
// What one request, or one published change, may hold. Beyond that it is refused before it is parsed, since a
// parsed message takes many times the memory of its frame: 16 MiB of empty headers take 535 MiB.
inline constexpr std::size_t max_path_bytes = 64 * 1024;
/// Of headers, of parameters, of meta entries and of addressed processes; and how many bytes each of these
/// lists takes in the frame.
inline constexpr std::size_t max_entries = 1024;
inline constexpr std::size_t max_entry_bytes = 256 * 1024;
/// Of fields in all, known or not.
inline constexpr std::size_t max_fields = 16 * 1024;
inline constexpr std::size_t max_transfer_id_bytes = 256;

/// Why a request is refused: its reply's status and text.
struct Excess {
    Status status;
    std::string text;
};

/// What a frame holds too much of; none if it may be parsed. Bytes that aren't a message at all are left to
/// the parser. Bodies are skipped, so a large one costs nothing.
std::optional<Excess> find_excess(const void* frame, std::size_t size);
/// What the frame of this message would hold too much of, the body left aside. The message, which nobody else
/// may use meanwhile, is as before afterwards. Throws std::bad_alloc.
std::optional<Excess> find_excess(Message& message);
} // namespace tarn_internal
