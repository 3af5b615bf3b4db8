// SPDX-License-Identifier: Apache-2.0
// Linked with the code of a status.proto of its own. Never gets as far as main, as protobuf refuses the
// second one.
#include <iostream>

#include <tarn/tarn.h>

int main()
{
    std::cout << "reached main: " << tarn::Status_Name(tarn::Ok) << "\n";
}
