// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The headers of a body that travels in chunks, in either direction.
namespace tarn::chunk_header {
/// The id of a transfer, which ties its requests together. It makes a PUT or POST a chunk; on the reply to a
/// GET it tells the client to ask for the next chunk.
inline constexpr const char* transfer = "X-Tarn-Chunked-Transfer";
/// The position of an uploaded chunk, from 0.
inline constexpr const char* number = "X-Tarn-Chunk-Number";
/// Opens a transfer without the help of a number 0.
inline constexpr const char* begin = "X-Tarn-Transfer-Begin";
/// Tells a route that it may answer a GET in chunks.
inline constexpr const char* supported = "X-Tarn-Supports-Chunked-Transfer";
} // namespace tarn::chunk_header
