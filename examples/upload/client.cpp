// SPDX-License-Identifier: Apache-2.0
// Uploads so many MiB and a byte from a stream, in chunks, and checks the checksum that comes back:
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
    unsigned int state = 1; // any bytes will do, as long as they differ
    for (char& byte : data)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    data.push_back('.'); // a body that ends exactly at a chunk's end is answered with status 409, though it
                         // arrives
    const std::string expected = std::to_string(data.size()) + " bytes, MD5 " + slate::md5_hash_string(data);

    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(argv[1]));
    std::istringstream stream(data);
    const auto reply = client->put("/drop/data.bin", stream);
    if (reply->bad()) {
        std::cerr << "upload_client: " << tarn::Status_Name(reply->status()) << ": "
                  << reply->status_message() << "\n";
        return 1;
    }
    std::cout << "      " << reply->data() << (reply->data() == expected ? ": right" : ": WRONG")
              << std::endl;
    return reply->data() == expected ? 0 : 1;
}
