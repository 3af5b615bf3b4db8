// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include <tarn/tarn.h>

namespace example {
/// Serves any resource by GET, HEAD, PUT and DELETE.
///
/// GET and HEAD answer in the format that the query asks for ("?format=json"), or else the header "Accept",
/// or else in the resource's first format. The header "ETag" carries the entity tag unless that is empty. If
/// the header "If-None-Match" is "*" or lists that tag (separated by ","), the client holds the data already:
/// the reply has status 304 and an empty body. A write-only resource answers status 405.
///
/// PUT replaces the resource with the body, in the format given by the header "Content-Type" or else by the
/// query. The route gets the whole body, unless the resource takes a large one chunk by chunk. DELETE erases
/// the resource. A read-only resource answers both with status 405.
class ResourceRoute : public tarn::Route {
public:
    /// The route is named after the resource, which must not be null.
    ResourceRoute(const std::string& path, std::shared_ptr<tarn::Resource> resource);

    bool supports_chunked_transfer() const override;
    void head(tarn::Context& context) const override;
    void get(tarn::Context& context) const override;
    void put(tarn::Context& context) override;
    void del(tarn::Context& context) override;

private:
    void check_readable() const;
    void check_writable() const;

    const std::shared_ptr<tarn::Resource> resource_;
};
} // namespace example
