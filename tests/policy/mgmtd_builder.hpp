// Builders of what the host's management layer hands a configuration change
// callback: the keys of a node and its flattened leaves and containers. Each
// builder owns everything its values point to, so a built array stays valid
// while the builder lives. Tags are those of zen/zen_policy_tags.h.
//
//   mgmtd_builder::keys k;
//   k.text("pol").u16(10);
//   mgmtd_builder::values v;
//   v.enum_leaf(TAG_ACTION, 0).begin(TAG_SERVICE).u32(TAG_VPN, 10).end(TAG_SERVICE);
//   reader(&host, ctx, MOP_CREATED, k.size(), k.data(), v.size(), v.data());
#ifndef MGMTD_BUILDER_HPP
#define MGMTD_BUILDER_HPP

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include <zen/mgmtd.h>

namespace mgmtd_builder {

namespace detail {

using Union = decltype(mgmtd_value_t::val);

// A value of one type with one member of the union set.
template <typename T = int, typename M = int>
mgmtd_value_t value(mgmtd_vtype type, T Union::*member = nullptr, M v = {})
{
    mgmtd_value_t out{};
    out.type = type;
    if (member != nullptr) {
        out.val.*member = T(v);
    }
    return out;
}

// Texts live in a deque: its elements never move, so their buffers stay put.
mgmtd_value_t text(std::deque<std::string> &store, const char *s);
in_addr ipv4(const char *addr);  // dotted text, in network order
in6_addr ipv6(const char *addr);

}  // namespace detail

class keys {
public:
    keys() = default;
    keys(const keys &) = delete;
    keys &operator=(const keys &) = delete;

    keys &text(const char *s) { return push(detail::text(texts_, s)); }
    keys &u16(uint16_t v) { return push(detail::value(C_UINT16, &U::u16, v)); }
    keys &u64(uint64_t v) { return push(detail::value(C_UINT64, &U::u64, v)); }
    keys &enum_value(int32_t v) { return push(detail::value(C_ENUM_VALUE, &U::enumvalue, v)); }
    keys &ipv4(const char *addr) { return push(detail::value(C_IPV4, &U::ip, detail::ipv4(addr))); }
    keys &ipv4_prefix(const char *addr, uint8_t len)
    {
        return push(detail::value(C_IPV4PREFIX, &U::ipv4prefix, mgmtd_ipv4prefix_t{detail::ipv4(addr), len}));
    }
    keys &ipv6_prefix(const char *addr, uint8_t len)
    {
        return push(detail::value(C_IPV6PREFIX, &U::ipv6prefix, mgmtd_ipv6prefix_t{detail::ipv6(addr), len}));
    }

    mgmtd_value_t *data() { return keys_.data(); }
    uint8_t size() const { return static_cast<uint8_t>(keys_.size()); }

private:
    using U = detail::Union;
    keys &push(const mgmtd_value_t &v);

    std::deque<std::string> texts_;
    std::vector<mgmtd_value_t> keys_;
};

class values {
public:
    values() = default;
    values(const values &) = delete;
    values &operator=(const values &) = delete;

    values &text(uint32_t tag, const char *s) { return add(tag, detail::text(texts_, s)); }
    values &u8(uint32_t tag, uint8_t v) { return add(tag, detail::value(C_UINT8, &U::u8, v)); }
    values &u16(uint32_t tag, uint16_t v) { return add(tag, detail::value(C_UINT16, &U::u16, v)); }
    values &u32(uint32_t tag, uint32_t v) { return add(tag, detail::value(C_UINT32, &U::u32, v)); }
    values &boolean(uint32_t tag, bool v) { return add(tag, detail::value(C_BOOL, &U::boolean, v ? 1 : 0)); }
    values &enum_leaf(uint32_t tag, int32_t v) { return add(tag, detail::value(C_ENUM_VALUE, &U::enumvalue, v)); }
    values &ipv4(uint32_t tag, const char *addr) { return add(tag, detail::value(C_IPV4, &U::ip, detail::ipv4(addr))); }
    values &removed(uint32_t tag) { return add(tag, detail::value(C_NOEXISTS)); }
    values &begin(uint32_t tag) { return add(tag, detail::value(C_XMLBEGIN)); }  // start of a container
    values &end(uint32_t tag) { return add(tag, detail::value(C_XMLEND)); }
    values &texts(uint32_t tag, std::initializer_list<const char *> items);  // leaf-list
    values &enums(uint32_t tag, std::initializer_list<int32_t> items);       // leaf-list
    values &bytes(uint32_t tag, std::initializer_list<uint8_t> items);       // leaf-list

    mgmtd_tag_value_t *data() { return values_.data(); }
    uint16_t size() const { return static_cast<uint16_t>(values_.size()); }

private:
    using U = detail::Union;
    values &add(uint32_t tag, const mgmtd_value_t &v);
    // A leaf-list of the items, each made into a value by item.
    template <typename T, typename Item>
    values &list(uint32_t tag, std::initializer_list<T> items, Item item);

    std::deque<std::string> texts_;
    std::deque<std::vector<mgmtd_value_t>> lists_;
    std::vector<mgmtd_tag_value_t> values_;
};

}  // namespace mgmtd_builder

#endif  // MGMTD_BUILDER_HPP
