#include "mgmtd_builder.hpp"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

namespace mgmtd_builder {

namespace {

// Texts live in a deque: its elements never move, so their buffers stay put.
mgmtd_value_t buf_value(std::deque<std::string> &store, const char *s)
{
    const std::string &kept = store.emplace_back(s);
    mgmtd_value_t v{};
    v.type = C_BUF;
    v.val.buf.size = static_cast<uint32_t>(kept.size());
    v.val.buf.ptr = reinterpret_cast<unsigned char *>(const_cast<char *>(kept.c_str()));
    return v;
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

mgmtd_value_t of_type(mgmtd_vtype type)
{
    mgmtd_value_t v{};
    v.type = type;
    return v;
}

mgmtd_value_t ipv4_value(const char *addr)
{
    mgmtd_value_t v = of_type(C_IPV4);
    v.val.ip = parse_address<in_addr>(AF_INET, addr);
    return v;
}

mgmtd_value_t ipv6_value(const char *addr)
{
    mgmtd_value_t v = of_type(C_IPV6);
    v.val.ip6 = parse_address<in6_addr>(AF_INET6, addr);
    return v;
}

}  // namespace

keys &keys::text(const char *s)
{
    keys_.push_back(buf_value(texts_, s));
    return *this;
}

keys &keys::u16(uint16_t value)
{
    mgmtd_value_t v = of_type(C_UINT16);
    v.val.u16 = value;
    keys_.push_back(v);
    return *this;
}

keys &keys::u64(uint64_t value)
{
    mgmtd_value_t v = of_type(C_UINT64);
    v.val.u64 = value;
    keys_.push_back(v);
    return *this;
}

keys &keys::enum_value(int32_t value)
{
    mgmtd_value_t v = of_type(C_ENUM_VALUE);
    v.val.enumvalue = value;
    keys_.push_back(v);
    return *this;
}

keys &keys::ipv4(const char *addr)
{
    keys_.push_back(ipv4_value(addr));
    return *this;
}

keys &keys::ipv6(const char *addr)
{
    keys_.push_back(ipv6_value(addr));
    return *this;
}

keys &keys::ipv4_prefix(const char *addr, uint8_t len)
{
    mgmtd_value_t v = of_type(C_IPV4PREFIX);
    v.val.ipv4prefix.ip = parse_address<in_addr>(AF_INET, addr);
    v.val.ipv4prefix.len = len;
    keys_.push_back(v);
    return *this;
}

keys &keys::ipv6_prefix(const char *addr, uint8_t len)
{
    mgmtd_value_t v = of_type(C_IPV6PREFIX);
    v.val.ipv6prefix.ip6 = parse_address<in6_addr>(AF_INET6, addr);
    v.val.ipv6prefix.len = len;
    keys_.push_back(v);
    return *this;
}

values &values::add(uint32_t tag, const mgmtd_value_t &v)
{
    mgmtd_tag_value_t tv{};
    tv.tag.tag = tag;
    tv.tag.ns = 0x0badcafe;  // readers never look at the namespace
    tv.v = v;
    values_.push_back(tv);
    return *this;
}

values &values::text(uint32_t tag, const char *s)
{
    return add(tag, buf_value(texts_, s));
}

values &values::u8(uint32_t tag, uint8_t value)
{
    mgmtd_value_t v = of_type(C_UINT8);
    v.val.u8 = value;
    return add(tag, v);
}

values &values::u16(uint32_t tag, uint16_t value)
{
    mgmtd_value_t v = of_type(C_UINT16);
    v.val.u16 = value;
    return add(tag, v);
}

values &values::u32(uint32_t tag, uint32_t value)
{
    mgmtd_value_t v = of_type(C_UINT32);
    v.val.u32 = value;
    return add(tag, v);
}

values &values::boolean(uint32_t tag, bool value)
{
    mgmtd_value_t v = of_type(C_BOOL);
    v.val.boolean = value ? 1 : 0;
    return add(tag, v);
}

values &values::enum_leaf(uint32_t tag, int32_t value)
{
    mgmtd_value_t v = of_type(C_ENUM_VALUE);
    v.val.enumvalue = value;
    return add(tag, v);
}

values &values::ipv4(uint32_t tag, const char *addr)
{
    return add(tag, ipv4_value(addr));
}

values &values::removed(uint32_t tag)
{
    return add(tag, of_type(C_NOEXISTS));
}

values &values::begin(uint32_t tag)
{
    return add(tag, of_type(C_XMLBEGIN));
}

values &values::end(uint32_t tag)
{
    return add(tag, of_type(C_XMLEND));
}

values &values::texts(uint32_t tag, std::initializer_list<const char *> items)
{
    std::vector<mgmtd_value_t> &list = lists_.emplace_back();
    for (const char *item : items) {
        list.push_back(buf_value(texts_, item));
    }
    mgmtd_value_t v = of_type(C_LIST);
    v.val.list.size = static_cast<uint32_t>(list.size());
    v.val.list.ptr = list.data();
    return add(tag, v);
}

}  // namespace mgmtd_builder

namespace mgmtd_builder {

values &values::enums(uint32_t tag, std::initializer_list<int32_t> items)
{
    std::vector<mgmtd_value_t> &list = lists_.emplace_back();
    for (int32_t item : items) {
        mgmtd_value_t v = of_type(C_ENUM_VALUE);
        v.val.enumvalue = item;
        list.push_back(v);
    }
    mgmtd_value_t v = of_type(C_LIST);
    v.val.list.size = static_cast<uint32_t>(list.size());
    v.val.list.ptr = list.data();
    return add(tag, v);
}

values &values::bytes(uint32_t tag, std::initializer_list<uint8_t> items)
{
    std::vector<mgmtd_value_t> &list = lists_.emplace_back();
    for (uint8_t item : items) {
        mgmtd_value_t v = of_type(C_UINT8);
        v.val.u8 = item;
        list.push_back(v);
    }
    mgmtd_value_t v = of_type(C_LIST);
    v.val.list.size = static_cast<uint32_t>(list.size());
    v.val.list.ptr = list.data();
    return add(tag, v);
}

}  // namespace mgmtd_builder
