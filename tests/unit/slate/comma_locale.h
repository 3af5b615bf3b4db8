// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <locale>
#include <stdexcept>
#include <string_view>

#include "support/scratch_folder.h"

/// While it exists, the process has a locale, for C and C++ alike, that writes 1234.5 as "1.234,5". It is
/// compiled on the spot, since few systems have one installed.
class CommaLocale {
public:
    CommaLocale()
    {
        const tarn_test::ScratchFolder folder;
        std::ofstream(folder.path() / "charmap") << "<code_set_name> ASCII\n<escape_char> /\nCHARMAP\n"
                                                    "<U0000>..<U007F> /x00\nEND CHARMAP\n";
        std::ofstream(folder.path() / "source") << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\n"
                                                   "grouping 3;3\nEND LC_NUMERIC\n";
        // The status doesn't matter, as it reports mere warnings too: loading the locale shows whether it
        // exists.
        (void)!std::system(("cd '" + folder.path().string() +
                            "' && localedef --force -f ./charmap -i ./source ./comma >log 2>&1")
                               .c_str());

        setenv("LOCPATH", folder.path().c_str(), 1);
        try {
            before_ = std::locale::global(std::locale("comma"));
        }
        catch (const std::runtime_error&) {
            // The caller finds out by is_set().
        }
        unsetenv("LOCPATH");
    }
    ~CommaLocale() { std::locale::global(before_); }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    /// False if this system can't compile locales.
    bool is_set() const { return std::string_view(std::localeconv()->decimal_point) == ","; }

private:
    std::locale before_;
};
