// Configuration change callbacks of data policies and app-route policies:
// the policy, one VPN list of it (its default action and that action's SLA
// class) and one sequence of a VPN list (its match and its actions); and
// the start-up read that creates the configured data policies.
//
// The callbacks address the data-policy model by policy name, type, VPN
// list and sequence number, through the updates of pol_fwd_entry*.cpp. A
// sequence's leaves are dispatched by tag and by the container they sit
// in; the parts of its TLOC, service and local TLOC are collected over the
// walk and applied after it, because their leaves may come in any order
// and a choice switch hands over the removal of one alternative beside the
// value of the other. A failing update ends the callback with status 1:
// what was applied stays, nothing more is read and nobody is notified.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <span>

#include "pol_config_fwd_internal.hpp"
#include "pol_fwd_label.h"

using namespace pol::config;
using namespace pol::config::fwd;

namespace {

/* ---- leaves with one update each ---- */

// Applies a leaf to the sequence: add for a value, delete when removed.
using seq_leaf_f = e_err (*)(const seq_at &, const mgmtd_tag_value_t *, bool add);

struct seq_leaf {
    uint32_t tag;
    const char *subject;  // what the failure message names
    seq_leaf_f apply;
};

// An update taking the value as Read reads it (removed: a zero value).
template <auto Upd, auto Read>
e_err valued(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    using value_t = decltype(Read(cur_val_p));
    return Upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq,
               add ? Read(cur_val_p) : value_t{}, add);
}

template <auto Upd>
e_err flag(const seq_at &at, const mgmtd_tag_value_t *, bool add)
{
    return Upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq, add);
}

// A named list the sequence refers to: a name sets it, removal drops it.
template <auto Upd>
e_err reference(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    Upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq, add ? value_text(cur_val_p) : "");
    return ERR_OK;
}

uint8_t enum_u8(const mgmtd_tag_value_t *cur_val_p)
{
    return static_cast<uint8_t>(value_enum(cur_val_p));
}


e_err next_hop_v6(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    t_ipaddr addr;
    std::memset(&addr, 0, sizeof(addr));
    if (add) {
        struct in6_addr a6;
        if (inet_pton(AF_INET6, value_text(cur_val_p), &a6) != 1) {
            return ERR_BAD_PARAM;
        }
        IPADDR_INIT(&addr, IP_ADDR_V6);
        IPADDR_SET_V6(&addr, a6.s6_addr);
    }
    return pol_fwd_entry_next_hop_v6_upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq,
                                         &addr, add);
}

e_err next_hop(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    t_ipaddr addr;
    std::memset(&addr, 0, sizeof(addr));
    if (add) {
        value_addr(&addr, cur_val_p);
    }
    return pol_fwd_entry_next_hop_upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq,
                                      &addr, add);
}

// An address or a kind: setting one drops the other.
e_err redirect_dns(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    const bool is_kind = add && cur_val_p->v.type == C_ENUM_VALUE;
    const bool is_addr = add && !is_kind;
    t_ipaddr addr;
    std::memset(&addr, 0, sizeof(addr));
    if (is_addr) {
        value_addr(&addr, cur_val_p);
    }
    const fwd_keys &k = at.keys;
    const e_err by_addr =
        pol_fwd_entry_redirect_dns_ip_upd(at.ctx, k.name, at.type, k.vpn, k.seq, &addr, is_addr);
    if (by_addr != ERR_OK) {
        return by_addr;
    }
    return pol_fwd_entry_redirect_dns_type_upd(at.ctx, k.name, at.type, k.vpn, k.seq,
                                               is_kind ? enum_u8(cur_val_p) : 0, is_kind);
}

e_err vpn(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    pol_fwd_entry_vpn_upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq,
                          add ? value_u32(cur_val_p) : 0, add);
    return ERR_OK;
}

e_err backup_sla_color(const seq_at &at, const mgmtd_tag_value_t *cur_val_p, bool add)
{
    return pol_fwd_entry_backup_sla_prefer_color_upd(at.ctx, at.keys.name, at.type, at.keys.vpn,
                                                     at.keys.seq, add ? colors_mask(cur_val_p) : 0,
                                                     add);
}

// Leaves of a sequence outside its set container, and of its match.
constexpr seq_leaf kSeqLeaves[] = {
    {TAG_TRAFFIC_CATEGORY, "traffic category entry",
     valued<pol_fwd_entry_traffic_category_upd, value_enum>},
    {TAG_TCP, "TCP entry", valued<pol_fwd_entry_tcp_upd, value_enum>},
    {TAG_PLP, "PLP entry", valued<pol_fwd_entry_plp_upd, value_enum>},
    {TAG_DNS, "DNS entry", valued<pol_fwd_entry_dns_upd, value_enum>},
    {TAG_COUNT, "count entry", valued<pol_fwd_entry_count_upd, value_text>},
    {TAG_SIG, "SIG set entry", flag<pol_fwd_entry_sig_upd>},
    {TAG_LOG, "log set entry", flag<pol_fwd_entry_log_upd>},
    {TAG_CLOUD_SAAS, "cloud saas entry", flag<pol_fwd_entry_cloud_saas_upd>},
    {TAG_BACKUP_SLA_PREFERRED_COLOR, "backup sla prefer color entry", backup_sla_color},
    {TAG_NAT_VPN, "NAT vpn", valued<pol_fwd_entry_nat_use_vpn_upd, value_u32>},
    {TAG_NAT_POOL, "NAT pool", valued<pol_fwd_entry_nat_pool_upd, value_u32>},
    {TAG_NAT_FALLBACK, "NAT fallback", valued<pol_fwd_entry_nat_fallback_upd, value_bool>},
    {TAG_CFLOWD, "cflowd", flag<pol_fwd_entry_cflowd_upd>},
    {TAG_TCP_OPT, "tcp", flag<pol_fwd_entry_tcp_opt_upd>},
    {TAG_SSL_OPT, "ssl", flag<pol_fwd_entry_ssl_opt_upd>},
    {TAG_LOSS_PROTECT, "loss protect", valued<pol_fwd_entry_loss_protect_upd, value_enum>},
    {TAG_FEC, "fec", valued<pol_fwd_entry_fec_upd, value_enum>},
    {TAG_PKT_DUP, "pkt dup", flag<pol_fwd_entry_pkt_dup_upd>},
    {TAG_REDIRECT_DNS, "redirect dns", redirect_dns},
    {TAG_SRC_PFX_LIST, "source data prefix list", reference<pol_fwd_entry_src_pfx_upd>},
    {TAG_DST_PFX_LIST, "destination data prefix list", reference<pol_fwd_entry_dst_pfx_upd>},
    {TAG_SRC_PFX6_LIST, "source data ipv6 prefix list", reference<pol_fwd_entry_src_pfx6_upd>},
    {TAG_DST_PFX6_LIST, "destination data ipv6 prefix list",
     reference<pol_fwd_entry_dst_pfx6_upd>},
    {TAG_APP_LIST, "app list", reference<pol_fwd_entry_app_list_upd>},
    {TAG_DNS_APP_LIST, "dns app list", reference<pol_fwd_entry_dns_app_list_upd>},
    {TAG_SAAS_APP_LIST, "saas app list", reference<pol_fwd_entry_saas_app_list_upd>},
};

// Leaves of a data sequence's set container (TLOC, service and local TLOC
// parts are composed apart).
constexpr seq_leaf kSetLeaves[] = {
    {TAG_NEXT_HOP, "next hop", next_hop},
    {TAG_NEXT_HOP_V6, "next hop v6", next_hop_v6},
    {TAG_DSCP, "dscp action", valued<pol_fwd_entry_dscp_upd, value_u8>},
    {TAG_FWD_CLASS, "fwd class", valued<pol_fwd_entry_fwd_class_upd, value_text>},
    {TAG_VPN, "vpn", vpn},
    {TAG_POLICER, "policer", reference<pol_fwd_entry_policer_upd>},
};

const seq_leaf *leaf_of(std::span<const seq_leaf> table, uint32_t tag)
{
    for (const seq_leaf &leaf : table) {
        if (leaf.tag == tag) {
            return &leaf;
        }
    }
    return nullptr;
}

/* ---- local TLOCs ---- */

// The local TLOC of one change over the one held.
class local_tloc_parts {
public:
    void read(const mgmtd_tag_value_t *cur_val_p)
    {
        const bool gone = removed(cur_val_p);
        if (cur_val_p->tag.tag == TAG_COLOR) {
            withdrawn_ = withdrawn_ || gone;
            has_color_ = !gone;
            color_ = gone ? 0 : value_enum(cur_val_p);
        } else if (cur_val_p->tag.tag == TAG_ENCAP) {
            has_encap_ = true;
            encap_ = gone ? 0 : value_enum(cur_val_p);
        }
    }

    bool given() const { return withdrawn_ || has_color_ || has_encap_; }

    e_err apply(const seq_at &at, const t_pol_entry *entry) const
    {
        const t_local_tloc_id &held = entry->set_entry.set_local_tloc;
        t_local_tloc_id_args args{};
        args.color = has_color_ ? color_ : held.color;
        args.encap = has_encap_ ? encap_ : held.encap;
        args.color_valid = args.color != 0;
        args.encap_valid = args.encap != 0;
        const bool add = !withdrawn_ || has_color_;
        return pol_fwd_local_tloc_upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq,
                                      &args, add);
    }

private:
    bool withdrawn_ = false;
    bool has_color_ = false;
    bool has_encap_ = false;
    uint32_t color_ = 0;
    uint32_t encap_ = 0;
};

// The local TLOC list of one change over the one held: colour and
// encapsulation masks and the restrict flag.
class local_tloc_list_parts {
public:
    void read(const mgmtd_tag_value_t *cur_val_p)
    {
        const bool gone = removed(cur_val_p);
        switch (cur_val_p->tag.tag) {
        case TAG_COLOR:
            withdrawn_ = withdrawn_ || gone;
            has_colors_ = !gone;
            colors_ = gone ? 0 : colors_mask(cur_val_p);
            break;
        case TAG_ENCAP:
            has_encaps_ = true;
            encaps_ = gone ? 0 : colors_mask(cur_val_p);
            break;
        case TAG_RESTRICT:
            has_restrict_ = true;
            restrict_ = gone ? 0 : 1;
            break;
        default:
            break;
        }
    }

    bool given() const { return withdrawn_ || has_colors_ || has_encaps_ || has_restrict_; }

    e_err apply(const seq_at &at, const t_pol_entry *entry) const
    {
        const t_pol_set_local_tloc_list &held = entry->set_entry.set_local_tloc_list;
        t_pol_set_local_tloc_list_args args{};
        args.color_mask = has_colors_ ? colors_ : held.color_mask;
        args.encap_mask = has_encaps_ ? encaps_ : held.encap_mask;
        args.restrict1 = has_restrict_ ? restrict_ : held.restrict1;
        args.color_mask_valid = args.color_mask != 0;
        args.encap_mask_valid = args.encap_mask != 0;
        args.restrict1_valid = args.restrict1 != 0;
        const bool add = !withdrawn_ || has_colors_;
        return pol_fwd_local_tloc_list_upd(at.ctx, at.keys.name, at.type, at.keys.vpn, at.keys.seq,
                                           &args, add);
    }

private:
    bool withdrawn_ = false;
    bool has_colors_ = false;
    bool has_encaps_ = false;
    bool has_restrict_ = false;
    uint32_t colors_ = 0;
    uint32_t encaps_ = 0;
    uint8_t restrict_ = 0;
};

/* ---- label refresh ---- */

// Recomputes one sequence's labels after its TLOC, TLOC list, service or
// local TLOC changed.
fwd_label_hook_f g_label_hook = pol_fwd_upd_label;

/* ---- one sequence's change ---- */

class seq_change {
public:
    seq_change(const seq_at &at, t_pol_entry *entry) : at_(at), entry_(entry) {}

    int32_t read(const mgmtd_tag_value_t *cur_val_p)
    {
        const uint32_t tag = cur_val_p->tag.tag;
        const mgmtd_vtype type = cur_val_p->v.type;
        if (type == C_XMLBEGIN || type == C_XMLEND) {
            enter_or_leave(tag, type == C_XMLBEGIN);
            return POL_CONFIG_OK;
        }
        if (in_local_tloc_) {
            local_tloc_.read(cur_val_p);
        } else if (in_local_tloc_list_) {
            local_tloc_list_.read(cur_val_p);
        } else if (in_tloc_ && tloc_parts::is_part(tag)) {
            tloc_.read(cur_val_p);
        } else if (in_set_) {
            return read_set_leaf(cur_val_p);
        } else {
            return read_seq_leaf(cur_val_p);
        }
        set_changed_ = true;
        return POL_CONFIG_OK;
    }

    int32_t apply()
    {
        if (int32_t status = apply_steering(); status != POL_CONFIG_OK) {
            return status;
        }
        apply_sla_class();
        const fwd_keys &k = at_.keys;
        if (set_changed_) {
            pol_fwd_entry_seq_mod(at_.ctx, k.name, at_.type, k.vpn, k.seq);
        }
        if (steering_changed_) {
            g_label_hook(at_.vmgmtd_ctx_p, at_.ctx, k.name, at_.type, k.vpn, k.seq);
        }
        return POL_CONFIG_OK;
    }

private:
    void enter_or_leave(uint32_t tag, bool begins)
    {
        switch (tag) {
        case TAG_MATCH:
            in_match_ = begins;
            break;
        case TAG_SET:
            in_set_ = begins;
            break;
        case TAG_SERVICE:
            in_service_ = begins;
            break;
        case TAG_TLOC:
            in_tloc_ = begins;
            in_service_tloc_ = in_service_tloc_ || (begins && in_service_);
            break;
        case TAG_LOCAL_TLOC:
            in_local_tloc_ = begins;
            break;
        case TAG_LOCAL_TLOC_LIST:
            in_local_tloc_list_ = begins;
            break;
        default:
            break;
        }
    }

    int32_t apply_seq_leaf(const seq_leaf &leaf, const mgmtd_tag_value_t *cur_val_p)
    {
        const bool add = !removed(cur_val_p);
        if (leaf.apply(at_, cur_val_p, add) != ERR_OK) {
            return SEQ_FAIL(at_, "Failed to %s %s, match %s policy entry", op_text(add),
                            leaf.subject);
        }
        return POL_CONFIG_OK;
    }

    int32_t read_seq_leaf(const mgmtd_tag_value_t *cur_val_p)
    {
        const uint32_t tag = cur_val_p->tag.tag;
        if (tag == TAG_DSCP && !in_match_) {
            return POL_CONFIG_OK;
        }
        if (const array_reader_f read = match_array_reader(tag)) {
            return read(at_, cur_val_p);
        }
        switch (tag) {
        case TAG_ACTION:
            return read_action(cur_val_p);
        case TAG_SLA_CLASS:
            sla_given_ = true;
            sla_delete_ = removed(cur_val_p);
            sla_name_ = sla_delete_ ? nullptr : value_text(cur_val_p);
            return POL_CONFIG_OK;
        case TAG_SLA_STRICT:
            strict_changed_ = true;
            strict_ = !removed(cur_val_p) && value_bool(cur_val_p);
            return POL_CONFIG_OK;
        case TAG_SLA_PREFERRED_COLOR:
            prefer_changed_ = true;
            pref_color_ = removed(cur_val_p) ? 0 : sla_colors_mask(cur_val_p);
            return POL_CONFIG_OK;
        default:
            break;
        }
        const seq_leaf *leaf = leaf_of(kSeqLeaves, tag);
        return leaf != nullptr ? apply_seq_leaf(*leaf, cur_val_p) : POL_CONFIG_OK;
    }

    int32_t read_action(const mgmtd_tag_value_t *cur_val_p)
    {
        const uint8_t action = removed(cur_val_p) ? 1 : enum_u8(cur_val_p);
        if (pol_fwd_entry_action_upd(at_.ctx, at_.keys.name, at_.type, at_.keys.vpn, at_.keys.seq,
                                     action) != ERR_OK) {
            return SEQ_FAIL(at_, "Failed to %s %s, match %s policy entry", op_text(true), "action");
        }
        return POL_CONFIG_OK;
    }

    int32_t read_set_leaf(const mgmtd_tag_value_t *cur_val_p)
    {
        set_changed_ = true;
        const uint32_t tag = cur_val_p->tag.tag;
        const bool gone = removed(cur_val_p);
        switch (tag) {
        case TAG_TLOC_LIST:
            tloc_list_given_ = true;
            tloc_list_ = gone ? "" : value_text(cur_val_p);
            service_part_ = service_part_ || in_service_;
            return POL_CONFIG_OK;
        case TAG_SERVICE_TYPE:
            service_withdrawn_ = service_withdrawn_ || gone;
            service_type_ = gone ? 0 : static_cast<uint16_t>(value_enum(cur_val_p));
            service_part_ = true;
            return POL_CONFIG_OK;
        case TAG_SERVICE_LOCAL:
            has_local_ = true;
            local_ = !gone;
            return POL_CONFIG_OK;
        case TAG_RESTRICT:
            has_restrict_ = true;
            restrict_ = !gone;
            return POL_CONFIG_OK;
        default:
            break;
        }
        const seq_leaf *leaf = leaf_of(kSetLeaves, tag);
        return leaf != nullptr ? apply_seq_leaf(*leaf, cur_val_p) : POL_CONFIG_OK;
    }

    bool tloc_given() const { return tloc_.withdrawn() || tloc_.given(); }

    // TLOC list, TLOC, local TLOC, then the service, which rebuilds its
    // targets from what the others left.
    int32_t apply_steering()
    {
        const fwd_keys &k = at_.keys;
        if (tloc_list_given_) {
            pol_fwd_entry_tloc_list_upd(at_.ctx, k.name, at_.type, k.vpn, k.seq, tloc_list_);
        }
        if (tloc_given()) {
            apply_tloc();
        }
        if (local_tloc_.given() && local_tloc_.apply(at_, entry_) != ERR_OK) {
            return SEQ_FAIL(at_, "Failed to update local tloc, match %s policy entry");
        }
        if (local_tloc_list_.given() && local_tloc_list_.apply(at_, entry_) != ERR_OK) {
            return SEQ_FAIL(at_, "Failed to update local tloc, match %s policy entry");
        }
        apply_service();
        steering_changed_ = tloc_list_given_ || tloc_given() || local_tloc_.given() ||
                            local_tloc_list_.given() || service_given();
        return POL_CONFIG_OK;
    }

    void apply_tloc()
    {
        const fwd_keys &k = at_.keys;
        if (tloc_.withdrawn()) {
            pol_fwd_entry_tloc_upd(at_.vmgmtd_ctx_p, at_.ctx, k.name, at_.type, k.vpn, k.seq,
                                   false, nullptr);
            return;
        }
        t_tloc_id tloc;
        tloc_.over(entry_->set_entry.set_fwd_tloc, &tloc);
        pol_fwd_entry_tloc_upd(at_.vmgmtd_ctx_p, at_.ctx, k.name, at_.type, k.vpn, k.seq, true,
                               &tloc);
    }

    bool service_given() const
    {
        return service_part_ || has_local_ || has_restrict_ || (in_service_tloc_ && tloc_given());
    }

    void apply_service()
    {
        if (!service_given()) {
            return;
        }
        const fwd_keys &k = at_.keys;
        const t_pol_set_entry &set = entry_->set_entry;
        if (service_withdrawn_) {
            pol_fwd_entry_svc_local_upd(at_.ctx, k.name, at_.type, k.vpn, k.seq, false, false,
                                        false);
            pol_fwd_entry_svc_upd(at_.vmgmtd_ctx_p, at_.ctx, k.name, at_.type, k.vpn, k.seq, 0,
                                  true);
            return;
        }
        if (has_local_ || has_restrict_) {
            const bool local = has_local_ ? local_ : set.set_fwd_service_local;
            const bool restrict1 = has_restrict_ ? restrict_ : set.set_fwd_service_local_restrict;
            pol_fwd_entry_svc_local_upd(at_.ctx, k.name, at_.type, k.vpn, k.seq, local, restrict1,
                                        true);
        }
        const uint16_t type = service_type_ != 0 ? service_type_ : set.set_fwd_service;
        pol_fwd_entry_svc_upd(at_.vmgmtd_ctx_p, at_.ctx, k.name, at_.type, k.vpn, k.seq, type,
                              false);
    }

    void apply_sla_class()
    {
        if (!sla_given_ && !strict_changed_ && !prefer_changed_) {
            return;
        }
        const fwd_keys &k = at_.keys;
        pol_fwd_entry_sla_class_upd(at_.ctx, k.name, at_.type, k.vpn, k.seq, sla_name_, strict_,
                                    pref_color_, sla_delete_, strict_changed_, prefer_changed_);
    }

    seq_at at_;
    t_pol_entry *entry_;
    bool in_match_ = false;
    bool in_set_ = false;
    bool in_service_ = false;
    bool in_tloc_ = false;
    bool in_service_tloc_ = false;
    bool in_local_tloc_ = false;
    bool in_local_tloc_list_ = false;
    bool set_changed_ = false;
    bool steering_changed_ = false;

    tloc_parts tloc_{true};
    local_tloc_parts local_tloc_;
    local_tloc_list_parts local_tloc_list_;
    bool tloc_list_given_ = false;
    const char *tloc_list_ = "";
    bool service_part_ = false;
    bool service_withdrawn_ = false;
    uint16_t service_type_ = 0;
    bool has_local_ = false;
    bool local_ = false;
    bool has_restrict_ = false;
    bool restrict_ = false;

    bool sla_given_ = false;
    bool sla_delete_ = false;
    const char *sla_name_ = nullptr;
    bool strict_changed_ = false;
    bool strict_ = false;
    bool prefer_changed_ = false;
    uint8_t pref_color_ = 0;
};

/* ---- a VPN list's default action ---- */

// The SLA class of the default action, gathered over the values; the
// strict flag and colours not handed over are those held.
class default_sla {
public:
    explicit default_sla(const t_pol_entry *dflt)
    {
        if (dflt != nullptr) {
            strict_ = dflt->set_entry.set_sla_strict != 0;
            pref_color_ = dflt->set_entry.set_sla_preferred_color;
        }
    }

    // True when the value belongs to the SLA class.
    bool read(const mgmtd_tag_value_t *cur_val_p)
    {
        const bool gone = removed(cur_val_p);
        switch (cur_val_p->tag.tag) {
        case TAG_SLA_CLASS:
            delete_ = gone;
            name_ = gone ? nullptr : value_text(cur_val_p);
            given_ = !gone;
            return true;
        case TAG_SLA_STRICT:
            strict_ = !gone && value_bool(cur_val_p);
            given_ = true;
            return true;
        case TAG_SLA_PREFERRED_COLOR:
            pref_color_ = gone ? 0 : sla_colors_mask(cur_val_p);
            given_ = true;
            return true;
        default:
            return false;
        }
    }

    void apply(t_pol_ctx *ctx, e_pol_type type, const fwd_keys &k) const
    {
        if (given_ || delete_) {
            pol_fwd_default_entry_sla_class_upd(ctx, k.name, type, k.vpn, name_, strict_,
                                                pref_color_, delete_);
        }
    }

private:
    const char *name_ = nullptr;
    bool strict_ = false;
    uint8_t pref_color_ = 0;
    bool delete_ = false;
    bool given_ = false;
};

void read_default_action(t_pol_ctx *ctx, e_pol_type type, const fwd_keys &k,
                         const mgmtd_tag_value_t *cur_val_p)
{
    if (type != POL_TYPE_DATA || cur_val_p->tag.tag != TAG_DEFAULT_ACTION) {
        return;
    }
    const uint8_t action = removed(cur_val_p) ? 1 : static_cast<uint8_t>(value_enum(cur_val_p));
    pol_fwd_default_entry_action_upd(ctx, k.name, type, k.vpn, action);
}

/* ---- the start-up read ---- */

t_pol_cdb_read_ops g_cdb_ops;
bool g_cdb_ops_set = false;

constexpr int kNameBufSize = 33;

}  // namespace

namespace pol::config {

void set_fwd_label_hook(fwd_label_hook_f hook)
{
    g_label_hook = hook != nullptr ? hook : pol_fwd_upd_label;
}

}  // namespace pol::config

extern "C" {

/* ---- policies ---- */

int32_t pol_config_fwd_read(e_pol_type pol_type, t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                            mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                            uint16_t num_values, mgmtd_tag_value_t *)
{
    const fwd_keys k = fwd_keys_of(pol_type, num_keys, key_p, 1);
    POL_DBG(0, "Fwd Policy: %s, oper:%d, num_values:%u", k.name, static_cast<int>(oper),
            static_cast<unsigned>(num_values));
    uint8_t changed = 0;
    if (oper == MOP_DELETED) {
        // Deliberately no notification: the next change that notifies
        // carries this one along.
        pol_block_find_and_delete(pol_ctx_p, k.name, pol_type, &changed);
        return POL_CONFIG_OK;
    }
    if (oper == MOP_CREATED &&
        pol_block_find_or_create(pol_ctx_p, k.name, pol_type, &changed) == nullptr) {
        POL_DBG(0, "Failed to create %s policy - pol: %s", pol_util_type_str(pol_type), k.name);
        return keep_error(POL_CONFIG_NO_MEMORY, "Failed to create %s policy - pol: %s",
                          pol_util_type_str(pol_type), k.name);
    }
    return notify_if_changed(pol_ctx_p, changed);
}

/* ---- VPN lists ---- */

int32_t pol_config_fwd_vpn_list_read(e_pol_type pol_type, t_vmgmtd_context *,
                                     t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys,
                                     mgmtd_value_t *key_p, uint16_t num_values,
                                     mgmtd_tag_value_t *val_p)
{
    const fwd_keys k = fwd_keys_of(pol_type, num_keys, key_p, 2);
    POL_DBG(0, "%s Policy: %s, vpn-list: %s oper:%d, num_values:%u", pol_util_type_str(pol_type),
            k.name, k.vpn, static_cast<int>(oper), static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_fwd_vpn_find_and_delete(pol_ctx_p, k.name, pol_type, k.vpn);
    } else if (oper == MOP_CREATED &&
               pol_fwd_vpn_find_or_create(pol_ctx_p, k.name, pol_type, k.vpn) == nullptr) {
        POL_LOG("Failed to create %s policy - pol: %s, vpn: %s", pol_util_type_str(pol_type),
                k.name, k.vpn);
        pol_assert_fail(__FILE__, __LINE__, "vpn list created");
    }
    default_sla sla(pol_fwd_default_pol_entry_get(pol_ctx_p, k.name, pol_type, k.vpn, nullptr));
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (sla.read(cur_val_p)) {
            sla.apply(pol_ctx_p, pol_type, k);
        } else {
            read_default_action(pol_ctx_p, pol_type, k, cur_val_p);
        }
    });
    pol_user_chg_list_notify_all(pol_ctx_p);
    return POL_CONFIG_OK;
}

/* ---- sequences ---- */

int32_t pol_config_fwd_seq_read(e_pol_type pol_type, t_vmgmtd_context *vmgmtd_ctx_p,
                                t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys,
                                mgmtd_value_t *key_p, uint16_t num_values,
                                mgmtd_tag_value_t *val_p)
{
    const fwd_keys k = fwd_keys_of(pol_type, num_keys, key_p, 3);
    POL_DBG(0, "%s policy: %s, vpn: %s seq: %d oper:%d, num_values:%u",
            pol_util_type_str(pol_type), k.name, k.vpn, static_cast<int>(k.seq),
            static_cast<int>(oper), static_cast<unsigned>(num_values));
    if (t_pol_block *block = pol_block_find(pol_ctx_p, k.name, pol_type, nullptr)) {
        block->fetch_xml = 1;
    }
    if (oper == MOP_DELETED) {
        pol_fwd_entry_find_and_delete(pol_ctx_p, k.name, pol_type, k.vpn, k.seq);
        pol_user_chg_list_notify_all(pol_ctx_p);
        return POL_CONFIG_OK;
    }
    t_pol_entry *entry = pol_fwd_entry_find_or_create(pol_ctx_p, k.name, pol_type, k.vpn, k.seq);
    if (entry == nullptr) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND,
                               "Failed to create %s policy entry - pol: %s, vpn: %s seq: %d",
                               pol_util_type_str(pol_type), k.name, k.vpn, static_cast<int>(k.seq));
    }
    seq_change change({vmgmtd_ctx_p, pol_ctx_p, pol_type, k}, entry);
    int32_t status = walk_values(trace_form::policy, val_p, num_values,
                                 [&](const mgmtd_tag_value_t *cur_val_p) { return change.read(cur_val_p); });
    if (status == POL_CONFIG_OK) {
        status = change.apply();
    }
    if (status != POL_CONFIG_OK) {
        return status;
    }
    pol_user_chg_list_notify_all(pol_ctx_p);
    return POL_CONFIG_OK;
}

/* ---- the start-up read ---- */

void pol_config_cdb_read_ops_set(const t_pol_cdb_read_ops *ops)
{
    g_cdb_ops_set = ops != nullptr;
    g_cdb_ops = ops != nullptr ? *ops : t_pol_cdb_read_ops{};
}

// Only the data-policy blocks are created here; their VPN lists and
// sequences arrive through the callbacks. The VPN names are read and left
// unused, and no cdb_popd follows a cdb_pushd: the session is the host's
// and is not read further.
int32_t pol_config_read_fwd_policy(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *ctx_p)
{
    if (!g_cdb_ops_set) {
        POL_LOG("No configuration read calls to read data policies with");
        return 1;
    }
    const int sock = vmgmtd_ctx_p->data_socket;
    const int num_policies = g_cdb_ops.num_instances(sock, "data-policy");
    for (int i = 0; i < num_policies; i++) {
        char name[kNameBufSize];
        if (g_cdb_ops.get_str(sock, name, kNameBufSize, "data-policy[%d]/name", i) != 0) {
            continue;
        }
        uint8_t changed = 0;
        if (pol_block_find_or_create(ctx_p, name, POL_TYPE_DATA, &changed) == nullptr) {
            return 1;
        }
        const int num_vpns = g_cdb_ops.num_instances(sock, "data-policy[%d]/vpn", i);
        for (int j = 0; j < num_vpns; j++) {
            char vpn_name[kNameBufSize];
            g_cdb_ops.pushd(sock, "data-policy[%d]/vpn[%d]", i, j);
            g_cdb_ops.get_str(sock, vpn_name, kNameBufSize, "name");
        }
    }
    return 0;
}

}  // extern "C"
