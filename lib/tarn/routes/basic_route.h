// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tarn/route.h"

namespace tarn {
template <class T>
using ValueGetter = std::function<T(Context&)>;
template <class T>
using ValueSetter = std::function<void(Context&, T)>;
using ValueDeleter = std::function<void(Context&)>;

/// A route for one value that the application keeps: GET answers with its text, PUT and POST parse a text and
/// set the value, DELETE removes it. A published PUT or DELETE does the same.
///
/// slate::try_parse reads the body's text, whole and untrimmed; a text that it refuses gives status 400. A
/// function may be empty if the route never needs it; otherwise its call throws std::bad_function_call. The
/// functions run like handlers of Route: one at a time, but beside the application's threads.
///
/// It is instantiated for the types of the functions below, and for `long` and `long long` with and without
/// sign, of which std::int64_t and std::uint64_t are one or the other.
template <class T>
class BasicRoute : public Route {
public:
    BasicRoute(const std::string& route_name, const std::string& methods, const RoutePattern& route_pattern,
               ValueGetter<T> value_getter, ValueSetter<T> value_setter, ValueDeleter value_deleter,
               Access route_access);

    void get(Context& context) const override;
    void put(Context& context) override;
    void post(Context& context) override;
    void del(Context& context) override;

    ValueGetter<T> getter;
    ValueSetter<T> setter;
    ValueDeleter deleter;

private:
    void write(Context& context);
};

/// A route for one value. `name` is unique within a server; `methods` as for Route, such as "get,put";
/// `pattern` such as "/volume".
[[nodiscard]] std::shared_ptr<Route> make_bool_route(const std::string& name, const std::string& methods,
                                                     const RoutePattern& pattern,
                                                     const ValueGetter<bool>& getter,
                                                     const ValueSetter<bool>& setter = {},
                                                     const ValueDeleter& deleter = {},
                                                     Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_int32_route(const std::string& name, const std::string& methods,
                                                      const RoutePattern& pattern,
                                                      const ValueGetter<int>& getter,
                                                      const ValueSetter<int>& setter = {},
                                                      const ValueDeleter& deleter = {},
                                                      Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_int64_route(const std::string& name, const std::string& methods,
                                                      const RoutePattern& pattern,
                                                      const ValueGetter<std::int64_t>& getter,
                                                      const ValueSetter<std::int64_t>& setter = {},
                                                      const ValueDeleter& deleter = {},
                                                      Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_uint32_route(const std::string& name, const std::string& methods,
                                                       const RoutePattern& pattern,
                                                       const ValueGetter<unsigned int>& getter,
                                                       const ValueSetter<unsigned int>& setter = {},
                                                       const ValueDeleter& deleter = {},
                                                       Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_uint64_route(const std::string& name, const std::string& methods,
                                                       const RoutePattern& pattern,
                                                       const ValueGetter<std::uint64_t>& getter,
                                                       const ValueSetter<std::uint64_t>& setter = {},
                                                       const ValueDeleter& deleter = {},
                                                       Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_float_route(const std::string& name, const std::string& methods,
                                                      const RoutePattern& pattern,
                                                      const ValueGetter<float>& getter,
                                                      const ValueSetter<float>& setter = {},
                                                      const ValueDeleter& deleter = {},
                                                      Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_double_route(const std::string& name, const std::string& methods,
                                                       const RoutePattern& pattern,
                                                       const ValueGetter<double>& getter,
                                                       const ValueSetter<double>& setter = {},
                                                       const ValueDeleter& deleter = {},
                                                       Access access = Access::Public);
[[nodiscard]] std::shared_ptr<Route> make_string_route(const std::string& name, const std::string& methods,
                                                       const RoutePattern& pattern,
                                                       const ValueGetter<std::string>& getter,
                                                       const ValueSetter<std::string>& setter = {},
                                                       const ValueDeleter& deleter = {},
                                                       Access access = Access::Public);
} // namespace tarn
