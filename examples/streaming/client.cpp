// SPDX-License-Identifier: Apache-2.0
// Uploads an image of that many MiB, downloads it again, and compares:
//
//   streaming_client /tmp/streaming.sock 64

#include <iostream>
#include <sstream>

#include <tarn/tarn.h>

int main(int argc, char** argv)
{
    long mebibytes = 0;
    if (argc != 3 || !slate::try_parse(argv[2], &mebibytes) || mebibytes < 1) {
        std::cerr << "usage: streaming_client SOCKET MEBIBYTES\n";
        return 2;
    }
    std::string image(static_cast<std::size_t>(mebibytes) << 20, '\0');
    unsigned int state = 1; // any pattern of differing bytes will do
    for (char& byte : image)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);

    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(argv[1]), 0);
    std::istringstream in(image); // a file, in a real client
    const auto sent = tarn::upload(client, "/image", in);
    std::ostringstream out;
    const auto received = tarn::download(client, "/download", out);
    const bool right = sent.good() && received.good() && out.str() == image;
    std::cout << "sent: " << tarn::Status_Name(sent.reply->status())
              << ", received: " << tarn::Status_Name(received.reply->status()) << ", " << out.str().size()
              << (right ? " bytes: right" : " bytes: WRONG") << std::endl;
    return right ? 0 : 1;
}
