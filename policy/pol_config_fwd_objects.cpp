// Configuration change callbacks of the objects data policies refer to:
// SLA classes, app ids, application lists with their applications or
// application families, app-probe classes with their colours, IPv4 and
// IPv6 data-prefix lists with their prefixes, policers, and cflowd
// templates with their collectors. Each is a thin translation onto its
// store, which keeps the object, renders it again and tells its users.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <zen/zen_util.h>

#include "pol_config_internal.hpp"

using namespace pol::config;

namespace {

/* ---- objects of one key ---- */

// The store operations of a family whose node is only its name.
struct named_family {
    e_err (*cfg_del)(t_pol_ctx *, const char *);
    e_err (*entry_change)(t_pol_ctx *, const char *);
};

// MOP_DELETED removes the object; anything else has the store take note
// of the change (creating the object when it is new).
e_err change_named(const named_family &family, t_pol_ctx *ctx, mgmtd_iter_op oper,
                   const char *name)
{
    return oper == MOP_DELETED ? family.cfg_del(ctx, name) : family.entry_change(ctx, name);
}

/* ---- application lists ---- */

// What an application and an application family of a list differ in.
struct app_kind {
    t_app_list_type type;
    const char *add_failed;
    const char *del_failed;
};

constexpr app_kind kApp = {POL_APP_LIST_TYPE_APP, "Failed to ADD app %s for app_list %s",
                           "Failed to DEL app %s for app_list %s"};
constexpr app_kind kAppFamily = {POL_APP_LIST_TYPE_APP_FAMILY,
                                 "Failed to ADD app family %s for app_list %s",
                                 "Failed to DEL app family %s for app_list %s"};

int32_t read_app(const app_kind &kind, t_pol_ctx *ctx, mgmtd_iter_op oper, const char *list,
                 const char *app)
{
    if (oper == MOP_CREATED && pol_app_list_entry_add_app(ctx, list, app, kind.type) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, kind.add_failed, app, list);
    }
    if (oper == MOP_DELETED && pol_app_list_entry_del_app(ctx, list, app) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, kind.del_failed, app, list);
    }
    pol_app_list_entry_change(ctx, list);
    return POL_CONFIG_OK;
}

/* ---- data-prefix lists ---- */

// The IPv4 and IPv6 stores of data-prefix lists and their texts.
struct pfx_family {
    named_family lists;
    e_err (*add_prefix)(t_pol_ctx *, const char *, const t_ipprefix *);
    e_err (*del_prefix)(t_pol_ctx *, const char *, const t_ipprefix *);
    const char *list_trace;
    const char *entry_trace;
    const char *create_failed;
    const char *entry_failed;
};

constexpr pfx_family kPfx4 = {
    {pol_fwd_pfx_list_cfg_del, pol_fwd_pfx_list_entry_change},
    pol_fwd_pfx_list_add_prefix,
    pol_fwd_pfx_list_del_prefix,
    "Fwd pfx list: %s, oper:%d, num_values:%u",
    "Fwd pfx list: %s, oper:%d, num_values:%u, pfx:%s",
    "Failed to create fwd pfx-list - pfx: %s",
    "Failed to add pfx %s to pfx list %s\n",
};
constexpr pfx_family kPfx6 = {
    {pol_fwd_pfx6_list_cfg_del, pol_fwd_pfx6_list_entry_change},
    pol_fwd_pfx6_list_add_prefix,
    pol_fwd_pfx6_list_del_prefix,
    "Fwd pfx6 list: %s, oper:%d, num_values:%u",
    "Fwd pfx6 list: %s, oper:%d, num_values:%u, pfx:%s",
    "Failed to create fwd pfx6-list - pfx: %s",
    "Failed to add pfx6 %s to pfx list %s\n",
};

int32_t read_pfx_list(const pfx_family &family, t_pol_ctx *ctx, mgmtd_iter_op oper,
                      uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, family.list_trace, name, static_cast<int>(oper), static_cast<unsigned>(num_values));
    if (change_named(family.lists, ctx, oper, name) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, family.create_failed, name);
    }
    return POL_CONFIG_OK;
}

// IPv4 prefixes stay in network order, as every address of the library.
int32_t read_pfx(const pfx_family &family, t_pol_ctx *ctx, mgmtd_iter_op oper, uint8_t num_keys,
                 mgmtd_value_t *key_p, uint16_t num_values)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const t_ipprefix pfx = key_prefix(&key_p[1]);
    char text[128];
    ipprefix_print(&pfx, text, sizeof(text));
    POL_DBG(0, family.entry_trace, name, static_cast<int>(oper), static_cast<unsigned>(num_values),
            text);
    e_err err = ERR_OK;
    if (oper == MOP_CREATED) {
        err = family.add_prefix(ctx, name, &pfx);
    } else if (oper == MOP_DELETED) {
        err = family.del_prefix(ctx, name, &pfx);
    }
    if (err != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, family.entry_failed, text, name);
    }
    family.lists.entry_change(ctx, name);
    return POL_CONFIG_OK;
}

/* ---- SLA classes ---- */

// The leaves of one SLA-class change: the limits are written as they come
// (a removed limit means no limit), the app-probe class is detached from
// the old one before the new one is attached.
class sla_class_change {
public:
    sla_class_change(t_pol_ctx *ctx, t_fwd_sla_class *sla_class)
        : ctx_(ctx), sla_class_(sla_class), had_probe_class_(sla_class->app_probe_class_name[0] != '\0')
    {
    }

    // done: the walk ends with status_.
    bool read(const mgmtd_tag_value_t *cur_val_p)
    {
        const bool gone = removed(cur_val_p);
        switch (cur_val_p->tag.tag) {
        case TAG_SLA_LOSS:
            sla_class_->loss = gone ? UINT8_MAX : value_u8(cur_val_p);
            break;
        case TAG_SLA_LATENCY:
            sla_class_->latency = gone ? UINT16_MAX : value_u16(cur_val_p);
            break;
        case TAG_SLA_JITTER:
            sla_class_->jitter = gone ? UINT16_MAX : value_u16(cur_val_p);
            break;
        case TAG_APP_PROBE_CLASS:
            return gone ? detach_and_end() : take_probe_class(value_text(cur_val_p));
        default:
            break;
        }
        return false;
    }

    // Attaches the app-probe class the change named, if any.
    int32_t finish()
    {
        if (done_ || probe_class_ == nullptr) {
            return status_;
        }
        return attach_probe_class(probe_class_);
    }

private:
    bool detach() { return pol_fwd_app_probe_class_entry_find_and_delete(ctx_, sla_class_) == 0; }

    bool detach_and_end()
    {
        status_ = detach() ? POL_CONFIG_OK : POL_CONFIG_NOT_FOUND;
        done_ = true;
        return true;
    }

    bool take_probe_class(const char *name)
    {
        if (had_probe_class_ && !detach()) {
            status_ = POL_CONFIG_NOT_FOUND;
            done_ = true;
            return true;
        }
        had_probe_class_ = false;
        probe_class_ = name;
        return false;
    }

    // The sequence-side update has nothing to do (ERR_IGNORE counts as
    // done); the link itself is made by the app-probe class store.
    int32_t attach_probe_class(const char *name)
    {
        const e_err err = pol_fwd_entry_app_probe_class_upd(name, sla_class_);
        if (err != ERR_OK && err != ERR_IGNORE) {
            return POL_CONFIG_NOT_FOUND;
        }
        return pol_fwd_entry_app_probe_class_add(ctx_, sla_class_->sla_class_name, name) == 0
                   ? POL_CONFIG_OK
                   : POL_CONFIG_NOT_FOUND;
    }

    t_pol_ctx *ctx_;
    t_fwd_sla_class *sla_class_;
    bool had_probe_class_;
    const char *probe_class_ = nullptr;
    bool done_ = false;
    int32_t status_ = POL_CONFIG_OK;
};

int32_t delete_sla_class(t_pol_ctx *ctx, const char *name)
{
    t_fwd_sla_class *sla_class = pol_fwd_sla_class_find(ctx, name);
    if (sla_class == nullptr || pol_fwd_app_probe_class_entry_find_and_delete(ctx, sla_class) != 0) {
        return POL_CONFIG_NOT_FOUND;
    }
    pol_fwd_sla_class_cfg_del(ctx, name);
    return POL_CONFIG_OK;
}

int32_t change_sla_class(t_pol_ctx *ctx, const char *name, mgmtd_tag_value_t *val_p,
                         uint16_t num_values)
{
    if (pol_fwd_sla_class_entry_change(ctx, name) != ERR_OK) {
        POL_LOG("Failed to create fwd sla class: %s", name);
        pol_assert_fail(__FILE__, __LINE__, "sla class created");
    }
    t_fwd_sla_class *sla_class = pol_fwd_sla_class_find_or_create(ctx, name, nullptr);
    POL_ASSERT(sla_class != nullptr);
    sla_class->fetch_xml = 1;
    sla_class_change change(ctx, sla_class);
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        return change.read(cur_val_p) ? 1 : 0;
    });
    return change.finish();
}

/* ---- app-probe classes ---- */

// The forwarding class among the values, or null.
const char *fwd_class_of(mgmtd_tag_value_t *val_p, uint16_t num_values)
{
    const char *fwd_class = nullptr;
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (cur_val_p->tag.tag == TAG_FWD_CLASS) {
            fwd_class = removed(cur_val_p) ? "" : value_text(cur_val_p);
        }
    });
    return fwd_class;
}

uint8_t dscp_of(mgmtd_tag_value_t *val_p, uint16_t num_values)
{
    uint8_t dscp = 0;
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (cur_val_p->tag.tag == TAG_DSCP && !removed(cur_val_p)) {
            dscp = value_u8(cur_val_p);
        }
    });
    return dscp;
}

/* ---- cflowd ---- */

// The collector a node names: its keys, with the source interface of the
// values (removed: none).
t_cflowd_collector collector_of(mgmtd_value_t *key_p, mgmtd_tag_value_t *val_p,
                                uint16_t num_values)
{
    t_cflowd_collector cltr;
    std::memset(&cltr, 0, sizeof(cltr));
    cltr.vpn_id = key_u64(&key_p[1]);
    key_addr(&cltr.addr, &key_p[2]);
    cltr.port = key_u16(&key_p[3]);
    cltr.transport_type = key_enum(&key_p[4]);
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (cur_val_p->tag.tag == TAG_SOURCE_INTERFACE && !removed(cur_val_p)) {
            std::snprintf(cltr.source_if, sizeof(cltr.source_if), "%s", value_text(cur_val_p));
        }
    });
    return cltr;
}

// The template renders again and its users hear of the change.
int32_t template_changed(t_pol_ctx *ctx, t_pol_block *block)
{
    block->fetch_xml = 1;
    pol_block_users_add_to_chg_list(ctx, block);
    pol_user_chg_list_notify_all(ctx);
    return POL_CONFIG_OK;
}

int32_t change_collector(t_pol_ctx *ctx, t_pol_block *block, mgmtd_iter_op oper,
                         const t_cflowd_collector &cltr, const char *cltr_str, const char *name)
{
    t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    if (oper == MOP_DELETED) {
        if (pol_cflowd_del_collector(tmpl, &cltr) != 0) {
            return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to delete col %s cflowd %s",
                                   cltr_str, name);
        }
    } else if (pol_cflowd_add_collector(tmpl, &cltr) != 0) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to oper %d col %s cflowd %s",
                               static_cast<int>(oper), cltr_str, name);
    } else {
        POL_DBG(0, "Successfully Added collector %s to cflowd %s\n", cltr_str, name);
    }
    return template_changed(ctx, block);
}

}  // namespace

extern "C" {

/* ---- SLA classes ---- */

int32_t pol_config_policy_sla_class_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "SLA Class Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    switch (oper) {
    case MOP_DELETED:
        return delete_sla_class(pol_ctx_p, name);
    case MOP_CREATED:
    case MOP_MODIFIED:
        return change_sla_class(pol_ctx_p, name, val_p, num_values);
    default:
        return POL_CONFIG_OK;
    }
}

/* ---- app ids ---- */

int32_t pol_config_policy_app_id_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                      mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                      uint16_t num_values, mgmtd_tag_value_t *)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "APP ID Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    constexpr named_family kAppIds = {pol_fwd_app_id_cfg_del, pol_fwd_app_id_entry_change};
    if (change_named(kAppIds, pol_ctx_p, oper, name) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to create fwd app id: %s", name);
    }
    return POL_CONFIG_OK;
}

/* ---- application lists ---- */

int32_t pol_config_app_list_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                 uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                 mgmtd_tag_value_t *)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "Fwd pfx list: %s, oper:%d, num_values:%u", name, static_cast<int>(oper),
            static_cast<unsigned>(num_values));
    constexpr named_family kAppLists = {pol_app_list_cfg_del, pol_app_list_entry_change};
    if (change_named(kAppLists, pol_ctx_p, oper, name) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to create fwd app-list: %s", name);
    }
    return POL_CONFIG_OK;
}

int32_t pol_config_app_list_app_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                     uint8_t num_keys, mgmtd_value_t *key_p, uint16_t,
                                     mgmtd_tag_value_t *)
{
    check_key_count(num_keys, 2);
    const char *list = key_text(&key_p[0]);
    const char *app = key_text(&key_p[1]);
    POL_DBG(0, "pol_config_app_list_app_read for %s app %s", list, app);
    return read_app(kApp, pol_ctx_p, oper, list, app);
}

int32_t pol_config_app_list_app_family_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                            mgmtd_iter_op oper, uint8_t num_keys,
                                            mgmtd_value_t *key_p, uint16_t, mgmtd_tag_value_t *)
{
    check_key_count(num_keys, 2);
    const char *list = key_text(&key_p[0]);
    const char *family = key_text(&key_p[1]);
    POL_DBG(0, "pol_config_app_list_app_family_read for %s app %s", list, family);
    return read_app(kAppFamily, pol_ctx_p, oper, list, family);
}

/* ---- app-probe classes ---- */

int32_t pol_config_policy_app_probe_class_name_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                                    mgmtd_iter_op oper, uint8_t num_keys,
                                                    mgmtd_value_t *key_p, uint16_t num_values,
                                                    mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "App Probe Class Config - Name:%s, Oper:%u, num:%u", name,
            static_cast<unsigned>(oper), static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        return pol_app_probe_class_cfg_del(pol_ctx_p, name) == ERR_OK ? POL_CONFIG_OK
                                                                       : POL_CONFIG_NOT_FOUND;
    }
    const char *fwd_class = fwd_class_of(val_p, num_values);
    if (pol_app_probe_class_entry_change(pol_ctx_p, name, fwd_class) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to create App Probe Class: %s", name);
    }
    return POL_CONFIG_OK;
}

int32_t pol_config_policy_app_probe_class_color_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                                     mgmtd_iter_op oper, uint8_t num_keys,
                                                     mgmtd_value_t *key_p, uint16_t num_values,
                                                     mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const uint32_t color = key_enum(&key_p[1]);
    POL_DBG(0, "App probe class config - Name:%s, color:%u, Oper:%u, num:%u", name, color,
            static_cast<unsigned>(oper), static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_app_probe_class_del_entry(pol_ctx_p, name, color);
        return POL_CONFIG_OK;
    }
    if (pol_app_probe_class_add_entry(pol_ctx_p, name, color, dscp_of(val_p, num_values)) != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to add color entry %d in app-probe-class %s",
                               static_cast<int>(color), name);
    }
    pol_app_probe_class_entry_change(pol_ctx_p, name, nullptr);
    return POL_CONFIG_OK;
}

/* ---- data-prefix lists ---- */

int32_t pol_config_fwd_pfx_list_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                     uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                     mgmtd_tag_value_t *)
{
    return read_pfx_list(kPfx4, pol_ctx_p, oper, num_keys, key_p, num_values);
}

int32_t pol_config_fwd_pfx6_list_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                      uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                      mgmtd_tag_value_t *)
{
    return read_pfx_list(kPfx6, pol_ctx_p, oper, num_keys, key_p, num_values);
}

int32_t pol_config_fwd_pfx_list_ip_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                        mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                        uint16_t num_values, mgmtd_tag_value_t *)
{
    return read_pfx(kPfx4, pol_ctx_p, oper, num_keys, key_p, num_values);
}

int32_t pol_config_fwd_pfx6_list_ip_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                         uint16_t num_values, mgmtd_tag_value_t *)
{
    return read_pfx(kPfx6, pol_ctx_p, oper, num_keys, key_p, num_values);
}

/* ---- policers ---- */

// A policer that cannot be had is reported with the SLA-class text, as
// the host's log readers know it.
int32_t pol_config_fwd_policer_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                    uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                    mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "policer Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    const e_err err = oper == MOP_DELETED
                          ? pol_fwd_policer_cfg_del(pol_ctx_p, name)
                          : pol_fwd_policer_entry_change(pol_ctx_p, name, num_values, val_p);
    if (err != ERR_OK) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to create fwd sla class: %s", name);
    }
    return POL_CONFIG_OK;
}

/* ---- cflowd ---- */

// A removed leaf reads as 0, the value a template without it has.
int32_t pol_config_cflowd_read(t_cflowd_entry *pol_cflowd_entry, uint16_t num_values,
                               mgmtd_tag_value_t *val_p)
{
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        const bool gone = removed(cur_val_p);
        switch (cur_val_p->tag.tag) {
        case TAG_FLOW_SAMPLING_INTERVAL:
            pol_cflowd_entry->flow_sampling_interval = gone ? 0 : value_u32(cur_val_p);
            break;
        case TAG_FLOW_ACTIVE_TIMEOUT:
            pol_cflowd_entry->flow_active_timeout = gone ? 0 : value_u32(cur_val_p);
            break;
        case TAG_FLOW_INACTIVE_TIMEOUT:
            pol_cflowd_entry->flow_inactive_timeout = gone ? 0 : value_u32(cur_val_p);
            break;
        case TAG_TEMPLATE_REFRESH:
            pol_cflowd_entry->template_refresh = gone ? 0 : value_u32(cur_val_p);
            break;
        case TAG_PROTOCOL:
            pol_cflowd_entry->protocol = gone ? 0 : static_cast<uint8_t>(value_enum(cur_val_p));
            break;
        default:
            break;
        }
    });
    return 0;
}

int32_t pol_config_cflowd_template_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                        mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                        uint16_t num_values, mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "Cflowd template: %s, oper:%d, num_values:%u", name, static_cast<int>(oper),
            static_cast<unsigned>(num_values));
    uint8_t changed = 0;
    if (oper == MOP_DELETED) {
        pol_block_find_and_delete(pol_ctx_p, name, POL_TYPE_CFLOWD, &changed);
        return notify_if_changed(pol_ctx_p, changed);
    }
    t_pol_block *block = pol_block_find_or_create(pol_ctx_p, name, POL_TYPE_CFLOWD, &changed);
    if (block == nullptr) {
        return POL_CONFIG_FAIL(POL_CONFIG_NO_MEMORY, "Failed to create cflowd template: %s", name);
    }
    pol_config_cflowd_read(block->pol_cflowd_entry, num_values, val_p);
    return template_changed(pol_ctx_p, block);
}

int32_t pol_config_cflowd_collector_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 5);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "Cflowd collector: %s, oper:%d, num_values:%u", name, static_cast<int>(oper),
            static_cast<unsigned>(num_values));
    t_pol_block *block = pol_block_find(pol_ctx_p, name, POL_TYPE_CFLOWD, nullptr);
    if (block == nullptr) {
        return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "Failed to find cflowd template: %s", name);
    }
    const t_cflowd_collector cltr = collector_of(key_p, val_p, num_values);
    char addr[128];
    char cltr_str[200];
    ipaddr_print(&cltr.addr, addr, sizeof(addr));
    std::snprintf(cltr_str, sizeof(cltr_str), "(VPN %" PRIu64 ", IP %s, Port %d Tran %d)",
                  cltr.vpn_id, addr, static_cast<int>(cltr.port),
                  static_cast<int>(cltr.transport_type));
    POL_DBG(0, "Cflowd collector: %s, oper:%d, num_values:%u cltr_str %s", name,
            static_cast<int>(oper), static_cast<unsigned>(num_values), cltr_str);
    return change_collector(pol_ctx_p, block, oper, cltr, cltr_str, name);
}

}  // extern "C"
