// SPDX-License-Identifier: Apache-2.0
#include "tarn/routes/basic_route.h"

#include <utility>

#include "slate/strings.h"

namespace tarn {
template <class T>
BasicRoute<T>::BasicRoute(const std::string& route_name, const std::string& methods,
                          const RoutePattern& route_pattern, ValueGetter<T> value_getter,
                          ValueSetter<T> value_setter, ValueDeleter value_deleter, Access route_access)
    : Route(route_name, methods, route_pattern, route_access),
      getter(std::move(value_getter)),
      setter(std::move(value_setter)),
      deleter(std::move(value_deleter))
{
}

template <class T>
void BasicRoute<T>::get(Context& context) const
{
    context.reply.set_reply_text(slate::to_string<T>(getter(context)));
}

template <class T>
void BasicRoute<T>::put(Context& context)
{
    write(context);
}

template <class T>
void BasicRoute<T>::post(Context& context)
{
    write(context);
}

template <class T>
void BasicRoute<T>::del(Context& context)
{
    deleter(context);
}

template <class T>
void BasicRoute<T>::write(Context& context)
{
    T value{};
    if (!slate::try_parse<T>(context.request.data(), &value))
        throw MessageException(Status::BadRequest, slate::trace_error(provider, SLATE_HERE,
                                                                      "failed to write; cannot parse value"));
    setter(context, std::move(value));
}

template class BasicRoute<bool>;
template class BasicRoute<int>;
template class BasicRoute<long>;
template class BasicRoute<long long>; // one of the two is std::int64_t
template class BasicRoute<unsigned int>;
template class BasicRoute<unsigned long>;
template class BasicRoute<unsigned long long>;
template class BasicRoute<float>;
template class BasicRoute<double>;
template class BasicRoute<std::string>;

std::shared_ptr<Route> make_bool_route(const std::string& name, const std::string& methods,
                                       const RoutePattern& pattern, const ValueGetter<bool>& getter,
                                       const ValueSetter<bool>& setter, const ValueDeleter& deleter,
                                       Access access)
{
    return std::make_shared<BasicRoute<bool>>(name, methods, pattern, getter, setter, deleter, access);
}

std::shared_ptr<Route> make_int32_route(const std::string& name, const std::string& methods,
                                        const RoutePattern& pattern, const ValueGetter<int>& getter,
                                        const ValueSetter<int>& setter, const ValueDeleter& deleter,
                                        Access access)
{
    return std::make_shared<BasicRoute<int>>(name, methods, pattern, getter, setter, deleter, access);
}

std::shared_ptr<Route> make_int64_route(const std::string& name, const std::string& methods,
                                        const RoutePattern& pattern, const ValueGetter<std::int64_t>& getter,
                                        const ValueSetter<std::int64_t>& setter, const ValueDeleter& deleter,
                                        Access access)
{
    return std::make_shared<BasicRoute<std::int64_t>>(name, methods, pattern, getter, setter, deleter,
                                                      access);
}

std::shared_ptr<Route> make_uint32_route(const std::string& name, const std::string& methods,
                                         const RoutePattern& pattern, const ValueGetter<unsigned int>& getter,
                                         const ValueSetter<unsigned int>& setter, const ValueDeleter& deleter,
                                         Access access)
{
    return std::make_shared<BasicRoute<unsigned int>>(name, methods, pattern, getter, setter, deleter,
                                                      access);
}

std::shared_ptr<Route> make_uint64_route(const std::string& name, const std::string& methods,
                                         const RoutePattern& pattern,
                                         const ValueGetter<std::uint64_t>& getter,
                                         const ValueSetter<std::uint64_t>& setter,
                                         const ValueDeleter& deleter, Access access)
{
    return std::make_shared<BasicRoute<std::uint64_t>>(name, methods, pattern, getter, setter, deleter,
                                                       access);
}

std::shared_ptr<Route> make_float_route(const std::string& name, const std::string& methods,
                                        const RoutePattern& pattern, const ValueGetter<float>& getter,
                                        const ValueSetter<float>& setter, const ValueDeleter& deleter,
                                        Access access)
{
    return std::make_shared<BasicRoute<float>>(name, methods, pattern, getter, setter, deleter, access);
}

std::shared_ptr<Route> make_double_route(const std::string& name, const std::string& methods,
                                         const RoutePattern& pattern, const ValueGetter<double>& getter,
                                         const ValueSetter<double>& setter, const ValueDeleter& deleter,
                                         Access access)
{
    return std::make_shared<BasicRoute<double>>(name, methods, pattern, getter, setter, deleter, access);
}

std::shared_ptr<Route> make_string_route(const std::string& name, const std::string& methods,
                                         const RoutePattern& pattern, const ValueGetter<std::string>& getter,
                                         const ValueSetter<std::string>& setter, const ValueDeleter& deleter,
                                         Access access)
{
    return std::make_shared<BasicRoute<std::string>>(name, methods, pattern, getter, setter, deleter, access);
}
} // namespace tarn
