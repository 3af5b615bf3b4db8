// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "support/scratch_folder.h"

/// While it exists, the C library has a locale that writes 1234.5 as "1.234,5". It is compiled on the spot,
/// since few systems have one installed.
class CommaLocale {
public:
    CommaLocale() : before_(std::setlocale(LC_ALL, nullptr))
    {
        const tarn_test::ScratchFolder folder;
        std::ofstream(folder.path() / "charmap") << "<code_set_name> ASCII\n<escape_char> /\nCHARMAP\n"
                                                    "<U0000>..<U007F> /x00\nEND CHARMAP\n";
        std::ofstream(folder.path() / "source") << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\n"
                                                   "grouping 3;3\nEND LC_NUMERIC\n";
        // The status of localedef doesn't matter, since it is bad for mere warnings too: is_set() is the
        // proof.
        (void)!std::system(("cd '" + folder.path().string() +
                            "' && localedef --force -f ./charmap -i ./source ./comma >log 2>&1")
                               .c_str());

        setenv("LOCPATH", folder.path().c_str(), 1);
        std::setlocale(LC_ALL, "comma");
        unsetenv("LOCPATH");
    }
    ~CommaLocale() { std::setlocale(LC_ALL, before_.c_str()); }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    /// False if this system can't compile locales.
    bool is_set() const { return std::string_view(std::localeconv()->decimal_point) == ","; }

private:
    const std::string before_;
};
