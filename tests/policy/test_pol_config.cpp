// Configuration change callbacks, driven as the host's management layer
// drives them: one call per created, modified or deleted node, with its keys
// and flattened leaves.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
#include <tuple>

#include <policy/pol_config.h>
#include <zen/zen_policy_tags.h>

#include "mgmtd_builder.hpp"
#include "pol_test_support.hpp"

namespace {

using mgmtd_builder::keys;
using mgmtd_builder::values;
using poltest::LogCapture;

constexpr community_list_type kStd = COMM_LIST_TYPE_STANDARD;
constexpr community_list_type kExp = COMM_LIST_TYPE_EXPANDED;

// Schema tags of the policy module's nodes (TAG_PREFERENCE, ...).
enum schema_tag : uint32_t {
#define TEST_POLICY_TAG(id, name, tag) TAG_##id = tag,
    ZEN_POLICY_TAGS(TEST_POLICY_TAG)
#undef TEST_POLICY_TAG
};

// Readers that take the kind of list after the values.
auto std_list = [](auto... a) { return pol_config_community_list(a..., kStd); };
auto exp_list = [](auto... a) { return pol_config_community_list(a..., kExp); };

// A line ending in the text was logged at the error priority (191).
bool logged(const LogCapture &log, const std::string &text)
{
    return std::any_of(log.lines.begin(), log.lines.end(), [&](const std::string &line) {
        return line.starts_with("191 ") && line.ends_with("[POL] " + text);
    });
}

class ConfigTest : public poltest::PolContextTest {
protected:
    template <typename Reader>
    int32_t run(Reader reader, mgmtd_iter_op op, keys &k, values &v)
    {
        return reader(&host_, ctx_, op, k.size(), k.data(), v.size(), v.data());
    }

    // A reader given keys made of the arguments: texts, sequence numbers
    // (unsigned) and enum values (int).
    template <typename Reader, typename... Key>
    int32_t call(Reader reader, mgmtd_iter_op op, values &v, Key... key)
    {
        keys k;
        (add_key(k, key), ...);
        return run(reader, op, k, v);
    }
    static void add_key(keys &k, const char *text) { k.text(text); }
    static void add_key(keys &k, unsigned seq) { k.u16(static_cast<uint16_t>(seq)); }
    static void add_key(keys &k, int kind) { k.enum_value(kind); }

    int32_t match(mgmtd_iter_op op, unsigned seq, int kind, values &v)
    {
        return call(pol_config_control_policy_match_read, op, v, "P", seq, kind);
    }

    t_pol_entry *entry_of(const char *name, uint32_t seq, e_pol_type type = POL_TYPE_ROUTE)
    {
        t_pol_block *block = pol_block_find(ctx_, name, type, nullptr);
        return block != nullptr ? pol_entry_find(ctx_, block, seq, nullptr) : nullptr;
    }

    // A context of its own, as after pol_init.
    void fresh_context()
    {
        destroy_context();
        t_pol_init_params params{};
        ctx_ = pol_init(&params);
        ASSERT_NE(ctx_, nullptr);
    }

    // Every policy and list of the context as the dumps print them, without
    // the addresses of the records.
    static std::string model()
    {
        static const std::regex address("(0x)+[0-9a-fA-F]+|\\(nil\\)");
        const std::string text = poltest::dump([](mgmtd_cli_user_info *u) { pol_dump_all(u, 0, nullptr); });
        return std::regex_replace(text, address, "@");
    }

    // The entry as the dump prints it, on one line, with what the dump leaves
    // out: the ultimate TLOC action and the lists and community array held.
    static std::string shown(t_pol_entry *e)
    {
        const t_pol_set_entry &s = e->set_entry;
        const std::string text = poltest::dump([e](mgmtd_cli_user_info *u) { pol_dump_entry(e, u); });
        return std::regex_replace(text, std::regex("\n *"), "|") + "|ultimate " +
               std::to_string(s.set_ultimate_action) + (s.tloc_list_p != nullptr ? ", tloc-list held" : "") +
               (s.set_community != nullptr ? ", communities held" : "");
    }

    t_vmgmtd_context host_{};
    values none_;
};

using ConfigDeathTest = ConfigTest;

// Ranges are added on creation only; text that is no range returns -1 and
// changes nothing. The ranges a file creates are in the show-lists golden of
// control-leaves.xml, and ranges deleted are the site-vpn-lists commit series'.
TEST_F(ConfigTest, SiteAndVpnRanges)
{
    EXPECT_EQ(call(pol_config_policy_site_list, MOP_CREATED, none_, "S", "10-20"), 0);
    EXPECT_EQ(call(pol_config_policy_site_list, MOP_MODIFIED, none_, "S", "30"), 0);
    EXPECT_EQ(pol_site_list_find_entry(ctx_, "S", 30, 30), nullptr);
    EXPECT_EQ(call(pol_config_policy_vpn_list, MOP_CREATED, none_, "V", "7-9"), 0);
    EXPECT_EQ(call(pol_config_policy_site_list_name, MOP_DELETED, none_, "S"), 0);
    EXPECT_EQ(call(pol_config_policy_vpn_list_name, MOP_MODIFIED, none_, "V"), 0);
    EXPECT_EQ(pol_site_list_find(ctx_, "S"), nullptr);
    EXPECT_NE(pol_vpn_list_find(ctx_, "V"), nullptr);

    // Numbers that would wrap in the lists' 32 bits are no range either.
    LogCapture log;
    for (mgmtd_iter_op op : {MOP_CREATED, MOP_DELETED}) {
        EXPECT_EQ(call(pol_config_policy_site_list, op, none_, "T", "abc"), -1);
        EXPECT_EQ(call(pol_config_policy_site_list, op, none_, "T", ""), -1);
        EXPECT_EQ(call(pol_config_policy_vpn_list, op, none_, "W", "x-1"), -1);
        for (const char *id : {"4294967297", "1-4294967296", "-5", "10-", "10-20x", "99999999999999999999"}) {
            EXPECT_EQ(call(pol_config_policy_site_list, op, none_, "T", id), -1) << id;
            EXPECT_EQ(call(pol_config_policy_vpn_list, op, none_, "W", id), -1) << id;
        }
    }
    EXPECT_TRUE(logged(log, "Invalid site list range abc in list T"));
    EXPECT_TRUE(logged(log, "Invalid site list range  in list T"));
    EXPECT_TRUE(logged(log, "Invalid vpn list range x-1 in list W"));
    EXPECT_TRUE(logged(log, "Invalid site list range 4294967297 in list T"));
    EXPECT_TRUE(logged(log, "Invalid vpn list range 1-4294967296 in list W"));
    EXPECT_EQ(log.lines.size(), 30u);
    EXPECT_TRUE(pol_site_list_find(ctx_, "T") == nullptr && pol_vpn_list_find(ctx_, "W") == nullptr);
}

// A TLOC entry's changes are the tloc-color-lists commit series'; colour and
// community entries carry no leaves a file could change: their re-adding is here.
TEST_F(ConfigTest, ColourAndCommunityEntriesAreReaddedOnEveryChange)
{
    call(pol_config_policy_color_list, MOP_CREATED, none_, "C", 5);
    call(pol_config_policy_color_list, MOP_MODIFIED, none_, "C", 5);
    EXPECT_NE(pol_color_list_find_entry(ctx_, "C", 5), nullptr);
    call(pol_config_policy_color_list, MOP_DELETED, none_, "C", 5);
    EXPECT_EQ(pol_color_list_find_entry(ctx_, "C", 5), nullptr);

    call(std_list, MOP_CREATED, none_, "K", "65000:1");
    call(exp_list, MOP_MODIFIED, none_, "K", "65000:1");
    call(std_list, MOP_DELETED, none_, "K", "65000:1");
    EXPECT_EQ(pol_community_list_find_entry(ctx_, "K", "65000:1", kStd), nullptr);
    EXPECT_NE(pol_community_list_find_entry(ctx_, "K", "65000:1", kExp), nullptr);
    call(std_list, MOP_CREATED, none_, "K", "65000:1");
    EXPECT_EQ(call([](auto... a) { return pol_config_community_list_name(a..., kStd); }, MOP_DELETED, none_, "K"), 0);
    EXPECT_EQ(pol_community_list_find(ctx_, "K", kStd), nullptr);
    EXPECT_NE(pol_community_list_find(ctx_, "K", kExp), nullptr);
}

TEST_F(ConfigTest, PrefixLengthLeavesMakeTheCondition)
{
    struct {
        void (*leaves)(values &);
        e_pfx_op op;
        uint8_t min, max;
    } const cases[] = {
        {[](values &v) { v.u8(TAG_PREFLEN_MIN, 24).u8(TAG_PREFLEN_MAX, 28); }, PFX_OP_RANGE, 24, 28},
        {[](values &v) { v.u8(TAG_PREFLEN_MIN, 20).u8(TAG_PREFLEN_EXACT, 26).u8(TAG_PREFLEN_MAX, 30); }, PFX_OP_RANGE, 26, 26},
        {[](values &v) { v.u8(TAG_PREFLEN_MIN, 24).removed(TAG_PREFLEN_EXACT); }, PFX_OP_GE, 24, 0},
        {[](values &v) { v.u8(TAG_PREFLEN_MIN, 24).removed(TAG_PREFLEN_MIN).u8(TAG_PREFLEN_MAX, 28); }, PFX_OP_LE, 0, 28},
    };
    keys k;
    k.text("PL").ipv4_prefix("10.1.0.0", 16);
    const t_pfx_list_key v4 = {POL_AF_IPV4, "PL"}, v6 = {POL_AF_IPV6, "PL"};
    t_pfx_entry_param probe{};
    IPADDR_SET_V4(&probe.prefix.addr, htonl(0x0a010000));
    probe.prefix.prefixlen = 16;
    for (const auto &c : cases) {
        values v;
        c.leaves(v);
        ASSERT_EQ(run(pol_config_policy_prefix_list, MOP_MODIFIED, k, v), 0);
        const t_pfx_entry *e = pol_pfx_list_find_entry(ctx_, &v4, &probe, nullptr);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(std::tuple(e->pfx_op, +e->preflen_min, +e->preflen_max), std::tuple(c.op, +c.min, +c.max));
    }
    const t_pfx_entry *only = TAILQ_FIRST(&pol_pfx_list_find(ctx_, &v4)->pfx_entry_head);
    EXPECT_EQ(TAILQ_NEXT(only, pfx_entry), nullptr);  // updated in place, never added twice

    // Lengths that do not fit the prefix are refused and leave the entry as it was.
    LogCapture log;
    values below, beyond, crossed;
    below.u8(TAG_PREFLEN_MAX, 8);
    beyond.u8(TAG_PREFLEN_EXACT, 33);
    crossed.u8(TAG_PREFLEN_MIN, 28).u8(TAG_PREFLEN_MAX, 24);
    for (values *v : {&below, &beyond, &crossed}) {
        EXPECT_EQ(run(pol_config_policy_prefix_list, MOP_MODIFIED, k, *v), 1);
        EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &v4, &probe, nullptr)->pfx_op, PFX_OP_LE);
    }
    EXPECT_TRUE(logged(log, "Invalid prefix lengths 0-8 for 10.1.0.0/16 in list PL"));
    EXPECT_TRUE(logged(log, "Invalid prefix lengths 28-24 for 10.1.0.0/16 in list PL"));

    keys k6;
    k6.text("PL").ipv6_prefix("2001:db8::", 32);
    run(pol_config_policy_prefix_list, MOP_CREATED, k6, none_);
    EXPECT_NE(pol_pfx_list_find(ctx_, &v6), nullptr);
    call([](auto... a) { return pol_config_policy_prefix_list_name(a..., false); }, MOP_DELETED, none_, "PL");
    EXPECT_EQ(pol_pfx_list_find(ctx_, &v6), nullptr);
    EXPECT_NE(pol_pfx_list_find(ctx_, &v4), nullptr);
    run(pol_config_policy_prefix_list, MOP_DELETED, k, none_);
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &v4, &probe, nullptr), nullptr);
}

TEST_F(ConfigTest, PolicyDefaultActionNotifiesOnlyWhenItChanges)
{
    int calls = 0;
    poltest::register_user("u", "P", POL_TYPE_ROUTE, POL_DIR_OUT, poltest::count_cb, &calls);
    values accept, reject, odd;
    accept.enum_leaf(TAG_DEFAULT_ACTION, 0);
    reject.enum_leaf(TAG_DEFAULT_ACTION, 1);
    odd.enum_leaf(TAG_DEFAULT_ACTION, 7);
    t_pol_block *block = pol_block_find(ctx_, "P", POL_TYPE_ROUTE, nullptr);
    EXPECT_EQ(call(pol_config_control_policy_read, MOP_CREATED, accept, "P"), 0);
    EXPECT_EQ(block->default_action_entry.entry_action, POL_ACTION_ACCEPT);
    EXPECT_EQ(calls, 1);
    call(pol_config_control_policy_read, MOP_MODIFIED, accept, "P");
    EXPECT_EQ(calls, 1);
    call(pol_config_route_policy_read, MOP_MODIFIED, reject, "P");
    EXPECT_EQ(block->default_action_entry.entry_action, POL_ACTION_REJECT);
    EXPECT_EQ(calls, 2);
    call(pol_config_control_policy_read, MOP_MODIFIED, odd, "P");
    EXPECT_EQ(calls, 2);

    LogCapture log;
    EXPECT_EQ(call(pol_config_control_policy_read, MOP_MODIFIED, accept, "Q"), 1);
    EXPECT_EQ(call(pol_config_membership_policy_read, MOP_MODIFIED, accept, "Q"), 1);
    EXPECT_EQ(call(pol_config_route_policy_read, MOP_MODIFIED, accept, "Q"), 1);
    EXPECT_EQ(log.lines.size(), 1u);  // the route reader's message is written at every level
    EXPECT_TRUE(logged(log, "Failed to find route policy: Q"));

    EXPECT_EQ(call(pol_config_membership_policy_read, MOP_CREATED, accept, "P"), 0);
    EXPECT_EQ(call(pol_config_route_policy_read, MOP_DELETED, none_, "P"), 0);
    EXPECT_EQ(pol_block_find(ctx_, "P", POL_TYPE_ROUTE, nullptr), nullptr);
    EXPECT_NE(pol_block_find(ctx_, "P", POL_TYPE_MEMBERSHIP, nullptr), nullptr);
    EXPECT_EQ(calls, 3);
}

// What each set leaf stores when a sequence is created from a file is in the
// show-policies golden of control-leaves.xml; here, what changes leave.
TEST_F(ConfigTest, ControlSequenceChangesAndCommunities)
{
    call(pol_config_control_policy_read, MOP_CREATED, none_, "P");
    values v;
    v.enum_leaf(TAG_ACTION, 0).u32(TAG_PREFERENCE, 100).u32(TAG_OMP_TAG, 7).u32(TAG_VPN, 5);
    v.text(TAG_VPN_LIST, "V").text(TAG_TLOC_LIST, "TL").enum_leaf(TAG_ULTIMATE_TLOC_ACTION, 3);
    v.begin(TAG_TLOC).ipv4(TAG_TLOC_ADDRESS, "10.0.0.9").enum_leaf(TAG_COLOR, 4).enum_leaf(TAG_ENCAP, 0).end(TAG_TLOC);
    v.begin(TAG_SERVICE).enum_leaf(TAG_SERVICE_TYPE, 2).u32(TAG_VPN, 9);
    v.begin(TAG_TLOC).ipv4(TAG_TLOC_ADDRESS, "10.0.0.7").enum_leaf(TAG_COLOR, 5).enum_leaf(TAG_ENCAP, 3).end(TAG_TLOC);
    v.end(TAG_SERVICE);
    ASSERT_EQ(call(pol_config_control_policy_seq_read, MOP_CREATED, v, "P", 10u), 0);
    t_pol_entry *e = entry_of("P", 10);
    ASSERT_NE(e, nullptr);
    auto steered = [](const char *tloc, int ultimate) {
        return "|sequence 10: match-type unknown, action accept|flags: match [] set [TAG PREF TLOC VPN-ID VPN-LIST "
               "SERVICE TLOC_LIST]|set: tag 7, preference 100, tloc 10.0.0.9:" + std::string(tloc) +
               ", vpn 5, vpn-list V, service ids tloc 10.0.0.7:public-internet:ipsec vpn 9, tloc-list TL|ultimate " +
               std::to_string(ultimate) + ", tloc-list held";
    };
    const std::string kPlain =
        "|sequence 10: match-type unknown, action accept|flags: match [] set [TAG VPN-ID VPN-LIST]|set: tag 7, vpn 5, "
        "vpn-list V|ultimate 0";
    EXPECT_EQ(shown(e), steered("business-internet:ipsec", 4));

    // Applied in turn. A part of a TLOC changes that part; a removed
    // encapsulation reads as IPsec and leaves the TLOC in place. One text that
    // names no community refuses the change and clears the set.
    struct {
        void (*leaves)(values &);
        int32_t rc;
        std::string after;
    } const changes[] = {
        {[](values &c) {
             c.enum_leaf(TAG_ULTIMATE_TLOC_ACTION, 4).begin(TAG_TLOC).enum_leaf(TAG_COLOR, 6).end(TAG_TLOC);
         },
         0, steered("lte:ipsec", 3)},
        {[](values &c) { c.begin(TAG_TLOC).enum_leaf(TAG_ENCAP, 1).end(TAG_TLOC); }, 0, steered("lte:gre", 3)},
        {[](values &c) { c.begin(TAG_TLOC).removed(TAG_ENCAP).end(TAG_TLOC); }, 0, steered("lte:ipsec", 3)},
        {[](values &c) {
             c.removed(TAG_PREFERENCE).removed(TAG_TLOC_LIST).begin(TAG_TLOC).removed(TAG_TLOC_ADDRESS).end(TAG_TLOC);
             c.begin(TAG_SERVICE).removed(TAG_SERVICE_TYPE).end(TAG_SERVICE).removed(TAG_ULTIMATE_TLOC_ACTION);
         },
         0, kPlain},
        {[](values &c) {
             c.texts(TAG_COMMUNITY, {"65000:1", "no-export"}).boolean(TAG_COMMUNITY_ADDITIVE, true);
         },
         0,
         "|sequence 10: match-type unknown, action accept|flags: match [] set [TAG VPN-ID VPN-LIST COMMUNITY]|set: "
         "tag 7, vpn 5, vpn-list V, community 65000:1 no-export additive|ultimate 0, communities held"},
        {[](values &c) { c.texts(TAG_COMMUNITY, {"65000:2", "bogus"}); }, 1, kPlain},
        {[](values &c) { c.boolean(TAG_COMMUNITY_ADDITIVE, false); }, 0, kPlain},
    };
    for (const auto &c : changes) {
        values leaves;
        c.leaves(leaves);
        EXPECT_EQ(call(pol_config_control_policy_seq_read, MOP_MODIFIED, leaves, "P", 10u), c.rc);
        EXPECT_EQ(shown(e), c.after);
    }
    EXPECT_EQ(call(pol_config_control_policy_seq_read, MOP_MODIFIED, none_, "P", 11u), 1);
    EXPECT_EQ(call(pol_config_control_policy_seq_read, MOP_CREATED, none_, "Q", 1u), 1);

    LogCapture log;
    values good;
    good.texts(TAG_COMMUNITY, {"65000:1"});
    poltest::AllocFailure no_array(POL_MEM_SET_ENTRY_COMMUNITY);
    EXPECT_EQ(call(pol_config_control_policy_seq_read, MOP_MODIFIED, good, "P", 10u), 2);
    EXPECT_TRUE(logged(log, "Failed to allocate memory for set community list"));
    call(pol_config_control_policy_seq_read, MOP_DELETED, none_, "P", 10u);
    EXPECT_EQ(entry_of("P", 10), nullptr);
}

// What each condition stores when a match is created from a file is in the
// show-policies golden of control-leaves.xml; here, removals and deletion.
TEST_F(ConfigTest, MatchRemovalsAndMatchDeleteByKind)
{
    call(pol_config_control_policy_read, MOP_CREATED, none_, "P");
    for (unsigned seq : {10u, 20u, 30u}) {
        call(pol_config_control_policy_seq_read, MOP_CREATED, none_, "P", seq);
    }
    values v, gone;
    v.u32(TAG_SITE_ID, 10).enum_leaf(TAG_COLOR, 3).text(TAG_PFX_LIST_IPV6, "P6");
    v.begin(TAG_TLOC).enum_leaf(TAG_COLOR, 4).ipv4(TAG_TLOC_ADDRESS, "10.0.0.2").enum_leaf(TAG_ENCAP, 0).end(TAG_TLOC);
    ASSERT_EQ(match(MOP_CREATED, 10, 0, v), 0);
    t_pol_entry *e = entry_of("P", 10);
    EXPECT_EQ(shown(e), "|sequence 10: match-type route, action reject|flags: match [SITE TLOC PFX-LIST COLOR] set []|"
                        "match: site 10, tloc 10.0.0.2:business-internet:ipsec, prefix-list P6 (ipv6), color "
                        "metro-ethernet|ultimate 0");
    gone.removed(TAG_SITE_ID).begin(TAG_TLOC).removed(TAG_COLOR).end(TAG_TLOC);
    match(MOP_MODIFIED, 10, 0, gone);
    EXPECT_EQ(shown(e), "|sequence 10: match-type route, action reject|flags: match [PFX-LIST COLOR] set []|match: "
                        "prefix-list P6 (ipv6), color metro-ethernet|ultimate 0");

    // A route (0) or TLOC (1) match goes only from a sequence of that kind;
    // any other kind always goes.
    const t_pol_match_entry &m = e->match_entry;
    match(MOP_CREATED, 20, 1, none_);
    match(MOP_CREATED, 30, 1, none_);
    match(MOP_DELETED, 20, 0, none_);
    EXPECT_EQ(entry_of("P", 20)->match_entry.match_type, POL_MATCH_TLOC);
    match(MOP_DELETED, 20, 2, none_);
    EXPECT_EQ(entry_of("P", 20)->match_entry.match_type, POL_MATCH_INVALID);
    match(MOP_DELETED, 30, 1, none_);
    EXPECT_EQ(entry_of("P", 30)->match_entry.match_type, POL_MATCH_INVALID);
    match(MOP_DELETED, 10, 1, none_);
    EXPECT_EQ(m.match_type, POL_MATCH_VROUTE);
    match(MOP_DELETED, 10, 0, none_);
    EXPECT_EQ(m.match_type, POL_MATCH_INVALID);
    EXPECT_EQ(e->entry_match_flags, 0u);
}

// Route and membership sequences made from a file are in the show-policies
// golden of control-leaves.xml, and their changes and deletion are the
// route-membership commit series'; here, a sequence of a missing policy.
TEST_F(ConfigTest, SequencesOfAMissingPolicyAreRefused)
{
    LogCapture log;
    EXPECT_EQ(call(pol_config_route_policy_seq_read, MOP_CREATED, none_, "R", 1u), 1);
    EXPECT_TRUE(logged(log, "Route Policy: R is not found"));
    EXPECT_EQ(call(pol_config_membership_policy_seq_read, MOP_CREATED, none_, "M", 1u), 1);
}

// Leaves of one schema choice feed one condition. A change that switches
// from one to the other removes the old leaf and sets the new one: the leaf
// set wins in either order, and a removal alone removes the condition.
TEST_F(ConfigTest, SwitchingBetweenLeavesOfOneChoiceKeepsTheNewValue)
{
    call(pol_config_route_policy_read, MOP_CREATED, none_, "R");
    call(pol_config_route_policy_seq_read, MOP_CREATED, none_, "R", 1u);
    call(pol_config_control_policy_read, MOP_CREATED, none_, "P");
    call(pol_config_control_policy_seq_read, MOP_CREATED, none_, "P", 1u);
    match(MOP_CREATED, 1, 0, none_);
    t_pol_entry *route = entry_of("R", 1), *control = entry_of("P", 1);
    struct {
        void (*leaves)(values &);
        bool tag;           // the route sequence's tag, else the control match's prefix list
        uint32_t tag_value; // 0: no tag condition
        e_pol_af af;        // POL_AF_MAX: no prefix-list condition
    } const cases[] = {
        {[](values &v) { v.u32(TAG_OSPF_TAG, 9); }, true, 9, POL_AF_MAX},
        {[](values &v) { v.removed(TAG_OSPF_TAG).u32(TAG_OMP_TAG, 5); }, true, 5, POL_AF_MAX},
        {[](values &v) { v.u32(TAG_OSPF_TAG, 6).removed(TAG_OMP_TAG); }, true, 6, POL_AF_MAX},
        {[](values &v) { v.u32(TAG_OMP_TAG, 10).u32(TAG_OSPF_TAG, 20); }, true, 20, POL_AF_MAX},
        {[](values &v) { v.removed(TAG_OSPF_TAG); }, true, 0, POL_AF_MAX},
        {[](values &v) { v.text(TAG_PFX_LIST_IPV4, "L"); }, false, 0, POL_AF_IPV4},
        {[](values &v) { v.removed(TAG_PFX_LIST_IPV4).text(TAG_PFX_LIST_IPV6, "L"); }, false, 0, POL_AF_IPV6},
        {[](values &v) { v.text(TAG_PFX_LIST_IPV4, "L").removed(TAG_PFX_LIST_IPV6); }, false, 0, POL_AF_IPV4},
        {[](values &v) { v.removed(TAG_PFX_LIST_IPV4); }, false, 0, POL_AF_MAX},
    };
    for (const auto &c : cases) {
        values v;
        c.leaves(v);
        if (c.tag) {
            ASSERT_EQ(call(pol_config_route_policy_seq_read, MOP_MODIFIED, v, "R", 1u), 0);
            EXPECT_EQ((route->entry_match_flags & POL_MATCH_FLAG_TAG) != 0, c.tag_value != 0);
            EXPECT_EQ(route->match_entry.match_tag, c.tag_value);
            continue;
        }
        ASSERT_EQ(match(MOP_MODIFIED, 1, 0, v), 0);
        const t_pfx_list *list = control->match_entry.match_pfx_list_p;
        EXPECT_EQ((control->entry_match_flags & POL_MATCH_FLAG_PFX_LIST) != 0, c.af != POL_AF_MAX);
        EXPECT_EQ(list != nullptr ? list->pfx_af : POL_AF_MAX, c.af);
    }
    const t_pfx_list_key v4 = {POL_AF_IPV4, "L"}, v6 = {POL_AF_IPV6, "L"};
    EXPECT_TRUE(pol_pfx_list_find(ctx_, &v4) == nullptr && pol_pfx_list_find(ctx_, &v6) == nullptr);
}

// Every reader reports a store operation that found no memory with status
// 2, so that the host stops the commit and delivers the change again; the
// change delivered again leaves the model that it leaves without a failure.
TEST_F(ConfigTest, ExhaustedMemoryIsReportedAndRedeliveryCompletesTheChange)
{
    keys tloc_key, pfx_key;
    tloc_key.text("T").ipv4("10.0.0.1").enum_value(3).enum_value(1);
    pfx_key.text("PL").ipv4_prefix("10.1.0.0", 16);
    values pref, lengths, dflt, seq, conditions, community, route, members;
    pref.u32(TAG_PREFERENCE, 5);
    lengths.u8(TAG_PREFLEN_MAX, 24);
    dflt.enum_leaf(TAG_DEFAULT_ACTION, 0);
    seq.enum_leaf(TAG_ACTION, 0).u32(TAG_PREFERENCE, 1).text(TAG_VPN_LIST, "V").text(TAG_TLOC_LIST, "T");
    seq.texts(TAG_COMMUNITY, {"65000:1"});
    conditions.text(TAG_SITE_LIST, "S").u32(TAG_OMP_TAG, 3).text(TAG_VPN_LIST, "V").text(TAG_TLOC_LIST, "T");
    conditions.text(TAG_COLOR_LIST, "C").text(TAG_PFX_LIST_IPV4, "PL");
    community.text(0x11111111, "CL");
    route.enum_leaf(TAG_ACTION, 0).u32(TAG_OMP_TAG, 4).text(TAG_ROUTE_PFX_LIST, "PL");
    members.text(TAG_VPN_LIST, "V").u32(TAG_VPN, 3);

    auto control_seq = [&] {
        call(pol_config_control_policy_read, MOP_CREATED, dflt, "P");
        call(pol_config_control_policy_seq_read, MOP_CREATED, none_, "P", 10u);
        match(MOP_CREATED, 10, 0, none_);
    };
    auto route_pol = [&] { return call(pol_config_route_policy_read, MOP_CREATED, dflt, "R"); };
    auto member_pol = [&] { return call(pol_config_membership_policy_read, MOP_CREATED, dflt, "M"); };
    const std::function<void()> nothing = [] {}, control = control_seq;
    const struct {
        const char *reader;
        std::function<void()> before;
        std::function<int32_t()> deliver;
        std::vector<e_pol_mem> rows;
    } cases[] = {
        {"site-list entry", nothing, [&] { return call(pol_config_policy_site_list, MOP_CREATED, none_, "S", "1-9"); },
         {POL_MEM_LIST_SITE, POL_MEM_ENTRY_SITE}},
        {"vpn-list entry", nothing, [&] { return call(pol_config_policy_vpn_list, MOP_CREATED, none_, "V", "7"); },
         {POL_MEM_LIST_VPN, POL_MEM_ENTRY_VPN}},
        {"tloc-list entry", nothing, [&] { return run(pol_config_policy_tloc_list, MOP_CREATED, tloc_key, pref); },
         {POL_MEM_LIST_TLOC, POL_MEM_ENTRY_TLOC}},
        {"colour-list entry", nothing, [&] { return call(pol_config_policy_color_list, MOP_CREATED, none_, "C", 5); },
         {POL_MEM_LIST_COLOR, POL_MEM_ENTRY_COLOR}},
        {"prefix-list entry", nothing, [&] { return run(pol_config_policy_prefix_list, MOP_CREATED, pfx_key, lengths); },
         {POL_MEM_LIST_PREFIX, POL_MEM_ENTRY_PREFIX}},
        {"control policy", nothing, [&] { return call(pol_config_control_policy_read, MOP_CREATED, dflt, "P"); },
         {POL_MEM_BLOCK}},
        {"route policy", nothing, route_pol, {POL_MEM_BLOCK}},
        {"membership policy", nothing, member_pol, {POL_MEM_BLOCK}},
        {"control sequence", control, [&] { return call(pol_config_control_policy_seq_read, MOP_CREATED, seq, "P", 20u); },
         {POL_MEM_ENTRY, POL_MEM_LIST_VPN, POL_MEM_LIST_TLOC, POL_MEM_SET_COMMUNITY}},
        {"control match", control, [&] { return match(MOP_MODIFIED, 10, 0, conditions); },
         {POL_MEM_LIST_SITE, POL_MEM_LIST_VPN, POL_MEM_LIST_TLOC, POL_MEM_LIST_COLOR, POL_MEM_LIST_PREFIX}},
        {"community-list match", control,
         [&] {
             return call([](auto... a) { return pol_config_control_policy_match_community_list_read(a..., kStd); },
                         MOP_CREATED, community, "P", 10u, 0);
         },
         {POL_MEM_LIST_COMMUNITY}},
        {"route sequence", [&] { route_pol(); },
         [&] { return call(pol_config_route_policy_seq_read, MOP_CREATED, route, "R", 1u); },
         {POL_MEM_ENTRY, POL_MEM_LIST_PREFIX}},
        {"membership sequence", [&] { member_pol(); },
         [&] { return call(pol_config_membership_policy_seq_read, MOP_CREATED, members, "M", 1u); },
         {POL_MEM_ENTRY, POL_MEM_LIST_VPN}},
    };
    for (const auto &c : cases) {
        fresh_context();
        c.before();
        ASSERT_EQ(c.deliver(), 0) << c.reader;
        const std::string whole = model();
        for (e_pol_mem row : c.rows) {
            SCOPED_TRACE(std::string(c.reader) + ", no memory for " + g_pol_mem_info[row].desc);
            fresh_context();
            c.before();
            {
                poltest::AllocFailure fail(row);
                EXPECT_EQ(c.deliver(), 2);
            }
            EXPECT_EQ(c.deliver(), 0);
            EXPECT_EQ(model(), whole);
        }
    }
}

TEST_F(ConfigTest, UsersAreNotifiedOncePerCallbackThatChangedSomething)
{
    int calls = 0;
    poltest::register_user("u", "P", POL_TYPE_ROUTE, POL_DIR_OUT, poltest::count_cb, &calls);
    call(pol_config_control_policy_read, MOP_CREATED, none_, "P");
    values set, conditions, list;
    set.enum_leaf(TAG_ACTION, 0).u32(TAG_PREFERENCE, 1).text(TAG_TLOC_LIST, "TL");
    set.begin(TAG_TLOC).ipv4(TAG_TLOC_ADDRESS, "10.0.0.9").enum_leaf(TAG_COLOR, 4).end(TAG_TLOC);
    set.begin(TAG_SERVICE).enum_leaf(TAG_SERVICE_TYPE, 1).end(TAG_SERVICE);
    conditions.u32(TAG_SITE_ID, 3).text(TAG_SITE_LIST, "S");
    list.text(0x11111111, "CL");
    call(pol_config_control_policy_seq_read, MOP_CREATED, set, "P", 1u);
    EXPECT_EQ(calls, 1);
    call(pol_config_control_policy_seq_read, MOP_MODIFIED, set, "P", 1u);
    EXPECT_EQ(calls, 1);
    match(MOP_CREATED, 1, 0, conditions);
    match(MOP_MODIFIED, 1, 0, conditions);
    EXPECT_EQ(calls, 2);

    call([](auto... a) { return pol_config_control_policy_match_community_list_read(a..., kExp); }, MOP_CREATED,
         list, "P", 1u, 0);
    EXPECT_NE(entry_of("P", 1)->entry_match_flags & POL_MATCH_FLAG_EXP_COMMUNITY_LIST, 0u);
    call(pol_config_control_policy_seq_read, MOP_MODIFIED, set, "P", 1u);
    EXPECT_EQ(calls, 2);  // carried by the next change that notifies
    call(pol_config_control_policy_seq_read, MOP_DELETED, none_, "P", 1u);
    EXPECT_EQ(calls, 3);
}

// Keys or values of the wrong shape stop the process, and so does a filter
// ordinal beyond the mask's 32 bits (ordinal 0 gives no bit).
TEST_F(ConfigDeathTest, KeysOrValuesOfTheWrongShapeStop)
{
    EXPECT_EQ(std::tuple(pol_yang_enum_to_filter_mask(0), pol_yang_enum_to_filter_mask(1),
                         pol_yang_enum_to_filter_mask(5), pol_yang_enum_to_filter_mask(31)),
              std::tuple(0u, 2u, 32u, 2147483648u));
    EXPECT_DEATH({ dup2(2, 1); pol_yang_enum_to_filter_mask(32); }, "failed assertion `enum_val < 32'");
    keys text_addr;
    text_addr.text("T").text("10.0.0.1").enum_value(1).enum_value(2);
    values wrong;
    wrong.u32(TAG_DEFAULT_ACTION, 1);
    EXPECT_DEATH({ dup2(2, 1); call(pol_config_policy_site_list_name, MOP_CREATED, none_, 7u); },
                 "failed assertion `\\(key_p\\)->type == C_BUF'");
    EXPECT_DEATH({ dup2(2, 1); run(pol_config_policy_tloc_list, MOP_CREATED, text_addr, none_); },
                 "failed assertion `\\(\\(key_p\\)\\)->type == C_IPV6'");
    EXPECT_DEATH({ dup2(2, 1); call(pol_config_control_policy_seq_read, MOP_CREATED, none_, "P"); },
                 "failed assertion `num_keys == expected'");
    EXPECT_DEATH({ dup2(2, 1); call(pol_config_control_policy_read, MOP_CREATED, wrong, "P"); },
                 "failed assertion `\\(&cur_val_p->v\\)->type == C_ENUM_VALUE'");
}

}  // namespace
