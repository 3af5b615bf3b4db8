// SPDX-License-Identifier: Apache-2.0
// A program that uses the messages and nothing else of the library.
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "slate/file.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/proto/message.pb.h"

namespace {
TEST(AProgramOfMessagesAlone, FindsWhatProtobufSaysInTheLogAndNotOnStandardError)
{
    const tarn_test::ScratchFolder folder;
    const tarn_test::LogCapture logs;
    const std::string path = folder.path() / "stderr";
    const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    tarn::Message message;
    message.mutable_put()->mutable_body()->set_txt("\xFF");

    const int saved = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    (void)message.SerializeAsString();
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(file);

    EXPECT_EQ(slate::slurp_file<std::string>(path, std::ios::binary), "");
    const auto lines = logs.texts(slate::ErrorLevel, "protobuf: ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("UTF-8"), std::string::npos) << lines[0];
}
} // namespace
