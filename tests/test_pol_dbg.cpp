// Text renderers, the policy / user dumps, and the text test harness.
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <fstream>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

std::string match_flags(uint64_t flags, size_t size = 512)
{
    t_pol_entry entry{};
    entry.entry_match_flags = flags;
    char buf[512];
    std::memset(buf, 'x', sizeof(buf));
    return pol_util_match_flags_str(&entry, buf, size);
}

std::string set_flags(uint64_t flags)
{
    t_pol_entry entry{};
    entry.entry_set_flags = flags;
    char buf[256] = "stale";
    return pol_util_set_flags_str(&entry, buf, sizeof(buf));
}

TEST(PolRenderers, FallbacksAndFlagWords)
{
    EXPECT_STREQ(pol_util_dir_str(3), "UNKNOWN");
    EXPECT_STREQ(pol_util_action_str(0), "unknown");
    EXPECT_STREQ(pol_util_pfx_op_str(PFX_OP_NONE), "UNKNOWN");
    EXPECT_STREQ(pol_config_policy_get_match_type(1), "tloc");
    EXPECT_STREQ(pol_config_policy_get_match_type(2), "unknown");

    EXPECT_EQ(match_flags(0), "");
    EXPECT_EQ(set_flags(0), "");
    EXPECT_EQ(set_flags(POL_SET_FLAG_TAG | POL_SET_FLAG_COMMUNITY_ADDITIVE), "TAG ");
    // Shared bits render both of their words.
    EXPECT_EQ(match_flags(POL_MATCH_FLAG_CARRIER), "CARRIER SRC_IP ");
    EXPECT_EQ(match_flags(POL_MATCH_FLAG_ORIGIN_METRIC | POL_MATCH_FLAG_TAG), "TAG METRIC SRC_PORT ");
    EXPECT_EQ(match_flags(~0ULL),
              "TAG METRIC DOMAIN PREF VPN-ID VPN-LIST SITE SITE-LIST TLOC TLOC-LIST PFX-LIST ORIGIN "
              "ORIGINATOR CARRIER GROUP SRC_IP DST_IP SRC66_IP DST6_IP SRC_PORT DST_PORT DSCP PROTO "
              "COLOR COLOR-LIST COMMUNITY-LIST EXP-COMMUNITY-LIST ");
    EXPECT_EQ(set_flags(~0ULL), "TAG PREF TLOC VPN-ID VPN-LIST SERVICE TLOC_LIST COMMUNITY ");

    // A small buffer ends the text where it is full, terminated, and
    // nothing is written past it.
    char buf[16];
    std::memset(buf, '#', sizeof(buf));
    t_pol_entry entry{};
    entry.entry_match_flags = POL_MATCH_FLAG_TAG | POL_MATCH_FLAG_ORIGIN_METRIC | POL_MATCH_FLAG_SITE;
    EXPECT_STREQ(pol_util_match_flags_str(&entry, buf, 8), "TAG MET");
    EXPECT_EQ(buf[8], '#');
    EXPECT_EQ(match_flags(POL_MATCH_FLAG_TAG, 4), "TAG");
    EXPECT_EQ(match_flags(POL_MATCH_FLAG_TAG, 1), "");
}

int g_notified = 0;
size_t g_seqs_at_notify = 0;
void count_cb(t_pol_user *user, void *)
{
    g_notified++;
    g_seqs_at_notify = user->pol_block_p ? avl_numnodes(&user->pol_block_p->pol_entries) : 0;
}

class PolDbg : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        g_notified = 0;
        g_seqs_at_notify = 0;
        path_ = ::testing::TempDir() + "pol_cfg_" + std::to_string(getpid()) + ".txt";
        g_pol_test_cfg_file = path_.c_str();
    }
    void TearDown() override
    {
        std::remove(path_.c_str());
        g_pol_test_cfg_file = "/var/run/policy_cfg.txt";
        pol_debug_set(0);
        PolContextTest::TearDown();
    }
    void load(const std::string &text, t_omp_parse_cb cb = nullptr)
    {
        std::ofstream(path_) << text;
        pol_test_parse_cfg(cb);
    }
    t_pol_entry *seq(const char *policy, uint32_t num)
    {
        t_pol_block *b = pol_block_find(ctx_, policy, POL_TYPE_ROUTE, nullptr);
        return b ? pol_entry_find(ctx_, b, num, nullptr) : nullptr;
    }
    uint8_t changed_ = 0;
    std::string path_;
};

TEST_F(PolDbg, PolicyAndUserDumps)
{
    t_pol_block *rp = pol_block_find_or_create(ctx_, "RP1", POL_TYPE_ROUTE, &changed_);
    t_pol_entry *e10 = pol_entry_find_or_create(ctx_, rp, 10, &changed_);
    pol_entry_match_add(ctx_, rp, e10, POL_MATCH_VROUTE, &changed_);
    pol_entry_match_tag_add(ctx_, e10, 77, &changed_);
    pol_entry_match_site_list_add(ctx_, e10, "S1", &changed_);
    pol_entry_action_add(ctx_, e10, POL_ACTION_ACCEPT, &changed_);
    pol_entry_set_preference_add(ctx_, e10, 200, &changed_);
    pol_entry_find_or_create(ctx_, rp, 5, &changed_);
    pol_block_find_or_create(ctx_, "M1", POL_TYPE_MEMBERSHIP, &changed_);
    rp->default_action_entry.entry_action = POL_ACTION_ACCEPT;
    int tag = 0;
    t_pol_user *user = register_user("comp", "RP1", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &tag);
    pol_user_chg_list_notify_all(ctx_);

    const std::string user_line =
        fmt("\n  comp, type: route, dir: out, policy: RP1 (%p), ctx: %p, cb: %p, change: ",
            static_cast<void *>(rp), static_cast<void *>(&tag), reinterpret_cast<void *>(count_cb));
    {
        CliCapture cli;
        EXPECT_EQ(pol_dump_route_policies(cli.session(), 0, nullptr), 0);
        EXPECT_EQ(cli.text(),
                  "\n================================\n  ROUTE POLICIES\n================================"
                  "\nroute-policy RP1"
                  "\n  sequence 5: match-type unknown, action reject\n    flags: match [] set []"
                  "\n  sequence 10: match-type route, action accept"
                  "\n    flags: match [TAG SITE-LIST] set [PREF]"
                  "\n    match: tag 77, site-list S1\n    set: preference 200"
                  "\n    default-action: accept, fetch_xml: 1\n\n  Users:" +
                      user_line + "no");
    }
    {
        CliCapture cli;
        pol_dump_membership_policies(cli.session(), 0, nullptr);
        EXPECT_NE(cli.text().find("MEMBERSHIP POLICIES"), std::string::npos);
        EXPECT_NE(cli.text().find("\nmembership-policy M1"), std::string::npos);
        EXPECT_EQ(cli.text().find("RP1"), std::string::npos);
    }
    // Queued users show up in the change list, in queue order.
    t_pol_user *other = register_user("other", "RP1", POL_TYPE_ROUTE, POL_DIR_IN);
    pol_user_chg_list_add(ctx_, other);
    pol_entry_action_add(ctx_, e10, POL_ACTION_REJECT, &changed_);
    {
        CliCapture cli;
        EXPECT_EQ(pol_dump_users_change_list(cli.session(), 0, nullptr), 0);
        const std::string text = cli.text();
        EXPECT_EQ(text.rfind("\n================================\n  USERS CHANGE LIST\n"
                             "================================\n  other, type: route, dir: in",
                             0),
                  0u);
        EXPECT_NE(text.find(user_line + "yes"), std::string::npos);
        EXPECT_LT(text.find("other,"), text.find("comp,"));
    }
    pol_user_chg_list_notify_all(ctx_);
    pol_unregister(&other);
    pol_unregister(&user);
}

TEST_F(PolDbg, CflowdTemplateAndWholeLibraryDump)
{
    t_pol_block *cf = pol_block_find_or_create(ctx_, "CF", POL_TYPE_CFLOWD, &changed_);
    t_cflowd_entry *tmpl = cf->pol_cflowd_entry;
    tmpl->flow_active_timeout = 600;
    tmpl->flow_inactive_timeout = 60;
    tmpl->flow_sampling_interval = 10;
    tmpl->template_refresh = 90;
    tmpl->protocol = 2;
    t_cflowd_collector coll{};
    coll.vpn_id = 7;
    IPADDR_SET_V4(&coll.addr, htonl(0x0a000001));
    coll.port = 2055;
    coll.transport_type = 1;
    std::strcpy(coll.source_if, "ge0/1");
    pol_cflowd_add_collector(tmpl, &coll);
    coll.port = 4739;
    coll.source_if[0] = '\0';
    pol_cflowd_add_collector(tmpl, &coll);
    {
        CliCapture cli;
        EXPECT_EQ(pol_dump_cflowd_policies(cli.session(), 0, nullptr), 0);
        const std::string collector = "\n    vpn_id: 7\n    addr: 10.0.0.1\n    port: %d"
                                      "\n    transport_type: 1\n    source_if: %s";
        EXPECT_EQ(cli.text(),
                  "\n================================\n  CFLOWD TEMPLATES\n================================"
                  "\ncflowd-policy CF\n  flow-active-timeout: 600\n  flow-inactive-timeout: 60"
                  "\n  flow-sampling-interval: 10\n  template-refresh: 90\n  protocol: 2"
                  "\n  Collector: 1" + fmt(collector.c_str(), 2055, "ge0/1") +
                  "\n  Collector: 2" + fmt(collector.c_str(), 4739, "") +
                  "\n    default-action: reject, fetch_xml: 1\n\n  Users:");
    }
    pol_site_list_add_entry(ctx_, "S1", 10, 20);
    {
        CliCapture cli;
        EXPECT_EQ(pol_dump_all(cli.session(), 0, nullptr), 0);
        const std::string text = cli.text();
        size_t at = 0;
        for (const char *title : {"ROUTE POLICIES", "FORWARDING POLICIES", "MEMBERSHIP POLICIES",
                                  "CFLOWD TEMPLATES", "PREFIX LISTS", "SITE LISTS", "VPN LISTS",
                                  "TLOC LISTS", "COLOR LISTS"}) {
            size_t found = text.find(title, at);
            EXPECT_NE(found, std::string::npos) << title;
            at = found == std::string::npos ? at : found;
        }
        EXPECT_NE(text.find("\n  site-id 10-20"), std::string::npos);
    }
    pol_block_find_and_delete(ctx_, "CF", POL_TYPE_CFLOWD, &changed_);
    pol_site_list_cfg_del(ctx_, "S1");
    destroy_context();
    CliCapture cli;
    EXPECT_EQ(pol_dump_all(cli.session(), 0, nullptr), 0);
    EXPECT_EQ(pol_dump_route_policies(cli.session(), 0, nullptr), 0);
    EXPECT_EQ(cli.text(), "");
}

TEST(PolHarness, TokensAndLineKinds)
{
    char tok[POL_TEST_MAX_TOKENS][POL_TEST_TOKEN_SIZE] = {};
    e_pol_parse_type type = E_POL_PARSE_PREFIX_LIST;
    EXPECT_EQ(pol_test_get_tokens("site-list L1  10\n", tok, &type), 3);
    EXPECT_EQ(type, E_POL_PARSE_SITE_LIST);
    EXPECT_STREQ(tok[2], "10");
    EXPECT_EQ(pol_test_get_tokens("forwarding-policy F 1 action accept", tok, &type), 5);
    EXPECT_EQ(type, E_POL_PARSE_FWD_POLICY);
    EXPECT_STREQ(tok[4], "accep");  // no newline: the last real character goes
    EXPECT_EQ(pol_test_get_tokens("\n", tok, &type), 1);
    EXPECT_EQ(type, E_POL_PARSE_MAX);
    EXPECT_EQ(pol_test_parse_get_type("site-policy"), E_POL_PARSE_SITE_POLICY);
    EXPECT_EQ(pol_test_parse_get_type("Site-list"), E_POL_PARSE_MAX);
    EXPECT_EQ(pol_test_parse_get_type("site-lists"), E_POL_PARSE_MAX);

    // Past the bounds the line is refused whole.
    std::string many;
    for (int i = 0; i < POL_TEST_MAX_TOKENS + 1; i++) {
        many += "w ";
    }
    EXPECT_EQ(pol_test_get_tokens((many + "\n").c_str(), tok, &type), -1);
    EXPECT_EQ(type, E_POL_PARSE_MAX);
    std::string word49(49, 'n');
    EXPECT_EQ(pol_test_get_tokens(("site-list " + word49 + "\n").c_str(), tok, &type), 2);
    EXPECT_EQ(pol_test_get_tokens(("site-list " + word49 + "n\n").c_str(), tok, &type), -1);
}

std::vector<std::string> g_site_policy;
void site_policy_cb(char token[][POL_TEST_TOKEN_SIZE], int count)
{
    for (int i = 0; i < count; i++) {
        g_site_policy.emplace_back(token[i]);
    }
}

TEST_F(PolDbg, HarnessListLinesAndNotification)
{
    t_pol_user *user = register_user("u", "RP", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb);
    g_site_policy.clear();
    load("site-list L1 10\nsite-list L1 11\nsite-list L1 12\nsite-list L1 11 delete\n"
         "site-list GONE 5\nsite-list GONE delete\n"
         "vpn-list V1 5\n#\n# site-list L1 99\n\n"
         "prefix-list P1 10.1.0.0/16\nprefix-list P1 10.2.0.0/16\nprefix-list P1 10.2.0.0/16 delete\n"
         "tloc-list T1 10.0.0.1:3:ipsec\ntloc-list T1 10.0.0.2:4\n"
         "site-policy SP 1 x\n"
         "route-policy RP 10 site-list L1 action accept\nroute-policy RP 20 action reject\n"
         "forwarding-policy FP 7 tag 9\nsite-list L2 123",
         site_policy_cb);
    EXPECT_NE(pol_site_list_find_entry(ctx_, "L1", 10, 10), nullptr);
    EXPECT_EQ(pol_site_list_find_entry(ctx_, "L1", 11, 11), nullptr);
    EXPECT_NE(pol_site_list_find_entry(ctx_, "L1", 12, 12), nullptr);
    EXPECT_EQ(pol_site_list_find_entry(ctx_, "L1", 99, 99), nullptr);
    EXPECT_EQ(pol_site_list_find(ctx_, "GONE"), nullptr);
    EXPECT_EQ(pol_vpn_list_find(ctx_, "V1"), nullptr);
    EXPECT_NE(pol_site_list_find_entry(ctx_, "L2", 12, 12), nullptr);  // "123" without a newline

    const t_pfx_list_key key = {POL_AF_IPV4, "P1"};
    t_pfx_list *pfx = pol_pfx_list_find(ctx_, &key);
    ASSERT_NE(pfx, nullptr);
    t_pfx_entry *first = TAILQ_FIRST(&pfx->pfx_entry_head);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(TAILQ_NEXT(first, pfx_entry), nullptr);
    EXPECT_EQ(first->prefix.addr.u.addr4.s_addr, htonl(0x0a010000));
    EXPECT_EQ(first->prefix.prefixlen, 16);

    t_tloc_id tloc{};
    ASSERT_EQ(pol_test_tloc_str_to_tloc("10.0.0.1:3:ipsec", &tloc), ERR_OK);
    EXPECT_EQ(tloc.encap, ZEN_TLOC_ENCAP_IPSEC_TUNNEL);
    EXPECT_NE(pol_tloc_list_find_entry(ctx_, "T1", &tloc), nullptr);
    EXPECT_EQ(pol_test_tloc_str_to_tloc("10.0.0.256:3", &tloc), ERR_BAD_PARAM);
    EXPECT_EQ(pol_test_tloc_str_to_tloc("10.0.0.1:3:vxlan", &tloc), ERR_BAD_PARAM);

    // VPN lists have no keyword in the file, but their parser reads the same grammar.
    char tok[POL_TEST_MAX_TOKENS][POL_TEST_TOKEN_SIZE] = {"vpn-list", "V2", "5"};
    pol_test_parse_vpn_list(ctx_, tok, 3);
    std::strcpy(tok[2], "6");
    pol_test_parse_vpn_list(ctx_, tok, 3);
    std::strcpy(tok[3], "delete");
    pol_test_parse_vpn_list(ctx_, tok, 4);
    EXPECT_NE(pol_vpn_list_find_entry(ctx_, "V2", 5, 5), nullptr);
    EXPECT_EQ(pol_vpn_list_find_entry(ctx_, "V2", 6, 6), nullptr);
    std::strcpy(tok[2], "delete");
    pol_test_parse_vpn_list(ctx_, tok, 3);
    EXPECT_EQ(pol_vpn_list_find(ctx_, "V2"), nullptr);

    EXPECT_EQ(g_site_policy, (std::vector<std::string>{"site-policy", "SP", "1", "x"}));
    ASSERT_NE(seq("FP", 7), nullptr);
    EXPECT_EQ(seq("FP", 7)->match_entry.match_tag, 9u);
    // One notification, after the whole file.
    EXPECT_EQ(g_notified, 1);
    EXPECT_EQ(g_seqs_at_notify, 2u);

    load("");
    EXPECT_EQ(g_notified, 1);
    std::remove(path_.c_str());
    LogCapture log;
    pol_test_parse_cfg(nullptr);
    ASSERT_FALSE(log.lines.empty());
    EXPECT_NE(log.lines.back().find("[POL] Failed to open file @" + path_), std::string::npos);
    pol_unregister(&user);
}

TEST_F(PolDbg, RoutePolicyLinesBuildSequences)
{
    pol_debug_set(1);
    t_pol_user *user = register_user("u", "RP", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb);
    LogCapture log;
    load("site-list S 1\n"
         "route-policy RP 10 tag 77 action accept set-preference 200 set-tag 5\n"
         "route-policy RP 20 tag 1 site-list S match-type tloc action accept\n"
         "route-policy RP 30 tag 77 no action\n"
         "route-policy RP default accept\n"
         "route-policy RP 60 site-list S prefix-list P4 action accept set-preference 200 set-tag 6\n");
    t_pol_entry *e10 = seq("RP", 10), *e20 = seq("RP", 20);
    ASSERT_TRUE(e10 && e20 && seq("RP", 30));
    EXPECT_EQ(e10->match_entry.match_type, POL_MATCH_VROUTE);
    EXPECT_EQ(e10->entry_set_flags, POL_SET_FLAG_PREFERENCE | POL_SET_FLAG_TAG);
    // The match type applies first, so the conditions after it survive.
    EXPECT_EQ(e20->match_entry.match_type, POL_MATCH_TLOC);
    EXPECT_EQ(e20->entry_match_flags, POL_MATCH_FLAG_TAG | POL_MATCH_FLAG_SITE_LIST);
    EXPECT_EQ(e20->match_entry.match_site_list_p, pol_site_list_find(ctx_, "S"));
    EXPECT_EQ(seq("RP", 30)->entry_action, POL_ACTION_REJECT);
    ASSERT_NE(seq("RP", 60), nullptr);  // a line past 80 characters is read whole
    EXPECT_EQ(seq("RP", 60)->entry_set_flags, POL_SET_FLAG_PREFERENCE | POL_SET_FLAG_TAG);

    t_pol_exec_params params;
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_ACCEPT);
    EXPECT_EQ(params.attr_out.preference, 200u);
    EXPECT_EQ(params.attr_out.tag, 5u);
    EXPECT_EQ(user->pol_block_p->default_action_entry.entry_action, POL_ACTION_ACCEPT);
    auto logged = [&](const std::string &text) {
        for (const auto &l : log.lines) {
            if (l.find(text) != std::string::npos) return true;
        }
        return false;
    };
    EXPECT_TRUE(logged("[POL] Adding prefix list S site: 1"));

    // Malformed or overlong lines change nothing; later lines still apply.
    std::string long_line = "route-policy RP 40 tag 1 action accept";
    while (long_line.size() < 1100) {
        long_line += " set-tag 2";
    }
    long_line += "\n";
    load("route-policy RP 10 tag 78 action\n"
         "route-policy RP 10 tag 78 bogus 1\n"
         "route-policy RP 10 tag x\n"
         "route-policy RP 10 no match-type\n"
         "route-policy RP default maybe\n"
         "route-policy RP 99999999999 action accept\n" + long_line +
         "route-policy RP 50 " + std::string(50, 'w') + "\n"
         "route-policy RP 10 no tag\n");
    EXPECT_EQ(e10->entry_match_flags, 0u);  // the last line did apply
    EXPECT_EQ(seq("RP", 40), nullptr);
    EXPECT_EQ(seq("RP", 50), nullptr);
    EXPECT_EQ(user->pol_block_p->default_action_entry.entry_action, POL_ACTION_ACCEPT);
    EXPECT_TRUE(logged("unknown keyword bogus"));
    EXPECT_TRUE(logged("missing value after action"));
    EXPECT_TRUE(logged("longer than 1022 characters"));
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_ACCEPT);

    g_notified = 0;
    load("route-policy RP 10 delete\nroute-policy RP 30 delete\n");
    EXPECT_EQ(g_notified, 1);
    EXPECT_EQ(seq("RP", 10), nullptr);
    EXPECT_EQ(g_seqs_at_notify, 2u);
    load("route-policy RP delete\n");
    EXPECT_EQ(pol_block_find(ctx_, "RP", POL_TYPE_ROUTE, nullptr), nullptr);
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_REJECT);
    pol_unregister(&user);
}

}  // namespace
