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
inline constexpr const char* transfer_header = "X-Tarn-Chunked-Transfer";
inline constexpr const char* wants_pieces_header = "X-Tarn-Supports-Chunked-Transfer";

/// Takes an image by PUT, chunk by chunk into a file, which takes the place of the old one when it is whole.
/// One upload at a time: one that begins ends another that is on its way, with status 409.
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
        const std::string id = context.request.header(transfer_header, ""); // empty: all in one request
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

        // A stream of whole chunks ends with two empty ones, so what is done at the end must bear being done
        // twice. A product would check the image here.
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

/// Answers GET with the image: in pieces for those who take pieces, otherwise in one. Keeps four downloads;
/// with a fifth, some other one ends with status 409.
class DownloadRoute : public tarn::Route {
public:
    explicit DownloadRoute(std::filesystem::path image)
        : Route("download", "get", "/download", tarn::Access::Public),
          image_(std::move(image))
    {
    }

    void get(tarn::Context& context) const override
    {
        if (!context.request.has_header(wants_pieces_header)) {
            context.reply.set_reply_file(image_);
            return;
        }
        const std::string asked = context.request.header(transfer_header, "");
        const std::string id = asked.empty() ? begin() : asked;
        const auto download = downloads_.find(id);
        if (download == downloads_.end())
            throw tarn::MessageException(tarn::Status::Conflict, "begin again");

        std::string piece(piece_bytes, '\0');
        download->second.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        piece.resize(static_cast<std::size_t>(download->second.gcount()));
        if (piece.empty()) // the end
            downloads_.erase(download);
        else
            context.reply.set_header(transfer_header, id);
        context.reply.set_format_status(tarn::Format::Bin, tarn::Status::Ok);
        context.reply.mutable_body()->set_bin(std::move(piece));
    }

private:
    std::string begin() const
    {
        std::ifstream stream(image_, std::ios::binary);
        if (!stream)
            throw tarn::MessageException(tarn::Status::NotFound, "no image");
        if (downloads_.size() == max_downloads) // some clients never come back
            downloads_.erase(downloads_.begin());
        const std::string id = slate::make_uuid().to_string();
        downloads_[id] = std::move(stream);
        return id;
    }

    static constexpr std::size_t max_downloads = 4;
    static constexpr std::size_t piece_bytes = 1048576;

    const std::filesystem::path image_;
    // Handlers of one route run one at a time, so this needs no lock.
    mutable std::map<std::string, std::ifstream> downloads_;
};
} // namespace example
