// The command-line host of the policy library: the library context, the
// configuration datastore subscribed with the library's own table
// (pol_config_subscriptions), the users it registers and the label
// callback it gives them.
#ifndef POLCTL_HOST_HPP
#define POLCTL_HOST_HPP

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <zen/mgmtd_ds.h>

#include "pol_internal.h"

namespace polctl {

// One registered user of the library.
struct user_record {
    std::string name;
    std::string policy;
    e_pol_type type = POL_TYPE_ROUTE;
    e_pol_dir dir = POL_DIR_OUT;
    t_pol_user *handle = nullptr;
    class host *owner = nullptr;
};

// A change callback the library made.
struct notification {
    std::string user;
    std::string policy;
};

// Labels the label callback hands out: explicit ones by TLOC, TLOCs it
// resolves to nothing, and the deterministic rule for the rest.
class label_table {
public:
    void set_label(const t_tloc_id &tloc, uint32_t label);
    void set_unreachable(const t_tloc_id &tloc);
    // False when the TLOC is unreachable, else true with its label.
    bool resolve(const t_tloc_id &tloc, uint64_t vpn, uint16_t service, uint32_t *label);

    // Every label handed out: (TLOC text, VPN, service) -> label.
    using key = std::tuple<std::string, uint64_t, uint16_t>;
    const std::map<key, uint32_t> &handed_out() const { return handed_out_; }

    static uint32_t rule(const t_tloc_id &tloc, uint16_t service);

private:
    std::map<std::string, uint32_t> explicit_;
    std::set<std::string> unreachable_;
    std::map<key, uint32_t> handed_out_;
};

std::string tloc_text(const t_tloc_id &tloc);

// The library and the datastore, from start to tear-down. One at a time
// (the library keeps one process-wide context).
class host {
public:
    host();
    ~host();
    host(const host &) = delete;
    host &operator=(const host &) = delete;

    // The label callback start hands the library instead of this host's
    // own (which labels TE tables by label_table's rule only).
    void set_label_callback(t_pol_label_cb_f cb) { label_cb_ = cb; }

    // False with a message when the library or the datastore cannot start.
    bool start(std::string *error);

    t_pol_ctx *ctx() const { return ctx_; }
    mgmtd_ds_t *ds() const { return ds_; }

    // Commits a configuration file; MGMTD_DS_* status, message in error.
    int commit_file(const std::string &path, std::string *error);
    // Commits a loaded tree (taken over), as commit_file does. When a
    // callback stopped the commit, the message is the datastore's followed
    // by the library's reason.
    int commit(mgmtd_ds_tree_t *tree, std::string *error);

    // Registers a user with the change and label callbacks of this host.
    // Null when the library refuses it, or when a user of this host already
    // has the same library key: the host keeps one record per handle, so
    // each handle is unregistered once.
    user_record *register_user(const std::string &name, const std::string &policy,
                               e_pol_type type, e_pol_dir dir);
    // The registered user the library would take name, type and direction
    // for (the library keys users by the name up to a NUL byte or its
    // 127-character field), or null.
    const user_record *same_library_user(const std::string &name, e_pol_type type,
                                         e_pol_dir dir) const;
    const std::vector<std::unique_ptr<user_record>> &users() const { return users_; }

    // Change callbacks received since the last take.
    std::vector<notification> take_notifications();

    label_table &labels() { return labels_; }

private:
    static void on_change(t_pol_user *handle, void *user_ctx_p);
    static void on_label(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap,
                         uint64_t vpn_id, uint16_t service, bool svc_local, uint32_t *label_p,
                         t_tloc_id *tloc_p, t_pol_te_info *te_info_p, uint32_t preference);

    t_pol_ctx *ctx_ = nullptr;
    mgmtd_ds_t *ds_ = nullptr;
    std::vector<std::unique_ptr<user_record>> users_;
    std::vector<notification> notifications_;
    label_table labels_;
    t_pol_label_cb_f label_cb_ = nullptr;
};

}  // namespace polctl

#endif  // POLCTL_HOST_HPP
