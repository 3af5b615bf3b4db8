// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <vector>

#include <tarn/tarn.h>

/// The route "/services" of a router: each service of the fabric, whether it answers or why not, and its
/// routes; as JSON if the request asks for it, and as text otherwise. It asks the services each time, all at
/// once, and waits for half a second at most for each.
///
/// `own` are the endpoints of the router itself, which can't be asked meanwhile.
std::shared_ptr<tarn::Route> make_services_route(const tarn::Fabric& fabric,
                                                 const std::vector<tarn::Endpoint>& own);
