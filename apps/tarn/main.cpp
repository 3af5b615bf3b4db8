// SPDX-License-Identifier: Apache-2.0
// One command for people and scripts: requests, published changes, and a look at what a device runs.
//
//   tarn COMMAND [OPTION]...
//
// This file only has the table of the commands; `tarn --help` tells what they do.

#include "program.h"

int main(int argc, char** argv)
{
    using namespace tarn_command;
    return run_program(argc, argv,
                       {
                           get_command(),
                           head_command(),
                           put_command(),
                           post_command(),
                           del_command(),
                           publish_command(),
                           watch_command(),
                           services_command(),
                           index_command(),
                           who_command(),
                           call_command(),
                           ping_command(),
                           bench_command(),
                           doctor_command(),
                           demo_command(),
                           completion_command(),
                           version_command(),
                       });
}
