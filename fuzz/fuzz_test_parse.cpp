// The text harness fed arbitrary text: pol_test_parse_cfg reads the input
// as its configuration file, with users registered on the policies and
// site lists the seeds name (so that changes are queued and flushed). A
// route then runs through each user in the library and in the reference
// evaluator, which must agree; after tear-down every accounting row must
// read as before pol_init.
#include <cstring>
#include <string>

#include "exec_model.hpp"
#include "exec_reference.hpp"
#include "fuzz_support.hpp"

namespace {

const fuzzsup::scratch_file *g_cfg;

// Registered for the duration of one input.
const char *const kPolicies[] = {"EDGE", "P"};
const char *const kSiteLists[] = {"BRANCHES", "L"};

void count_change(t_pol_user *, void *calls)
{
    ++*static_cast<int *>(calls);
}

void count_list_change(t_pol_list_user *, void *calls)
{
    ++*static_cast<int *>(calls);
}

// The caller's parser of "site-policy" lines: the words it is handed must
// be the line's, each ending inside its slot.
void site_policy_cb(char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    if (num_tokens < 1 || num_tokens > POL_TEST_MAX_TOKENS) {
        fuzzsup::fail("site-policy line handed over with " + std::to_string(num_tokens) + " words");
    }
    for (int i = 0; i < num_tokens; i++) {
        if (memchr(token[i], '\0', POL_TEST_TOKEN_SIZE) == nullptr) {
            fuzzsup::fail("site-policy word " + std::to_string(i) + " not terminated in its slot");
        }
    }
    if (std::strcmp(token[0], "site-policy") != 0) {
        fuzzsup::fail(std::string("site-policy callback given a line of ") + token[0]);
    }
}

t_pol_user *register_user(const char *name, const char *policy, e_pol_dir dir, int *calls)
{
    t_pol_reg_params params{};
    std::snprintf(params.user_name, sizeof(params.user_name), "%s", name);
    std::snprintf(params.pol_name, sizeof(params.pol_name), "%s", policy);
    params.pol_type = POL_TYPE_ROUTE;
    params.pol_direction = dir;
    params.pol_chg_cb = count_change;
    params.pol_label_cb = execmodel::hash_label_cb;
    params.user_ctx_p = calls;
    return pol_register(&params);
}

// A TLOC sequence with a prefix-list condition has a TLOC route's locator
// read as a prefix: a known fault (fuzz/findings/tloc-sequence-prefix-list.txt),
// not run into again until it is fixed.
bool has_tloc_prefix_condition(t_pol_user *user)
{
    bool found = false;
    if (user->pol_block_p != nullptr) {
        avl_foreach(&user->pol_block_p->pol_entries, [](void *record, void *arg) {
            const t_pol_entry *e = static_cast<t_pol_entry *>(record);
            *static_cast<bool *>(arg) |= e->match_entry.match_type == POL_MATCH_TLOC &&
                                         (e->entry_match_flags & POL_MATCH_FLAG_PFX_LIST) != 0;
            return 0;
        }, &found);
    }
    return found;
}

// One virtual route and one TLOC route of the seeds' values through a
// user, library against reference.
void cross_check(t_pol_user *user)
{
    for (uint8_t safi : {uint8_t{POL_SAFI_VROUTE}, uint8_t{POL_SAFI_TLOC}}) {
        if (safi == POL_SAFI_TLOC && fuzzsup::avoid_known_faults() && has_tloc_prefix_condition(user)) {
            continue;
        }
        t_zen_attr attr{};
        attr.attr_flags = ZEN_ATTR_FLAG_TAG | ZEN_ATTR_FLAG_SITE_ID | ZEN_ATTR_FLAG_TLOC | ZEN_ATTR_FLAG_PREFERENCE;
        attr.tag = 5;
        attr.site_id = 100;
        attr.preference = 7;
        pol_test_tloc_str_to_tloc("10.0.0.9:1:ipsec", &attr.tloc);
        t_pol_exec_params lib;
        pol_pre_execute(&lib, ZEN_DEVICE_RIMBA);
        lib.attr_in_p = &attr;
        lib.safi = safi;
        lib.afi = 2;
        if (safi == POL_SAFI_TLOC) {
            lib.u.tloc_info.tloc = attr.tloc;
        } else {
            pol_test_pfx_str_to_pfx("10.1.0.0/16", &lib.u.vroute_info.prefix);
        }
        fuzzsup::execute_against_reference(user, lib, "text harness");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzsup::quiet_library_log();
    static const fuzzsup::scratch_file cfg(".cfg.txt");
    g_cfg = &cfg;
    g_pol_test_cfg_file = cfg.path().c_str();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    g_cfg->write(data, size);
    const fuzzsup::accounting start = fuzzsup::accounting::now();
    t_pol_init_params init{};
    if (pol_init(&init) == nullptr) {
        fuzzsup::fail("pol_init failed");
    }
    int calls = 0;
    t_pol_user *users[2 * std::size(kPolicies)];
    for (size_t i = 0; i < std::size(users); i++) {
        std::string name = "fuzz-" + std::to_string(i);
        users[i] = register_user(name.c_str(), kPolicies[i / 2], i % 2 ? POL_DIR_OUT : POL_DIR_IN, &calls);
    }
    t_pol_list_user *list_users[std::size(kSiteLists)];
    for (size_t i = 0; i < std::size(kSiteLists); i++) {
        t_pol_list_reg_params params{};
        params.pol_list_type = POL_LIST_SITE;
        std::snprintf(params.pol_list_name, sizeof(params.pol_list_name), "%s", kSiteLists[i]);
        params.pol_chg_cb = count_list_change;
        params.user_ctx_p = &calls;
        list_users[i] = pol_list_register(&params);
    }

    pol_test_parse_cfg(site_policy_cb);

    for (t_pol_user *&user : users) {
        cross_check(user);
        pol_unregister(&user);
    }
    for (t_pol_list_user *list_user : list_users) {
        pol_list_unregister(list_user);
    }
    pol_destroy();
    fuzzsup::accounting::now().expect_back_at(start, "after the harness file");
    return 0;
}
