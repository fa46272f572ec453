// Configuration change callbacks of the named lists: site, VPN, TLOC,
// colour, community and prefix lists. List-name nodes carry no leaves the
// library reads; entry nodes add or delete one entry of their list, whose
// store notifies the users of what changed.
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include <zen/zen_util.h>

#include "pol_config_internal.hpp"
#include "pol_match.hpp"

using namespace pol::config;

namespace {

/* ---- site and VPN ranges ---- */

struct id_range {
    uint32_t min;
    uint32_t max;
};

// A decimal number of the 32 bits that site and VPN lists keep their
// bounds in: digits only, nothing that would wrap.
std::optional<uint32_t> parse_id(std::string_view text)
{
    if (text.empty() || text.size() > 10) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

// "N" is the range N to N, "N-M" the range N to M; the bounds are passed
// on in the order given.
std::optional<id_range> parse_range(const char *text)
{
    const std::string_view whole(text);
    const std::size_t dash = whole.find('-');
    const std::optional<uint32_t> first = parse_id(whole.substr(0, dash));
    if (!first) {
        return std::nullopt;
    }
    if (dash == std::string_view::npos) {
        return id_range{*first, *first};
    }
    const std::optional<uint32_t> second = parse_id(whole.substr(dash + 1));
    if (!second) {
        return std::nullopt;
    }
    return id_range{*first, *second};
}

using range_op_f = e_err (*)(t_pol_ctx *, const char *, uint32_t, uint32_t);

// Ranges are added on creation only; a modification changes nothing.
int32_t apply_range(t_pol_ctx *ctx, mgmtd_iter_op oper, const char *name, id_range range,
                    range_op_f add, range_op_f del, mgmtd_tag_value_t *val_p, uint32_t num_values)
{
    if (oper == MOP_DELETED) {
        return status_of(del(ctx, name, range.min, range.max));
    }
    trace_values(val_p, num_values);
    return oper == MOP_CREATED ? status_of(add(ctx, name, range.min, range.max)) : POL_CONFIG_OK;
}

// The families whose entries are id ranges keyed by "N" or "N-M".
struct range_family {
    const char *debug_name;  // as the debug trace names the list
    const char *log_name;    // as the error log names the list
    range_op_f add;
    range_op_f del;
};

// One entry of a site or VPN list: list name and range text are the keys.
int32_t read_range_entry(const range_family &family, t_pol_ctx *ctx, mgmtd_iter_op oper,
                         uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const char *text = key_text(&key_p[1]);
    POL_DBG(0, "%s list config - Name:%s, id:%s, Oper:%u, num:%u", family.debug_name, name, text,
            static_cast<unsigned>(oper), static_cast<unsigned>(num_values));
    const std::optional<id_range> range = parse_range(text);
    if (!range) {
        POL_LOG("Invalid %s list range %s in list %s", family.log_name, text, name);
        return POL_CONFIG_BAD_KEY;
    }
    return apply_range(ctx, oper, name, *range, family.add, family.del, val_p, num_values);
}

/* ---- prefix-list entries ---- */

// The length leaves of one prefix-list entry change and the condition they
// make: an exact length overrides minimum and maximum.
class preflen_leaves {
public:
    void read(const mgmtd_tag_value_t *cur_val_p)
    {
        switch (cur_val_p->tag.tag) {
        case TAG_PREFLEN_MIN:
            read_bound(cur_val_p, min_, min_given_);
            break;
        case TAG_PREFLEN_MAX:
            read_bound(cur_val_p, max_, max_given_);
            break;
        case TAG_PREFLEN_EXACT:
            exact_ = removed(cur_val_p) ? exact::removed : exact::given;
            exact_len_ = exact_ == exact::given ? value_u8(cur_val_p) : 0;
            break;
        default:
            break;
        }
    }

    void finish(t_pfx_entry_param &param) const
    {
        param.preflen_min = min_;
        param.preflen_max = max_;
        if (exact_ == exact::removed) {
            param.preflen_min = min_given_ ? min_ : 0;
            param.preflen_max = max_given_ ? max_ : 0;
        } else if (exact_ == exact::given) {
            param.preflen_min = exact_len_;
            param.preflen_max = exact_len_;
        }
        param.pfx_op = pol::pfx_op_of_bounds(param.preflen_min, param.preflen_max);
    }

private:
    enum class exact { absent, given, removed };

    static void read_bound(const mgmtd_tag_value_t *cur_val_p, uint8_t &len, bool &given)
    {
        len = removed(cur_val_p) ? 0 : value_u8(cur_val_p);
        given = given || !removed(cur_val_p);
    }

    uint8_t min_ = 0;
    uint8_t max_ = 0;
    bool min_given_ = false;
    bool max_given_ = false;
    exact exact_ = exact::absent;
    uint8_t exact_len_ = 0;
};

/* ---- community-list entries ---- */

const char *community_list_kind(community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? "expanded-community-list" : "community-list";
}

// An entry the store refused stops the change: the host learns why.
int32_t community_add_status(e_err rc, const char *name, const char *text,
                             community_list_type type)
{
    if (rc == ERR_OK) {
        return POL_CONFIG_OK;
    }
    const char *kind = community_list_kind(type);
    if (rc == ERR_ALLOC) {
        return POL_CONFIG_FAIL(POL_CONFIG_NO_MEMORY, "%s %s: no memory for entry %s", kind, name,
                               text);
    }
    char why[160] = "is not a community";
    if (type == COMM_LIST_TYPE_EXPANDED && !pol_community_pattern_error(text, why, sizeof(why))) {
        std::snprintf(why, sizeof(why), "cannot be stored");
    }
    return POL_CONFIG_FAIL(POL_CONFIG_BAD_KEY, "%s %s: \"%s\" %s", kind, name, text, why);
}

// A list-name node carries no leaves the library reads: a delete drops the
// list's configuration, anything else is only traced.
template <typename Delete>
int32_t delete_or_trace(mgmtd_iter_op oper, mgmtd_tag_value_t *val_p, uint32_t num_values,
                        Delete &&cfg_del)
{
    if (oper == MOP_DELETED) {
        cfg_del();
    } else {
        trace_values(val_p, num_values);
    }
    return POL_CONFIG_OK;
}

}  // namespace

extern "C" {

/* ---- site and VPN lists ---- */

int32_t pol_config_policy_site_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Site list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_site_list_cfg_del(pol_ctx_p, name); });
}

int32_t pol_config_policy_site_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                    uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                    mgmtd_tag_value_t *val_p)
{
    return read_range_entry({"Site", "site", pol_site_list_add_entry, pol_site_list_del_entry},
                            pol_ctx_p, oper, num_keys, key_p, num_values, val_p);
}

int32_t pol_config_policy_vpn_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                        mgmtd_iter_op oper, uint8_t num_keys,
                                        mgmtd_value_t *key_p, uint16_t num_values,
                                        mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "VPN list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_vpn_list_cfg_del(pol_ctx_p, name); });
}

int32_t pol_config_policy_vpn_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                   uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                   mgmtd_tag_value_t *val_p)
{
    return read_range_entry({"VPN", "vpn", pol_vpn_list_add_entry, pol_vpn_list_del_entry},
                            pol_ctx_p, oper, num_keys, key_p, num_values, val_p);
}

/* ---- TLOC and colour lists ---- */

int32_t pol_config_policy_tloc_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Tloc list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_tloc_list_cfg_del(pol_ctx_p, name); });
}

// Every operation but a delete (re-)adds the entry with its preference.
int32_t pol_config_policy_tloc_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                    uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                    mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 4);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "Tloc list config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    t_tloc_id tloc;
    std::memset(&tloc, 0, sizeof(tloc));
    key_addr(&tloc.addr, &key_p[1]);
    tloc.color = static_cast<uint8_t>(key_enum(&key_p[2]));
    tloc.encap = static_cast<uint8_t>(key_enum(&key_p[3]));
    if (oper == MOP_DELETED) {
        pol_tloc_list_del_entry(pol_ctx_p, name, &tloc);
        return POL_CONFIG_OK;
    }
    uint32_t preference = 0;
    walk_values(trace_form::list, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (cur_val_p->tag.tag == TAG_PREFERENCE) {
            preference = removed(cur_val_p) ? 0 : value_u32(cur_val_p);
        }
    });
    return status_of(pol_tloc_list_add_entry(pol_ctx_p, name, &tloc, preference));
}

int32_t pol_config_policy_color_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                          mgmtd_iter_op oper, uint8_t num_keys,
                                          mgmtd_value_t *key_p, uint16_t num_values,
                                          mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Color list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_color_list_cfg_del(pol_ctx_p, name); });
}

int32_t pol_config_policy_color_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                     mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                     uint16_t num_values, mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const uint16_t color = static_cast<uint16_t>(key_enum(&key_p[1]));
    POL_DBG(0, "Color list config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_color_list_del_entry(pol_ctx_p, name, color);
        return POL_CONFIG_OK;
    }
    trace_values(val_p, num_values);
    return status_of(pol_color_list_add_entry(pol_ctx_p, name, color));
}

/* ---- community lists ---- */

int32_t pol_config_community_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                       mgmtd_iter_op oper, uint8_t num_keys,
                                       mgmtd_value_t *key_p, uint32_t num_values,
                                       mgmtd_tag_value_t *val_p, community_list_type list_type)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Community list Config - Name:%s, type:%d, Oper:%u, num:%u", name,
            static_cast<int>(list_type), static_cast<unsigned>(oper), num_values);
    return delete_or_trace(oper, val_p, num_values, [&] { pol_community_list_cfg_del(pol_ctx_p, name, list_type); });
}

int32_t pol_config_community_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                  uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                  mgmtd_tag_value_t *val_p, community_list_type list_type)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const char *text = key_text(&key_p[1]);
    POL_DBG(0, "Community list config - Name:%s, Type:%d, Oper:%u, num:%u", name,
            static_cast<int>(list_type), static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_community_list_del_entry(pol_ctx_p, name, text, list_type);
        return POL_CONFIG_OK;
    }
    trace_values(val_p, num_values);
    return community_add_status(pol_community_list_add_entry(pol_ctx_p, name, text, list_type),
                                name, text, list_type);
}

/* ---- prefix lists ---- */

int32_t pol_config_policy_prefix_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                           mgmtd_iter_op oper, uint8_t num_keys,
                                           mgmtd_value_t *key_p, uint16_t num_values,
                                           mgmtd_tag_value_t *val_p, bool is_ipv4)
{
    check_key_count(num_keys, 1);
    const t_pfx_list_key key = {is_ipv4 ? POL_AF_IPV4 : POL_AF_IPV6, key_text(key_p)};
    POL_DBG(0, "Prefix list Config - Name:%s, is_ipv4:%u, Oper:%u, num:%u", key.pfx_key_name_p,
            static_cast<unsigned>(is_ipv4), static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_pfx_list_cfg_del(pol_ctx_p, &key); });
}

// The entry's family is that of its prefix key; every operation but a
// delete (re-)adds it with the condition its length leaves make.
int32_t pol_config_policy_prefix_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                      mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                      uint16_t num_values, mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    t_pfx_entry_param param;
    std::memset(&param, 0, sizeof(param));
    param.pfx_op = PFX_OP_EQ;
    param.prefix = key_prefix(&key_p[1]);
    const t_pfx_list_key key = {IPPREFIX_IS_V4(&param.prefix) ? POL_AF_IPV4 : POL_AF_IPV6, name};
    char text[128];
    POL_DBG(0, "Prefix config - Name:%s, pfx:%s, Oper:%u, num:%u", name,
            ipprefix_print(&param.prefix, text, sizeof(text)), static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_pfx_list_del_entry(pol_ctx_p, &key, &param);
        return POL_CONFIG_OK;
    }
    preflen_leaves lengths;
    walk_values(trace_form::list, val_p, num_values,
                [&](const mgmtd_tag_value_t *cur_val_p) { lengths.read(cur_val_p); });
    lengths.finish(param);
    const e_err err = pol_pfx_list_entry_add(pol_ctx_p, &key, &param);
    if (err == ERR_BAD_PARAM) {
        POL_LOG("Invalid prefix lengths %u-%u for %s in list %s",
                static_cast<unsigned>(param.preflen_min), static_cast<unsigned>(param.preflen_max),
                ipprefix_print(&param.prefix, text, sizeof(text)), name);
    }
    return status_of(err);
}

}  // extern "C"
