// SPDX-License-Identifier: Apache-2.0
// Uploads that many MiB from a stream, in chunks, and compares the checksum in the reply:
//
//   upload_client /tmp/upload.sock 64

#include <iostream>
#include <sstream>

#include <tarn/tarn.h>

int main(int argc, char** argv)
{
    long mebibytes = 0;
    if (argc != 3 || !slate::try_parse(argv[2], &mebibytes) || mebibytes < 1) {
        std::cerr << "usage: upload_client SOCKET MEBIBYTES\n";
        return 2;
    }
    std::string data(static_cast<std::size_t>(mebibytes) << 20, '\0');
    unsigned int state = 1; // any pattern of differing bytes will do
    for (char& byte : data)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    const std::string expected = std::to_string(data.size()) + " bytes, MD5 " + slate::md5_hash_string(data);

    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(argv[1]));
    std::istringstream stream(data);
    const auto reply = tarn::upload(client, "/drop/data.bin", stream).reply;
    if (reply->bad()) {
        std::cerr << "upload_client: " << tarn::Status_Name(reply->status()) << ": "
                  << reply->status_message() << "\n";
        return 1;
    }
    std::cout << "      " << reply->data() << (reply->data() == expected ? ": right" : ": WRONG")
              << std::endl;
    return reply->data() == expected ? 0 : 1;
}
