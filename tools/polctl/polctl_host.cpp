// The host side of the library: the datastore bound to the library's
// configuration change callbacks, users and labels.
#include "polctl_host.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include <policy/pol_config.h>
#include <zen/zen_util.h>

namespace polctl {

namespace {

// The host whose users and labels the library's callbacks reach (the
// library's label callback carries no context).
host *g_host = nullptr;

const char *color_name_or_number(uint8_t color, char *buf, size_t size)
{
    const char *name = zen_util_tloc_color_name(color);
    if (std::strcmp(name, "unknown") != 0) {
        return name;
    }
    std::snprintf(buf, size, "%u", static_cast<unsigned>(color));
    return buf;
}

}  // namespace

std::string tloc_text(const t_tloc_id &tloc)
{
    char addr[INET6_ADDRSTRLEN + 8];
    char color[16];
    ipaddr_print(&tloc.addr, addr, sizeof(addr));
    return std::string(addr) + ":" + color_name_or_number(tloc.color, color, sizeof(color)) + ":" +
           zen_util_tloc_encap_name(tloc.encap);
}

/* ---- labels ---- */

// 100000 x service + 1000 x last byte of the IPv4 address + 10 x colour +
// encapsulation: 10.0.0.2:mpls:ipsec is 2022, behind a firewall 102022.
uint32_t label_table::rule(const t_tloc_id &tloc, uint16_t service)
{
    const uint32_t last_byte =
        IPADDR_IS_V4(&tloc.addr) ? ntohl(tloc.addr.u.addr4.s_addr) & 0xFFu : 0;
    return 100000u * service + 1000u * last_byte + 10u * tloc.color + tloc.encap;
}

void label_table::set_label(const t_tloc_id &tloc, uint32_t label)
{
    explicit_[tloc_text(tloc)] = label;
}

void label_table::set_unreachable(const t_tloc_id &tloc)
{
    unreachable_.insert(tloc_text(tloc));
}

bool label_table::resolve(const t_tloc_id &tloc, uint64_t vpn, uint16_t service, uint32_t *label)
{
    const std::string text = tloc_text(tloc);
    if (unreachable_.count(text) != 0) {
        return false;
    }
    auto it = explicit_.find(text);
    *label = it != explicit_.end() ? it->second : rule(tloc, service);
    handed_out_[key{text, vpn, service}] = *label;
    return true;
}

/* ---- host ---- */

host::host() = default;

host::~host()
{
    for (auto &user : users_) {
        pol_unregister(&user->handle);
    }
    if (ctx_ != nullptr) {
        pol_destroy();
    }
    mgmtd_ds_close(ds_);
    if (g_host == this) {
        g_host = nullptr;
    }
}

bool host::start(std::string *error)
{
    char msg[512] = "";
    ds_ = mgmtd_ds_open(mgmtd_ds_policy_schema(), msg, sizeof(msg));
    if (ds_ == nullptr) {
        *error = std::string("configuration datastore: ") + msg;
        return false;
    }
    t_pol_init_params init;
    std::memset(&init, 0, sizeof(init));
    init.pol_label_cb = label_cb_ != nullptr ? label_cb_ : on_label;
    init.tenant_vpn_id = 1;
    std::snprintf(init.tenant_orgname, sizeof(init.tenant_orgname), "%s", "polctl");
    ctx_ = pol_init(&init);
    if (ctx_ == nullptr) {
        *error = "the policy library did not start";
        return false;
    }
    size_t num_subs = 0;
    const mgmtd_ds_sub_t *subs = pol_config_subscriptions(&num_subs);
    if (mgmtd_ds_subscribe(ds_, subs, num_subs, ctx_) != MGMTD_DS_OK) {
        *error = std::string("subscription table: ") + mgmtd_ds_error(ds_);
        return false;
    }
    g_host = this;
    return true;
}

int host::commit_file(const std::string &path, std::string *error)
{
    mgmtd_ds_tree_t *tree = nullptr;
    const int status = mgmtd_ds_load(ds_, path.c_str(), &tree);
    if (status != MGMTD_DS_OK) {
        *error = mgmtd_ds_error(ds_);
        return status;
    }
    return commit(tree, error);
}

int host::commit(mgmtd_ds_tree_t *tree, std::string *error)
{
    const int status = mgmtd_ds_commit(ds_, tree);
    if (status == MGMTD_DS_OK) {
        // TLOC lists that changed refresh the labels of what uses them.
        pol_config_update_tloc_list(nullptr, ctx_);
        return status;
    }
    *error = mgmtd_ds_error(ds_);
    const std::string reason = pol_config_error();
    if (status == MGMTD_DS_STOPPED && !reason.empty()) {
        *error += ": " + reason;
    }
    return status;
}

namespace {

// The user name as the library keys it: what its name field holds.
std::string library_user_name(const std::string &name)
{
    return name.substr(0, std::min(name.find('\0'), size_t{POL_NAME_SIZE - 1}));
}

}  // namespace

const user_record *host::same_library_user(const std::string &name, e_pol_type type,
                                           e_pol_dir dir) const
{
    const std::string key = library_user_name(name);
    for (const auto &user : users_) {
        if (user->type == type && user->dir == dir && library_user_name(user->name) == key) {
            return user.get();
        }
    }
    return nullptr;
}

user_record *host::register_user(const std::string &name, const std::string &policy,
                                 e_pol_type type, e_pol_dir dir)
{
    if (same_library_user(name, type, dir) != nullptr) {
        return nullptr;
    }
    auto record = std::make_unique<user_record>();
    record->name = name;
    record->policy = policy;
    record->type = type;
    record->dir = dir;
    record->owner = this;
    t_pol_reg_params reg;
    std::memset(&reg, 0, sizeof(reg));
    std::snprintf(reg.user_name, sizeof(reg.user_name), "%s", name.c_str());
    std::snprintf(reg.pol_name, sizeof(reg.pol_name), "%s", policy.c_str());
    reg.pol_type = type;
    reg.pol_direction = dir;
    reg.pol_chg_cb = on_change;
    reg.pol_label_cb = on_label;
    reg.user_ctx_p = record.get();
    record->handle = pol_register(&reg);
    if (record->handle == nullptr) {
        return nullptr;
    }
    users_.push_back(std::move(record));
    return users_.back().get();
}

std::vector<notification> host::take_notifications()
{
    std::vector<notification> out;
    out.swap(notifications_);
    return out;
}

void host::on_change(t_pol_user *handle, void *user_ctx_p)
{
    auto *record = static_cast<user_record *>(user_ctx_p);
    if (record == nullptr || record->owner == nullptr) {
        return;
    }
    char policy[POL_NAME_SIZE];
    pol_handle_get_name(handle, policy, sizeof(policy));
    record->owner->notifications_.push_back({record->name, policy});
}

// Appends the TLOC with its label to the TE table, keeping the last slot
// free for the ultimate-TLOC fallback the library may add.
void host::on_label(uint16_t, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id,
                    uint16_t service, bool, uint32_t *, t_tloc_id *, t_pol_te_info *te_info_p,
                    uint32_t preference)
{
    if (g_host == nullptr || te_info_p == nullptr ||
        te_info_p->num_entries + 1 >= POL_MAX_TE_ENTRIES) {
        return;
    }
    t_tloc_id tloc;
    std::memset(&tloc, 0, sizeof(tloc));
    IPADDR_SET_V4(&tloc.addr, addr);
    tloc.color = color;
    tloc.encap = encap;
    uint32_t label = 0;
    if (!g_host->labels_.resolve(tloc, vpn_id, service, &label)) {
        return;
    }
    t_pol_te &te = te_info_p->entries[te_info_p->num_entries++];
    te.label = label;
    te.preference = preference;
    TLOC_COPY(&te.tloc, &tloc);
}

}  // namespace polctl
