// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include <tarn/tarn.h>

namespace example {
/// Brings requests to a resource, whatever it holds.
///
/// GET and HEAD answer in the format that the query ("?format=json") or else the header "Accept" asks for, or
/// in the resource's best one, with the entity tag, if it isn't empty, as header "ETag". If the header
/// "If-None-Match" is "*" or has that tag among those that it lists, separated by ",", the requester holds
/// the data already: status 304, and an empty body. They are refused with status 405 if the resource is
/// write-only.
///
/// PUT replaces the resource by a body whose format the header "Content-Type" tells, or else the query. That
/// is the whole body, unless the resource takes a large one chunk by chunk. DELETE erases it. Both are
/// refused with status 405 if the resource is read-only.
class ResourceRoute : public tarn::Route {
public:
    /// Named after the resource (not null).
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
