#include "mgmtd_builder.hpp"

#include <arpa/inet.h>

#include <cstdlib>

namespace mgmtd_builder {

namespace detail {

mgmtd_value_t text(std::deque<std::string> &store, const char *s)
{
    const std::string &kept = store.emplace_back(s);
    auto *bytes = reinterpret_cast<unsigned char *>(const_cast<char *>(kept.c_str()));
    return value(C_BUF, &Union::buf, mgmtd_buf_t{static_cast<uint32_t>(kept.size()), bytes});
}

template <typename T>
T parse_address(int family, const char *addr)
{
    T out{};
    if (inet_pton(family, addr, &out) != 1) {
        std::abort();  // a typo in a test, not a case under test
    }
    return out;
}

in_addr ipv4(const char *addr)
{
    return parse_address<in_addr>(AF_INET, addr);
}

in6_addr ipv6(const char *addr)
{
    return parse_address<in6_addr>(AF_INET6, addr);
}

}  // namespace detail

keys &keys::push(const mgmtd_value_t &v)
{
    keys_.push_back(v);
    return *this;
}

values &values::add(uint32_t tag, const mgmtd_value_t &v)
{
    values_.push_back(mgmtd_tag_value_t{{tag, 0x0badcafe}, v});  // readers never look at the namespace
    return *this;
}

template <typename T, typename Item>
values &values::list(uint32_t tag, std::initializer_list<T> items, Item item)
{
    std::vector<mgmtd_value_t> &list = lists_.emplace_back();
    for (const T &x : items) {
        list.push_back(item(x));
    }
    return add(tag, detail::value(C_LIST, &U::list, mgmtd_list_t{static_cast<uint32_t>(list.size()), list.data()}));
}

values &values::texts(uint32_t tag, std::initializer_list<const char *> items)
{
    return list(tag, items, [&](const char *s) { return detail::text(texts_, s); });
}

values &values::enums(uint32_t tag, std::initializer_list<int32_t> items)
{
    return list(tag, items, [](int32_t x) { return detail::value(C_ENUM_VALUE, &U::enumvalue, x); });
}

values &values::bytes(uint32_t tag, std::initializer_list<uint8_t> items)
{
    return list(tag, items, [](uint8_t x) { return detail::value(C_UINT8, &U::u8, x); });
}

}  // namespace mgmtd_builder
