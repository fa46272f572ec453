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

class keys {
public:
    keys() = default;
    keys(const keys &) = delete;
    keys &operator=(const keys &) = delete;

    keys &text(const char *s);
    keys &u16(uint16_t v);
    keys &u64(uint64_t v);
    keys &enum_value(int32_t v);
    keys &ipv4(const char *addr);  // dotted text, stored in network order
    keys &ipv6(const char *addr);
    keys &ipv4_prefix(const char *addr, uint8_t len);
    keys &ipv6_prefix(const char *addr, uint8_t len);

    mgmtd_value_t *data() { return keys_.data(); }
    uint8_t size() const { return static_cast<uint8_t>(keys_.size()); }

private:
    std::deque<std::string> texts_;
    std::vector<mgmtd_value_t> keys_;
};

class values {
public:
    values() = default;
    values(const values &) = delete;
    values &operator=(const values &) = delete;

    values &text(uint32_t tag, const char *s);
    values &u8(uint32_t tag, uint8_t v);
    values &u16(uint32_t tag, uint16_t v);
    values &u32(uint32_t tag, uint32_t v);
    values &boolean(uint32_t tag, bool v);
    values &enum_leaf(uint32_t tag, int32_t v);
    values &ipv4(uint32_t tag, const char *addr);
    values &removed(uint32_t tag);
    values &begin(uint32_t tag);  // start of a container
    values &end(uint32_t tag);
    values &texts(uint32_t tag, std::initializer_list<const char *> items);  // leaf-list
    values &enums(uint32_t tag, std::initializer_list<int32_t> items);       // leaf-list
    values &bytes(uint32_t tag, std::initializer_list<uint8_t> items);       // leaf-list

    mgmtd_tag_value_t *data() { return values_.data(); }
    uint16_t size() const { return static_cast<uint16_t>(values_.size()); }

private:
    values &add(uint32_t tag, const mgmtd_value_t &v);

    std::deque<std::string> texts_;
    std::deque<std::vector<mgmtd_value_t>> lists_;
    std::vector<mgmtd_tag_value_t> values_;
};

}  // namespace mgmtd_builder

#endif  // MGMTD_BUILDER_HPP
