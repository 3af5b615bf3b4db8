// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include <tarn/tarn.h>

namespace example {
/// Brings requests to a resource, whatever it holds.
///
/// GET and HEAD answer in the format that the query ("?format=json") or else the header "Accept" asks for, or
/// in the resource's best one, with the entity tag as header "ETag". If the header "If-None-Match" has that
/// tag, the requester holds the data already: status 304, and no body.
///
/// PUT replaces the resource by a body whose format the header "Content-Type" tells, or else the query.
/// DELETE erases it. Both are refused with status 405 if the resource is read-only.
class ResourceRoute : public tarn::Route {
public:
    /// Named after the resource (not null).
    ResourceRoute(const std::string& path, std::shared_ptr<tarn::Resource> resource);

    void get(tarn::Context& context) const override;
    void put(tarn::Context& context) override;
    void del(tarn::Context& context) override;

private:
    void check_writable() const;

    const std::shared_ptr<tarn::Resource> resource_;
};
} // namespace example
