// The configuration-file path fed arbitrary documents: the first byte
// picks XML or JSON, the rest is the file. It is validated and committed
// through the datastore with the library's own subscription table, as
// polctl does; users registered on the example policies run routes
// through what was committed, in the library and in the reference
// evaluator, which must agree. Then the empty configuration is committed,
// which must succeed and leave nothing configured, and after tear-down
// every accounting row must read as before pol_init.
#include <cstring>
#include <string>

#include <policy/pol_config.h>
#include <zen/mgmtd_ds.h>

#include "exec_model.hpp"
#include "exec_reference.hpp"
#include "fuzz_support.hpp"

namespace {

struct scratch {
    fuzzsup::scratch_file xml{".xml"}, json{".json"}, empty{"-empty.xml"};
};
const scratch *g_files;
mgmtd_ds_t *g_ds;

const char kEmptyConfig[] = "<policy xmlns=\"urn:zen:params:xml:ns:yang:zen-policy\"/>\n";

struct user_decl {
    const char *policy;
    e_pol_type type;
    e_pol_dir dir;
};
const user_decl kUsers[] = {
    {"hub-and-spoke", POL_TYPE_ROUTE, POL_DIR_OUT},
    {"vpn-export", POL_TYPE_ROUTE, POL_DIR_IN},
    {"ospf-import", POL_TYPE_ROUTE, POL_DIR_IN},
    {"vpn-membership", POL_TYPE_MEMBERSHIP, POL_DIR_IN},
};

mgmtd_ds_t *open_datastore()
{
    char err[512] = "";
    mgmtd_ds_t *ds = mgmtd_ds_open(mgmtd_ds_policy_schema(), err, sizeof(err));
    if (ds == nullptr) {
        fuzzsup::fail(std::string("datastore does not open: ") + err);
    }
    return ds;
}

t_pol_user *register_user(const user_decl &u, size_t i)
{
    t_pol_reg_params params{};
    std::snprintf(params.user_name, sizeof(params.user_name), "fuzz-%zu", i);
    std::snprintf(params.pol_name, sizeof(params.pol_name), "%s", u.policy);
    params.pol_type = u.type;
    params.pol_direction = u.dir;
    params.pol_label_cb = execmodel::hash_label_cb;
    return pol_register(&params);
}

// A few fixed routes of every kind, chosen by a counter walked through
// the model's value chooser.
class counter_chooser : public execmodel::chooser {
public:
    explicit counter_chooser(uint64_t seed) : state_(seed) {}
    uint32_t below(uint32_t n) override { return n == 0 ? 0 : static_cast<uint32_t>(bits() % n); }
    uint64_t bits() override
    {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        return state_ >> 11;
    }

private:
    uint64_t state_;
};

void cross_check(t_pol_user *user, uint64_t seed)
{
    counter_chooser c(seed);
    static const uint8_t kSafis[] = {POL_SAFI_VROUTE, POL_SAFI_TLOC, POL_SAFI_SERVICE};
    t_zen_attr attr = execmodel::random_attr(c);
    t_pol_exec_params lib;
    pol_pre_execute(&lib, c.percent(50) ? ZEN_DEVICE_QARMON : ZEN_DEVICE_RIMBA);
    lib.attr_in_p = &attr;
    lib.safi = c.pick(kSafis);
    lib.afi = c.percent(50) ? 2 : 10;
    if (lib.safi == POL_SAFI_TLOC) {
        lib.u.tloc_info.tloc = execmodel::random_tloc(c);
    } else {
        lib.u.vroute_info.vpn_id = execmodel::random_id(c, true);
    }
    if (lib.safi == POL_SAFI_VROUTE) {
        lib.u.vroute_info.prefix = execmodel::random_prefix(c, lib.afi == 10, true);
    }
    lib.in_label = static_cast<uint32_t>(c.bits());
    fuzzsup::execute_against_reference(user, lib, "seed " + std::to_string(seed));
    std::free(attr.community_p);
}

// After the empty configuration: no list, template or data policy is
// left, and the policies that users keep have no sequences.
void check_nothing_configured(t_pol_ctx *ctx)
{
    const std::pair<const char *, avl_tree_t *> kTrees[] = {
        {"prefix", &ctx->pfx_lists},          {"TLOC", &ctx->tloc_lists},
        {"site", &ctx->site_lists},           {"VPN", &ctx->vpn_lists},
        {"colour", &ctx->color_lists},        {"community", &ctx->community_lists},
        {"expanded community", &ctx->exp_community_lists}, {"cflowd template", &ctx->cflowd_templates},
        {"data policy", &ctx->fwd_policies},  {"application-route policy", &ctx->pfr_policies},
    };
    for (const auto &[what, tree] : kTrees) {
        if (avl_numnodes(tree) != 0) {
            fuzzsup::fail(std::string(what) + " lists or records left after the empty configuration");
        }
    }
    for (avl_tree_t *policies : {&ctx->route_policies, &ctx->membership_policies}) {
        avl_foreach(policies, [](void *record, void *) {
            if (avl_numnodes(&static_cast<t_pol_block *>(record)->pol_entries) != 0) {
                fuzzsup::fail(std::string("sequences of ") + static_cast<t_pol_block *>(record)->pol_name +
                              " left after the empty configuration");
            }
            return 0;
        }, nullptr);
    }
}

int commit(const std::string &path)
{
    int status = mgmtd_ds_commit_file(g_ds, path.c_str());
    if (status == MGMTD_DS_OK) {
        pol_config_update_tloc_list(nullptr, g_pol_ctx_p);
    }
    return status;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzsup::quiet_library_log();
    static const scratch files;
    g_files = &files;
    files.empty.write(reinterpret_cast<const uint8_t *>(kEmptyConfig), sizeof(kEmptyConfig) - 1);
    g_ds = open_datastore();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return -1;  // not kept in the corpus
    }
    const fuzzsup::scratch_file &file = (data[0] & 1) != 0 ? g_files->json : g_files->xml;
    file.write(data + 1, size - 1);

    const fuzzsup::accounting start = fuzzsup::accounting::now();
    t_pol_init_params init{};
    init.pol_label_cb = execmodel::hash_label_cb;
    t_pol_ctx *ctx = pol_init(&init);
    size_t num_subs = 0;
    const mgmtd_ds_sub_t *subs = pol_config_subscriptions(&num_subs);
    if (ctx == nullptr || mgmtd_ds_subscribe(g_ds, subs, num_subs, ctx) != MGMTD_DS_OK) {
        fuzzsup::fail("the library or its subscription table does not start");
    }
    t_pol_user *users[std::size(kUsers)];
    for (size_t i = 0; i < std::size(kUsers); i++) {
        users[i] = register_user(kUsers[i], i);
    }

    const int status = commit(file.path());
    for (size_t i = 0; i < std::size(users) && status == MGMTD_DS_OK; i++) {
        for (uint64_t seed = 0; seed < 4; seed++) {
            cross_check(users[i], size * 4 + seed);
        }
    }
    if (commit(g_files->empty.path()) != MGMTD_DS_OK) {
        fuzzsup::fail(std::string("the empty configuration does not commit after status ") +
                      std::to_string(status) + ": " + mgmtd_ds_error(g_ds));
    }
    check_nothing_configured(g_pol_ctx_p);
    for (t_pol_user *&user : users) {
        pol_unregister(&user);
    }
    pol_destroy();
    fuzzsup::accounting::now().expect_back_at(start, "after the configuration and its removal");
    return 0;
}
