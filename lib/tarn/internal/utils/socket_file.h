// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "slate/descriptor.h"
#include "tarn/types.h"

namespace tarn_internal {
/// The file of a socket that this process has just bound, so that it removes that file and no other: libzmq
/// replaces the file of whoever served at that path before, and a server that ends later than its successor
/// started must leave the successor's file alone.
///
/// It holds the file open, so that its number isn't given to another one. Two moments are left in which
/// another process can put a file of its own in the place: between bind and the constructor, and in remove(),
/// between comparing and removing. Both last some microseconds.
///
/// Threads: for one thread at a time.
class SocketFile {
public:
    /// Holds nothing for an endpoint without a file.
    explicit SocketFile(Endpoint endpoint);

    /// Removes the file if its path still leads to it. Failures are warnings in the log.
    void remove() const;

private:
    Endpoint endpoint_;
    slate::Descriptor file_;
};
} // namespace tarn_internal
