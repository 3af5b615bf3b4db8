// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>

#include <tarn/tarn.h>

namespace example {
/// Takes an image by PUT and writes each chunk to a file, which replaces the old image once it is complete.
/// There is one upload at a time: a new one ends the one in progress, which then gets status 409.
class UploadRoute : public tarn::Route {
public:
    explicit UploadRoute(const std::filesystem::path& image)
        : Route("upload", "put", "/image", tarn::Access::Public),
          image_(image),
          part_(image.string() + ".part")
    {
    }

    bool supports_chunked_transfer() const override { return true; }

    void put(tarn::Context& context) override
    {
        // Empty if the whole image comes in one request.
        const std::string id = context.request.header(tarn::chunk_header::transfer, "");
        const std::uint32_t number = context.request.chunk_number().value_or(0);
        const std::string& chunk = context.request.data();
        if (number == 0) {
            id_ = id;
            next_ = 0;
            out_ = std::ofstream(part_, std::ios::binary);
        }
        if (id != id_ || number != next_)
            throw tarn::MessageException(tarn::Status::Conflict, "begin again");
        ++next_;
        if (!out_.write(chunk.data(), static_cast<std::streamsize>(chunk.size())).flush())
            throw tarn::MessageException(tarn::Status::InsufficientStorage, "cannot write");

        // Client::put with a stream ends a body of whole chunks with two empty ones, so this must be harmless
        // when done twice; tarn::upload sends one. A product would check the image here.
        if (id.empty() || chunk.empty())
            std::filesystem::copy_file(part_, image_, std::filesystem::copy_options::overwrite_existing);
    }

private:
    const std::filesystem::path image_;
    const std::filesystem::path part_;
    std::ofstream out_;
    std::string id_;
    std::uint32_t next_ = 0;
};

/// Answers GET with the image: in chunks if the client supports them, otherwise in one reply. Keeps four
/// downloads; a fifth ends one of the others, which then gets status 409.
class DownloadRoute : public tarn::Route {
public:
    explicit DownloadRoute(std::filesystem::path image)
        : Route("download", "get", "/download", tarn::Access::Public),
          image_(std::move(image))
    {
    }

    void get(tarn::Context& context) const override
    {
        if (!context.request.has_header(tarn::chunk_header::supported)) {
            context.reply.set_reply_file(image_);
            return;
        }
        const std::string asked = context.request.header(tarn::chunk_header::transfer, "");
        const std::string id = asked.empty() ? begin() : asked;
        const auto download = downloads_.find(id);
        if (download == downloads_.end())
            throw tarn::MessageException(tarn::Status::Conflict, "begin again");

        std::string chunk(chunk_bytes, '\0');
        download->second.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        chunk.resize(static_cast<std::size_t>(download->second.gcount()));
        if (chunk.empty()) // the end
            downloads_.erase(download);
        else
            context.reply.set_header(tarn::chunk_header::transfer, id);
        context.reply.set_reply_data(tarn::Format::Bin, std::move(chunk));
    }

private:
    std::string begin() const
    {
        std::ifstream stream(image_, std::ios::binary);
        if (!stream)
            throw tarn::MessageException(tarn::Status::NotFound, "no image");
        if (downloads_.size() == max_downloads) // some clients never finish
            downloads_.erase(downloads_.begin());
        const std::string id = slate::make_uuid().to_string();
        downloads_[id] = std::move(stream);
        return id;
    }

    static constexpr std::size_t max_downloads = 4;
    static constexpr std::size_t chunk_bytes = 1048576;

    const std::filesystem::path image_;
    // Handlers of one route run one at a time, so this needs no lock.
    mutable std::map<std::string, std::ifstream> downloads_;
};
} // namespace example
