// SPDX-License-Identifier: Apache-2.0
// Stores on files of any content, against a model.
// Input: the file's first content behind its length in two bytes, or none for the length 65535, and
// operations of one byte, with a content behind its length for some.

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "slate/file.h"
#include "slate/provider.h"
#include "support/scratch_folder.h"
#include "tarn/storage/cached_file_store.h"
#include "tarn/storage/file_store.h"
#include "tarn/storage/memory_store.h"

namespace {
using tarn_fuzz::require;
using Value = std::optional<std::string>;

constexpr int max_operations = 24;

void write_file(const std::filesystem::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

Value file_content(const std::filesystem::path& path)
{
    if (!std::filesystem::exists(path))
        return std::nullopt;
    return slate::slurp_file<std::string>(path.string(), std::ios_base::binary);
}

template <class Store>
void check(const Store& store, const Value& expected)
{
    require(store.read(0) == expected, "the value that was written last");
    require(store.exists(0) == expected.has_value(), "and it says whether there is one");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static const tarn_test::ScratchFolder folder;
    static const auto provider = slate::add_provider("fuzz", "stores", true);
    tarn_fuzz::Input input(data, size);

    const auto file_path = folder.path() / "file";
    const auto cached_path = folder.path() / "cached";
    std::filesystem::remove(file_path);
    std::filesystem::remove(cached_path);

    Value value;
    if (input.flag()) {
        value = input.text();
        write_file(file_path, *value);
        write_file(cached_path, *value);
    }
    tarn::FileStore file_store(file_path, provider);
    std::optional<tarn::CachedFileStore> cached(std::in_place, cached_path, provider);
    tarn::MemoryStore memory =
        value ? tarn::MemoryStore(file_path, provider, *value) : tarn::MemoryStore(provider);
    check(file_store, value);
    check(*cached, value);
    check(memory, value);

    for (int i = 0; i < max_operations && !input.empty(); ++i) {
        switch (input.byte() % 5) {
        case 0:
            value = input.text();
            file_store.write(*value);
            cached->write(*value);
            memory.write(*value);
            break;
        case 1:
            value = std::nullopt;
            file_store.erase(tarn::PurgePolicy::KeepHistory);
            cached->erase(tarn::PurgePolicy::KeepHistory);
            memory.erase(tarn::PurgePolicy::KeepHistory);
            break;
        case 2: // the process starts again
            cached.emplace(cached_path, provider);
            break;
        case 3: { // another program writes the file: the cached store sees it when it starts again
            const std::string other = input.text();
            write_file(file_path, other);
            require(cached->read(0) == value, "a cached value stays");
            write_file(cached_path, other);
            cached.emplace(cached_path, provider);
            value = other;
            memory.write(other);
            break;
        }
        default:
            require(file_content(cached_path) == value && file_content(file_path) == value,
                    "the file has the value, and nothing else");
        }
        check(file_store, value);
        check(*cached, value);
        check(memory, value);
    }
    return 0;
}
