// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

namespace slate {
/// An endpoint or a file: a scheme, "://" and an address, such as "ipc:///run/x.sock", "tcp://*:5555",
/// "inproc://a/b" or "file:///x". Immutable, so any thread. Nothing is decoded: what a socket is bound to and
/// the file that appears have the same name, "%" included.
class Uri {
public:
    virtual ~Uri() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The whole text as it was given.
    virtual std::string to_string() const = 0;
    /// Such as "ipc"; as it was written.
    virtual std::string scheme() const = 0;
    /// What follows "://".
    virtual std::string address() const = 0;
    /// The file-system path of a "file" URI, which is its address; for others the address from its first "/"
    /// on.
    virtual std::string path() const = 0;
};

/// Null for empty text, text without a scheme or without an address, and text with control characters.
std::shared_ptr<const Uri> make_uri(const std::string& text);
} // namespace slate
