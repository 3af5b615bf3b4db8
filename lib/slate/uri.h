// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

namespace slate {
/// The URI of an endpoint or of a file: a scheme, "://" and an address, such as "ipc:///run/x.sock",
/// "tcp://*:5555", "inproc://a/b" or "file:///x". Nothing in it is decoded, so that a socket's file has the
/// very name to which the socket was bound, even if that contains a "%".
///
/// Threads: immutable, so any thread may use it at any time.
class Uri {
public:
    virtual ~Uri() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The whole text as it was given.
    virtual std::string to_string() const = 0;
    /// The scheme, such as "ipc", in the case in which it was written.
    virtual std::string scheme() const = 0;
    /// The text after "://".
    virtual std::string address() const = 0;
    /// The path in the file system if the scheme is "file", which is then the whole address. For other
    /// schemes the part of the address that begins with its first "/", or empty text if it has none.
    virtual std::string path() const = 0;
};

/// The URI of that text. Null if the text has no valid scheme, no "://", or no address, or if it contains
/// control characters.
std::shared_ptr<const Uri> make_uri(const std::string& text);
} // namespace slate
