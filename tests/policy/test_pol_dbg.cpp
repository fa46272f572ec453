// Text renderers, the policy / user dumps, and the text test harness.
#include <cstring>
#include <fstream>
#include <regex>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;

// A sequence's match (or set) flags rendered into a buffer of junk of the
// given size; nothing past it may be written.
std::string flags(uint64_t bits, bool set = false, size_t size = 512)
{
    t_pol_entry entry{};
    (set ? entry.entry_set_flags : entry.entry_match_flags) = bits;
    char buf[513];
    std::memset(buf, 'x', sizeof(buf));
    const std::string text = (set ? pol_util_set_flags_str : pol_util_match_flags_str)(&entry, buf, size);
    EXPECT_EQ(buf[size], 'x') << size;
    return text;
}

TEST(PolRenderers, FallbacksAndFlagWords)
{
    EXPECT_EQ(std::string(pol_util_dir_str(3)) + " " + pol_util_action_str(0) + " " + pol_util_pfx_op_str(PFX_OP_NONE) +
                  " " + pol_config_policy_get_match_type(1) + " " + pol_config_policy_get_match_type(2),
              "UNKNOWN unknown UNKNOWN tloc unknown");

    // Every renderer: its first and last named value and the first value past them.
    const struct {
        const char *(*render)(uint32_t);
        uint32_t first, last;
        const char *texts;
    } renderers[] = {
        {pol_util_action_str, POL_ACTION_ACCEPT, POL_ACTION_REJECT, "accept reject unknown"},
        {pol_util_type_str, POL_TYPE_ROUTE, POL_TYPE_CFLOWD, "route cflowd unknown"},
        {pol_util_list_type_str, POL_LIST_PREFIX, POL_LIST_TLOC, "prefix-list tloc-list unknown"},
        {pol_util_dir_str, POL_DIR_NONE, POL_DIR_OUT, "none out UNKNOWN"},
        {pol_util_match_type_str, POL_MATCH_VROUTE, POL_MATCH_PACKET, "route packet unknown"},
        {pol_util_proto_str, POL_PROTO_UDP, POL_PROTO_ICMP, "udp icmp unknown"},
        {pol_util_pfx_op_str, PFX_OP_RANGE, PFX_OP_GT, "RANGE GT UNKNOWN"},
        {pol_util_dscp_str, POL_DSCP_DEFAULT, POL_DSCP_CS7, "default cs7 unknown"},
    };
    for (const auto &r : renderers) {
        EXPECT_EQ(std::string(r.render(r.first)) + " " + r.render(r.last) + " " + r.render(r.last + 1), r.texts);
    }
    EXPECT_EQ(std::string(pol_util_dscp_str(POL_DSCP_EF)) + pol_util_dscp_str(POL_DSCP_CS1) + pol_util_dscp_str(POL_DSCP_AF43),
              "efcs1af43");

    struct { uint64_t bits; bool set; size_t size; const char *want; } const cases[] = {
        {0, false, 512, ""}, {0, true, 512, ""},
        {POL_SET_FLAG_TAG | POL_SET_FLAG_COMMUNITY_ADDITIVE, true, 512, "TAG "},
        // Shared bits render both of their words.
        {POL_MATCH_FLAG_CARRIER, false, 512, "CARRIER SRC_IP "},
        {POL_MATCH_FLAG_ORIGIN_METRIC | POL_MATCH_FLAG_TAG, false, 512, "TAG METRIC SRC_PORT "},
        {~0ULL, false, 512,
         "TAG METRIC DOMAIN PREF VPN-ID VPN-LIST SITE SITE-LIST TLOC TLOC-LIST PFX-LIST ORIGIN ORIGINATOR CARRIER "
         "GROUP SRC_IP DST_IP SRC66_IP DST6_IP SRC_PORT DST_PORT DSCP PROTO COLOR COLOR-LIST COMMUNITY-LIST "
         "EXP-COMMUNITY-LIST "},
        {~0ULL, true, 512, "TAG PREF TLOC VPN-ID VPN-LIST SERVICE TLOC_LIST COMMUNITY "},
        // A small buffer ends the text where it is full, terminated.
        {POL_MATCH_FLAG_TAG | POL_MATCH_FLAG_ORIGIN_METRIC | POL_MATCH_FLAG_SITE, false, 8, "TAG MET"},
        {POL_MATCH_FLAG_TAG, false, 4, "TAG"}, {POL_MATCH_FLAG_TAG, false, 1, ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(flags(c.bits, c.set, c.size), c.want) << std::hex << c.bits << " in " << std::dec << c.size;
    }
}

int g_notified = 0;
size_t g_seqs_at_notify = 0;
void count_seqs_cb(t_pol_user *user, void *)
{
    g_notified++;
    g_seqs_at_notify = user->pol_block_p ? avl_numnodes(&user->pol_block_p->pol_entries) : 0;
}

class PolDbg : public PolContextTest {
protected:
    PolDbg() { g_notified = 0; g_pol_test_cfg_file = path_.c_str(); }
    ~PolDbg() override { std::remove(path_.c_str()); pol_debug_set(0); g_pol_test_cfg_file = "/var/run/policy_cfg.txt"; }
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
    const std::string path_ = ::testing::TempDir() + "pol_cfg_" + std::to_string(getpid()) + ".txt";
    uint8_t changed_ = 0;
};

TEST_F(PolDbg, PolicyUserAndWholeLibraryDumps)
{
    load("route-policy RP1 10 tag 77 site-list S1 action accept set-preference 200\nroute-policy RP1 default accept\n");
    t_pol_block *rp = pol_block_find(ctx_, "RP1", POL_TYPE_ROUTE, nullptr);
    pol_entry_find_or_create(ctx_, rp, 5, &changed_);  // with no match type
    pol_block_find_or_create(ctx_, "M1", POL_TYPE_MEMBERSHIP, &changed_);
    int tag = 0;
    register_user("comp", "RP1", POL_TYPE_ROUTE, POL_DIR_OUT, count_seqs_cb, &tag);

    const std::string user_line = "\n  comp, type: route, dir: out, policy: RP1 (" + ptr(rp) + "), ctx: " + ptr(&tag) +
                                  ", cb: " + ptr(reinterpret_cast<void *>(count_seqs_cb)) + ", change: ";
    // The sequences' own lines are pinned by RoutePolicyLinesBuildSequences.
    const std::string route = dump([](auto *s) { EXPECT_EQ(pol_dump_route_policies(s, 0, nullptr), 0); });
    const std::string no_match_type = "\n  sequence 5: match-type unknown, action reject\n    flags: match [] set []";
    EXPECT_TRUE(route.starts_with(heading("ROUTE POLICIES") + "\nroute-policy RP1" + no_match_type + "\n  sequence 10:"))
        << route;
    EXPECT_TRUE(route.ends_with("\n    default-action: accept, fetch_xml: 1\n\n  Users:" + user_line + "no")) << route;
    const std::string members = dump([](auto *s) { pol_dump_membership_policies(s, 0, nullptr); });
    EXPECT_TRUE(members.starts_with(heading("MEMBERSHIP POLICIES") + "\nmembership-policy M1")) << members;
    EXPECT_EQ(members.find("RP1"), std::string::npos);

    // Queued users show up in the change list, in queue order.
    pol_user_chg_list_add(ctx_, register_user("other", "RP1", POL_TYPE_ROUTE, POL_DIR_IN));
    pol_entry_action_add(ctx_, seq("RP1", 10), POL_ACTION_REJECT, &changed_);
    const std::string text = dump([](auto *s) { EXPECT_EQ(pol_dump_users_change_list(s, 0, nullptr), 0); });
    EXPECT_TRUE(text.starts_with(heading("USERS CHANGE LIST") + "\n  other, type: route, dir: in")) << text;
    EXPECT_TRUE(text.ends_with(user_line + "yes")) << text;
    pol_user_chg_list_notify_all(ctx_);

    // The whole library, section by section (the cflowd section's own format
    // is pinned by the polctl show golden); without a context, nothing.
    pol_block_find_or_create(ctx_, "CF", POL_TYPE_CFLOWD, &changed_);
    pol_site_list_add_entry(ctx_, "S1", 10, 20);
    const std::string all = dump([](auto *s) { EXPECT_EQ(pol_dump_all(s, 0, nullptr), 0); });
    EXPECT_TRUE(std::regex_search(all, std::regex("ROUTE POLICIES[^]*FORWARDING POLICIES[^]*MEMBERSHIP POLICIES[^]*"
                                                  "CFLOWD TEMPLATES[^]*cflowd-policy CF[^]*PREFIX LISTS[^]*SITE LISTS"
                                                  "[^]*site-id 10-20[^]*VPN LISTS[^]*TLOC LISTS[^]*COLOR LISTS")))
        << all;
    destroy_context();
    EXPECT_EQ(dump([](auto *s) { EXPECT_EQ(pol_dump_all(s, 0, nullptr) + pol_dump_route_policies(s, 0, nullptr), 0); }),
              "");
}

std::vector<std::string> g_site_policy;

TEST_F(PolDbg, HarnessTokensListLinesAndNotification)
{
    char tok[POL_TEST_MAX_TOKENS][POL_TEST_TOKEN_SIZE] = {};
    e_pol_parse_type type = E_POL_PARSE_PREFIX_LIST;
    EXPECT_EQ(pol_test_get_tokens("site-list L1  10\n", tok, &type), 3);
    EXPECT_TRUE(type == E_POL_PARSE_SITE_LIST && std::string(tok[2]) == "10");
    EXPECT_EQ(pol_test_get_tokens("forwarding-policy F 1 action accept", tok, &type), 5);
    // No newline: the last real character goes.
    EXPECT_TRUE(type == E_POL_PARSE_FWD_POLICY && std::string(tok[4]) == "accep") << tok[4];
    EXPECT_TRUE(pol_test_get_tokens("\n", tok, &type) == 1 && type == E_POL_PARSE_MAX);
    EXPECT_EQ(pol_test_parse_get_type("site-policy"), E_POL_PARSE_SITE_POLICY);
    EXPECT_EQ(pol_test_parse_get_type("Site-list"), E_POL_PARSE_MAX);
    EXPECT_EQ(pol_test_parse_get_type("site-lists"), E_POL_PARSE_MAX);

    // Past the bounds the line is refused whole.
    const std::string many = std::regex_replace(std::string(POL_TEST_MAX_TOKENS + 1, 'w'), std::regex("w"), "w ");
    EXPECT_TRUE(pol_test_get_tokens((many + "\n").c_str(), tok, &type) == -1 && type == E_POL_PARSE_MAX);
    const std::string word49(49, 'n');
    EXPECT_EQ(pol_test_get_tokens(("site-list " + word49 + "\n").c_str(), tok, &type), 2);
    EXPECT_EQ(pol_test_get_tokens(("site-list " + word49 + "n\n").c_str(), tok, &type), -1);

    register_user("u", "RP", POL_TYPE_ROUTE, POL_DIR_OUT, count_seqs_cb);
    load("site-list L1 10\nsite-list L1 11\nsite-list L1 12\nsite-list L1 11 delete\n"
         "site-list GONE 5\nsite-list GONE delete\n"
         "vpn-list V1 5\n#\n# site-list L1 99\n\n"
         "prefix-list P1 10.1.0.0/16\nprefix-list P1 10.2.0.0/16\nprefix-list P1 10.2.0.0/16 delete\n"
         "tloc-list T1 10.0.0.1:3:ipsec\ntloc-list T1 10.0.0.2:4\n"
         "site-policy SP 1 x\n"
         "route-policy RP 10 site-list L1 action accept\nroute-policy RP 20 action reject\n"
         "forwarding-policy FP 7 tag 9\nsite-list L2 123",
         [](char token[][POL_TEST_TOKEN_SIZE], int count) { g_site_policy.assign(token, token + count); });
    // Headings and addresses aside: "123" without a newline lost its last character.
    const std::string lists = dump(pol_dump_site_list_all) + dump(pol_dump_vpn_list_all) +
                              dump(pol_dump_tloc_list_all) + dump(pol_dump_pfx_list_all);
    EXPECT_EQ(std::regex_replace(lists, std::regex(" \\(0x[^)]*\\)|\n=+\n  [A-Z ]+\n=+"), ""),
              "\nsite-list: L1\n  site-id 10-10\n  site-id 12-12\nend\n\nsite-list: L2\n  site-id 12-12\nend\n"
              "\ntloc-list: T1\n  tloc 10.0.0.1:metro-ethernet:ipsec preference 0\n"
              "  tloc 10.0.0.2:business-internet:unknown preference 0\nend \n"
              "\nIPv4 prefix-list: P1\n  prefix 10.1.0.0/16 UNKNOWN min 0 max 0\nend \n")
        << lists;
    t_tloc_id tloc{};
    for (const char *bad : {"10.0.0.256:3", "10.0.0.1:3:vxlan"}) {
        EXPECT_EQ(pol_test_tloc_str_to_tloc(bad, &tloc), ERR_BAD_PARAM) << bad;
    }

    // VPN lists have no keyword in the file, but their parser reads the same grammar.
    for (const char *line : {"vpn-list V2 5\n", "vpn-list V2 6\n", "vpn-list V2 6 delete\n"}) {
        pol_test_parse_vpn_list(ctx_, tok, pol_test_get_tokens(line, tok, &type));
    }
    EXPECT_TRUE(pol_vpn_list_find_entry(ctx_, "V2", 5, 5) && !pol_vpn_list_find_entry(ctx_, "V2", 6, 6));
    pol_test_parse_vpn_list(ctx_, tok, pol_test_get_tokens("vpn-list V2 delete\n", tok, &type));
    EXPECT_EQ(pol_vpn_list_find(ctx_, "V2"), nullptr);

    EXPECT_EQ(g_site_policy, (std::vector<std::string>{"site-policy", "SP", "1", "x"}));
    ASSERT_TRUE(seq("FP", 7) != nullptr && seq("FP", 7)->match_entry.match_tag == 9u);
    EXPECT_TRUE(g_notified == 1 && g_seqs_at_notify == 2u);  // once, after the whole file
    load("");
    EXPECT_EQ(g_notified, 1);
    std::remove(path_.c_str());
    LogCapture log;
    pol_test_parse_cfg(nullptr);
    ASSERT_FALSE(log.lines.empty());
    EXPECT_TRUE(log.lines.back().ends_with("[POL] Failed to open file @" + path_)) << log.lines.back();
}

TEST_F(PolDbg, RoutePolicyLinesBuildSequences)
{
    t_pol_user *user = register_user("u", "RP", POL_TYPE_ROUTE, POL_DIR_OUT, count_seqs_cb);
    load("site-list S 1\n"
         "route-policy RP 10 tag 77 action accept set-preference 200 set-tag 5\n"
         "route-policy RP 20 tag 1 site-list S match-type tloc action accept\n"
         "route-policy RP 30 tag 77 no action\nroute-policy RP 30 no tag\n"
         "route-policy RP default accept\n"
         "route-policy RP 60 site-list S prefix-list P4 action accept set-preference 200 set-tag 6\n");
    auto policies = [] { return dump([](auto *s) { EXPECT_EQ(pol_dump_route_policies(s, 0, nullptr), 0); }); };
    const std::string before = policies();
    // The match type applies first, so the conditions after it survive; a
    // line past 80 characters (60) is read whole.
    EXPECT_NE(before.find("\nroute-policy RP\n  sequence 10: match-type route, action accept\n"
                          "    flags: match [TAG] set [TAG PREF]\n    match: tag 77\n    set: tag 5, preference 200\n"
                          "  sequence 20: match-type tloc, action accept\n    flags: match [TAG SITE-LIST] set []\n"
                          "    match: tag 1, site-list S\n  sequence 30: match-type route, action reject\n"
                          "    flags: match [] set []\n  sequence 60: match-type route, action accept\n"
                          "    flags: match [SITE-LIST PFX-LIST] set [TAG PREF]\n"
                          "    match: site-list S, prefix-list P4\n    set: tag 6, preference 200\n"
                          "    default-action: accept, fetch_xml: 1\n"),
              std::string::npos)
        << before;
    t_pol_exec_params params;
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_ACCEPT);
    EXPECT_TRUE(params.attr_out.preference == 200u && params.attr_out.tag == 5u);

    // Malformed or overlong lines change nothing; later lines still apply.
    std::string long_line = "route-policy RP 40 tag 1 action accept";
    long_line.resize(1100, ' ');  // good but for its length
    load("route-policy RP 10 tag 78 action\nroute-policy RP 10 tag 78 bogus 1\nroute-policy RP 10 tag x\n"
         "route-policy RP 10 no match-type\nroute-policy RP default maybe\n"
         "route-policy RP 99999999999 action accept\n" + long_line + "\n"
         "route-policy RP 50 " + std::string(50, 'w') + "\n" +
         std::string("route-policy RP 41 tag 1 action accept\0junk\n", 44) + "site-list LAST 1\n");
    EXPECT_EQ(policies(), before);
    EXPECT_NE(pol_site_list_find(ctx_, "LAST"), nullptr);

    g_notified = 0;
    load("route-policy RP 10 delete\nroute-policy RP 30 delete\n");
    EXPECT_TRUE(g_notified == 1 && seq("RP", 10) == nullptr && g_seqs_at_notify == 2u);
    load("route-policy RP delete\n");
    EXPECT_EQ(pol_block_find(ctx_, "RP", POL_TYPE_ROUTE, nullptr), nullptr);
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_REJECT);
}

}  // namespace
