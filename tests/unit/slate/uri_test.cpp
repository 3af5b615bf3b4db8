// SPDX-License-Identifier: Apache-2.0
#include "slate/uri.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {
struct Row {
    const char* text;
    const char* scheme;
    const char* address;
    const char* path;
};

TEST(Uri, ConsistsOfSchemeAddressAndPath)
{
    const std::vector<Row> rows{
        {"ipc:///run/x.sock", "ipc", "/run/x.sock", "/run/x.sock"},
        {"ipc://relative/x.sock", "ipc", "relative/x.sock", "/x.sock"},
        {"ipc://@abstract", "ipc", "@abstract", ""},
        {"tcp://*:5555", "tcp", "*:5555", ""},
        {"tcp://127.0.0.1:*", "tcp", "127.0.0.1:*", ""},
        {"tcp://[::1]:5555", "tcp", "[::1]:5555", ""},
        {"inproc://a/b", "inproc", "a/b", "/b"},
        {"file:///x", "file", "/x", "/x"},
        {"file://relative/x", "file", "relative/x", "relative/x"},
        {"file:///a b%20c?d#e", "file", "/a b%20c?d#e", "/a b%20c?d#e"},
        {"IPC://X", "IPC", "X", ""},
        {"a+b-c.1://x", "a+b-c.1", "x", ""},
        {"a://b://c", "a", "b://c", "//c"},
        {"ipc:// ", "ipc", " ", ""},
        {"ipc:///\xc3\xa4", "ipc", "/\xc3\xa4", "/\xc3\xa4"},
    };

    for (const auto& row : rows) {
        const auto uri = slate::make_uri(row.text);
        ASSERT_TRUE(uri) << row.text;
        EXPECT_EQ(uri->to_string(), row.text);
        EXPECT_EQ(uri->scheme(), row.scheme) << row.text;
        EXPECT_EQ(uri->address(), row.address) << row.text;
        EXPECT_EQ(uri->path(), row.path) << row.text;
    }
}

TEST(Uri, IsNullForOtherText)
{
    const std::vector<std::string> rows{
        "",
        "://",
        "://x",
        "x",
        "/run/x",
        "ipc",
        "ipc:",
        "ipc:/x",
        "ipc://",
        "1pc://x",
        "+a://x",
        "i pc://x",
        " ipc://x",
        "i_c://x",
        "a/b://x",
        "\xc3\xa4://x",
        "ipc://a\nb",
        "ipc://a\tb",
        "ipc://a\x7f",
        std::string("ipc://a\0b", 9),
        std::string("ipc://\0", 7),
    };

    for (const auto& text : rows)
        EXPECT_EQ(slate::make_uri(text), nullptr) << text;
}
} // namespace
