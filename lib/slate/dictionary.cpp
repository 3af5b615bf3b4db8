// SPDX-License-Identifier: Apache-2.0
#include "slate/dictionary.h"

#include <functional>
#include <map>

namespace slate {
namespace {
class DictionaryImpl : public Dictionary {
public:
    std::string get(std::string_view key, std::string_view dflt) const override
    {
        const auto entry = entries_.find(key);
        return entry == entries_.end() ? std::string(dflt) : entry->second;
    }

    void set(std::string_view key, std::string_view value) override
    {
        const auto entry = entries_.find(key);
        if (entry == entries_.end())
            entries_.emplace(key, value);
        else
            entry->second = value;
    }

    void set(std::string_view key, long number) override
    {
        const std::string text = to_string(number);
        set(key, std::string_view(text));
    }

    bool get(std::string_view key, bool dflt) const override
    {
        const auto entry = entries_.find(key);
        bool value = dflt;
        if (entry != entries_.end())
            (void)try_parse(entry->second, &value); // leaves the default in place if it fails
        return value;
    }

    bool has(std::string_view key) const override { return entries_.find(key) != entries_.end(); }

    std::vector<std::string> keys() const override
    {
        std::vector<std::string> result;
        result.reserve(entries_.size());
        for (const auto& entry : entries_)
            result.push_back(entry.first);
        return result;
    }

    void clear() override { entries_.clear(); }

    void remove(std::string_view key) override
    {
        const auto entry = entries_.find(key);
        if (entry != entries_.end())
            entries_.erase(entry);
    }

private:
    std::map<std::string, std::string, std::less<>> entries_;
};
} // namespace

std::shared_ptr<Dictionary> make_dictionary()
{
    return std::make_shared<DictionaryImpl>();
}

std::shared_ptr<Dictionary> make_dictionary(
    std::initializer_list<std::pair<std::string_view, std::string_view>> entries)
{
    auto dictionary = make_dictionary();
    for (const auto& [key, value] : entries)
        dictionary->set(key, value);
    return dictionary;
}
} // namespace slate
