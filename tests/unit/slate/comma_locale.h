// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <locale>
#include <stdexcept>
#include <string_view>

#include "support/scratch_folder.h"

/// Gives the process, C and C++ alike, a locale that writes 1234.5 as "1.234,5", for as long as the object
/// lives. The locale is compiled on the spot, since few devices have one installed.
class CommaLocale {
public:
    CommaLocale()
    {
        const tarn_test::ScratchFolder folder;
        std::ofstream(folder.path() / "charmap") << "<code_set_name> ASCII\n<escape_char> /\nCHARMAP\n"
                                                    "<U0000>..<U007F> /x00\nEND CHARMAP\n";
        std::ofstream(folder.path() / "source") << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\n"
                                                   "grouping 3;3\nEND LC_NUMERIC\n";
        // Its status tells of warnings too; whether it worked shows when the locale is loaded.
        (void)!std::system(("cd '" + folder.path().string() +
                            "' && localedef --force -f ./charmap -i ./source ./comma >log 2>&1")
                               .c_str());

        setenv("LOCPATH", folder.path().c_str(), 1);
        try {
            before_ = std::locale::global(std::locale("comma"));
        }
        catch (const std::runtime_error&) {
            // is_set() tells.
        }
        unsetenv("LOCPATH");
    }
    ~CommaLocale() { std::locale::global(before_); }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    /// False if the system can't compile locales.
    bool is_set() const { return std::string_view(std::localeconv()->decimal_point) == ","; }

private:
    std::locale before_;
};
