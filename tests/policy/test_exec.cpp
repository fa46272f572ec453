// Route execution, worked by hand: which sequence decides, which conditions
// hold against which route attributes and record their bit, and which set
// actions apply to which kind of route and direction. Prefix lists are
// worked in test_exec_differential.cpp, beside the randomized runs.
#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;

t_ipprefix prefix(const std::string &text)
{
    t_ipprefix p{};
    const bool v6 = text.find(':') != std::string::npos;
    p.addr.addr_type = v6 ? IP_ADDR_V6 : IP_ADDR_V4;
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, text.substr(0, text.find('/')).c_str(), p.addr.u.addr6_b), 1);
    p.prefixlen = static_cast<uint8_t>(std::stoi(text.substr(text.find('/') + 1)));
    return p;
}

t_tloc_id tloc(const char *addr, uint8_t color, uint8_t encap)
{
    return t_tloc_id{prefix(std::string(addr) + "/32").addr, color, encap};
}

// What the label callback was asked; each call appends g_label_adds
// entries for the TLOC it was given.
struct LabelCall {
    uint32_t addr;
    uint8_t color, encap;
    uint64_t vpn;
    uint16_t service;
    uint32_t preference;
    bool operator==(const LabelCall &) const = default;
};
std::vector<LabelCall> g_label_calls;
unsigned g_label_adds = 1;

void label_cb(uint16_t, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn, uint16_t service,
              bool, uint32_t *, t_tloc_id *, t_pol_te_info *te, uint32_t preference)
{
    g_label_calls.push_back({addr, color, encap, vpn, service, preference});
    for (unsigned i = 0; i < g_label_adds; i++) {
        te->entries[te->num_entries] = {1000, preference, {{}, color, encap}};
        IPADDR_SET_V4(&te->entries[te->num_entries++].tloc.addr, addr);
    }
}

LabelCall call(const t_tloc_id &t, uint64_t vpn, uint16_t service, uint32_t preference)
{
    return {t.addr.u.addr4.s_addr, t.color, t.encap, vpn, service, preference};
}

// One route with its execution record and TE table.
struct Route {
    t_zen_attr attr{};
    t_pol_exec_params p{};
    t_pol_te_info te{};

    explicit Route(uint8_t safi, e_zen_device device = ZEN_DEVICE_RIMBA)
    {
        pol_pre_execute(&p, device);
        p.safi = safi;
    }
    e_pol_action run(t_pol_user *user)
    {
        p.attr_in_p = &attr;
        p.te_info_p = &te;
        return pol_execute(user, &p);
    }
    // The verdict and the set actions applied.
    std::pair<e_pol_action, uint64_t> sets(t_pol_user *user)
    {
        e_pol_action verdict = run(user);
        return {verdict, p.entry_set_flags};
    }
};
using sets = std::pair<e_pol_action, uint64_t>;

Route vroute(uint64_t vpn, const char *pfx = "10.1.0.0/16", e_zen_device device = ZEN_DEVICE_RIMBA)
{
    Route r(POL_SAFI_VROUTE, device);
    r.p.u.vroute_info.vpn_id = vpn;
    r.p.u.vroute_info.prefix = prefix(pfx);
    return r;
}

Route tloc_route(const t_tloc_id &t)
{
    Route r(POL_SAFI_TLOC);
    r.p.u.tloc_info.tloc = t;
    return r;
}

// Route policy P with an outbound and an inbound user, both with the label
// callback.
class Exec : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        g_label_calls.clear();
        g_label_adds = 1;
        out_ = register_user("out", "P", POL_TYPE_ROUTE, POL_DIR_OUT);
        in_ = register_user("in", "P", POL_TYPE_ROUTE, POL_DIR_IN);
        out_->pol_label_cb = in_->pol_label_cb = label_cb;
        block_ = out_->pol_block_p;
    }

    // POL_MATCH_INVALID leaves the match type unset.
    t_pol_entry *seq(uint32_t num, e_pol_match_type type, e_pol_action action = POL_ACTION_ACCEPT)
    {
        t_pol_entry *e = pol_entry_find_or_create(ctx_, block_, num, &changed_);
        if (type != POL_MATCH_INVALID) {
            pol_entry_match_add(ctx_, block_, e, type, &changed_);
        }
        pol_entry_action_add(ctx_, e, action, &changed_);
        return e;
    }

    t_pol_user *out_ = nullptr;
    t_pol_user *in_ = nullptr;
    t_pol_block *block_ = nullptr;
    uint8_t changed_ = 0;
};

TEST_F(Exec, FirstMatchingSequenceOfTheRouteKindDecides)
{
    t_pol_entry *s10 = seq(10, POL_MATCH_VROUTE);
    pol_entry_set_tag_add(ctx_, s10, 10, &changed_);
    pol_entry_set_preference_add(ctx_, s10, 100, &changed_);
    t_pol_entry *s5 = seq(5, POL_MATCH_VROUTE);
    pol_entry_set_tag_add(ctx_, s5, 5, &changed_);
    pol_entry_set_preference_add(ctx_, seq(1, POL_MATCH_INVALID), 1, &changed_);  // never decides
    pol_entry_set_preference_add(ctx_, seq(7, POL_MATCH_TLOC), 7, &changed_);
    seq(8, POL_MATCH_SERVICE, POL_ACTION_REJECT);

    Route r = vroute(1);
    EXPECT_EQ(r.run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(r.p.attr_out.tag, 5u);
    EXPECT_EQ(r.p.entry_set_flags, POL_SET_FLAG_TAG);
    EXPECT_EQ(r.attr.attr_flags, 0u);  // the input is never changed
    Route t = tloc_route(tloc("1.1.1.1", 3, 2));
    EXPECT_EQ(t.sets(out_), sets(POL_ACTION_ACCEPT, POL_SET_FLAG_PREFERENCE));
    EXPECT_EQ(t.p.attr_out.preference, 7u);
    EXPECT_EQ(Route(POL_SAFI_SERVICE).run(out_), POL_ACTION_REJECT);
    pol_entry_action_add(ctx_, s5, POL_ACTION_REJECT, &changed_);
    EXPECT_EQ(vroute(1).run(out_), POL_ACTION_REJECT);

    // A failing sequence leaves the decision to the next; what it recorded
    // before failing is cleared.
    pol_entry_match_tag_add(ctx_, s5, 77, &changed_);
    pol_entry_match_site_add(ctx_, s5, 4, &changed_);
    Route next = vroute(1);
    next.attr.attr_flags = ZEN_ATTR_FLAG_TAG;
    next.attr.tag = 77;
    EXPECT_EQ(next.run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(next.p.attr_out.tag, 10u);
    EXPECT_EQ(next.p.attr_out.preference, 100u);
    EXPECT_EQ(next.p.entry_match_flags, 0u);

    // Nothing matches: the default action. No user, no route.
    pol_entry_find_and_delete(ctx_, block_, 7, &changed_);
    EXPECT_EQ(Route(POL_SAFI_TLOC).run(out_), POL_ACTION_REJECT);
    block_->default_action_entry.entry_action = POL_ACTION_ACCEPT;
    EXPECT_EQ(Route(POL_SAFI_TLOC).run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(pol_execute(nullptr, &r.p), POL_ACTION_REJECT);
}

TEST_F(Exec, ConditionsNeedTheirPresenceBitsAndSingleValuesRecordTheirs)
{
    const t_tloc_id t = tloc("1.1.1.1", 3, 2);
    t_pol_entry *e = seq(10, POL_MATCH_VROUTE);
    // A route whose tag and TLOC fields match, with the given presence bits.
    auto accepted = [&](uint64_t bits) {
        Route r = vroute(1);
        r.attr.tag = 77;
        r.attr.tloc = t;
        r.attr.attr_flags = bits;
        return r.run(out_) == POL_ACTION_ACCEPT;
    };
    pol_entry_match_tag_add(ctx_, e, 77, &changed_);
    EXPECT_FALSE(accepted(ZEN_ATTR_FLAG_TLOC));
    EXPECT_TRUE(accepted(ZEN_ATTR_FLAG_TAG));
    pol_entry_match_tag_delete(ctx_, e, &changed_);
    pol_entry_match_tloc_add(ctx_, e, &t, &changed_);
    EXPECT_FALSE(accepted(ZEN_ATTR_FLAG_TAG));
    EXPECT_TRUE(accepted(ZEN_ATTR_FLAG_TLOC));
    pol_entry_match_tloc_delete(ctx_, e, &changed_);
    pol_entry_match_color_add(ctx_, e, 3, &changed_);
    EXPECT_FALSE(accepted(ZEN_ATTR_FLAG_TAG));
    EXPECT_TRUE(accepted(ZEN_ATTR_FLAG_TLOC));

    // A TLOC sequence reads the TLOC route's own locator, no bit needed.
    t_pol_entry *te = seq(20, POL_MATCH_TLOC);
    pol_entry_match_tloc_add(ctx_, te, &t, &changed_);
    pol_entry_match_color_add(ctx_, te, 3, &changed_);
    Route own = tloc_route(t);
    EXPECT_EQ(own.run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(own.p.entry_match_flags, POL_MATCH_FLAG_TLOC | POL_MATCH_FLAG_COLOR);
    EXPECT_EQ(tloc_route(tloc("1.1.1.1", 4, 2)).run(out_), POL_ACTION_REJECT);

    // Only single-value conditions record their bit; list conditions do not.
    const t_pfx_list_key key = {POL_AF_IPV4, "L"};
    const t_pfx_entry_param param{PFX_OP_LE, prefix("10.0.0.0/8"), 0, 32};
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &key, &param), ERR_OK);
    ASSERT_EQ(pol_site_list_add_entry(ctx_, "S", 5, 9), ERR_OK);
    ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "V", 1, 10), ERR_OK);
    ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 3), ERR_OK);
    pol_entry_match_tag_add(ctx_, e, 77, &changed_);
    pol_entry_match_site_add(ctx_, e, 6, &changed_);
    pol_entry_match_vpn_id_add(ctx_, e, 7, &changed_);
    pol_entry_match_pfx_list_add(ctx_, e, &key, &changed_);
    pol_entry_match_site_list_add(ctx_, e, "S", &changed_);
    pol_entry_match_vpn_list_add(ctx_, e, "V", &changed_);
    pol_entry_match_color_list_add(ctx_, e, "C", &changed_);
    Route r = vroute(7);
    r.attr.attr_flags = ZEN_ATTR_FLAG_TAG | ZEN_ATTR_FLAG_SITE_ID | ZEN_ATTR_FLAG_TLOC;
    r.attr.tag = 77;
    r.attr.site_id = 6;
    r.attr.tloc = t;
    EXPECT_EQ(r.run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(r.p.entry_match_flags,
              POL_MATCH_FLAG_TAG | POL_MATCH_FLAG_SITE | POL_MATCH_FLAG_VPN_ID | POL_MATCH_FLAG_COLOR);
    pol_entry_match_vpn_id_delete(ctx_, e, &changed_);
    r.p.u.vroute_info.vpn_id = 11;  // outside the VPN list
    EXPECT_EQ(r.run(out_), POL_ACTION_REJECT);
}

// A list condition whose index cannot be allocated answers from the list's
// entries, and the next route builds the index again: one object of the
// list's own category while it lives. After a change the stale index goes
// before the new one is allocated, so a failure then is answered from the
// entries too, never from the old index.
TEST_F(Exec, ListIndexesFallBackToTheEntriesWhenTheirAllocationFails)
{
    const t_pfx_list_key key = {POL_AF_IPV4, "L"};
    const t_pfx_list_key key2 = {POL_AF_IPV4, "L2"};
    auto add_pfx_to = [&](const t_pfx_list_key &k, const char *p, e_pfx_op op, uint8_t min, uint8_t max) {
        const t_pfx_entry_param param{op, prefix(p), min, max};
        ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &param), ERR_OK);
    };
    auto add_pfx = [&](const char *p, e_pfx_op op, uint8_t min, uint8_t max) { add_pfx_to(key, p, op, min, max); };
    struct Case {
        const char *what;
        e_pol_mem row;
        std::function<void(t_pol_entry *)> attach;  // the list's entries and the condition
        std::function<void()> grow;                 // one more entry
        std::function<const void *()> index;
        std::function<Route(int)> probe;            // route i of four
        std::vector<bool> before, after;            // accepted, before and after grow
    };
    const Case cases[] = {
        {"site list", POL_MEM_LIST_SITE,
         [&](t_pol_entry *e) {
             ASSERT_EQ(pol_site_list_add_entry(ctx_, "S", 5, 9), ERR_OK);
             ASSERT_EQ(pol_site_list_add_entry(ctx_, "S", 20, 20), ERR_OK);
             pol_entry_match_site_list_add(ctx_, e, "S", &changed_);
         },
         [&] { ASSERT_EQ(pol_site_list_add_entry(ctx_, "S", 10, 19), ERR_OK); },
         [&] { return pol_site_list_find(ctx_, "S")->exec_index; },
         [](int i) {
             Route r = vroute(1);
             r.attr.site_id = std::vector<uint32_t>{4, 7, 15, 20}[i];
             return r;
         },
         {false, true, false, true}, {false, true, true, true}},
        {"VPN list", POL_MEM_LIST_VPN,
         [&](t_pol_entry *e) {
             ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "V", 1, 10), ERR_OK);
             ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "V", 30, 30), ERR_OK);
             pol_entry_match_vpn_list_add(ctx_, e, "V", &changed_);
         },
         [&] { ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "V", 11, 29), ERR_OK); },
         [&] { return pol_vpn_list_find(ctx_, "V")->exec_index; },
         [](int i) { return vroute(std::vector<uint64_t>{0, 5, 20, 30}[i]); },
         {false, true, false, true}, {false, true, true, true}},
        {"colour list", POL_MEM_LIST_COLOR,
         [&](t_pol_entry *e) {
             ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 3), ERR_OK);
             ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 5), ERR_OK);
             pol_entry_match_color_list_add(ctx_, e, "C", &changed_);
         },
         [&] { ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 7), ERR_OK); },
         [&] { return pol_color_list_find(ctx_, "C")->exec_index; },
         [](int i) {
             Route r = vroute(1);
             r.attr.tloc.color = std::vector<uint8_t>{1, 3, 7, 5}[i];
             return r;
         },
         {false, true, false, true}, {false, true, true, true}},
        {"prefix list", POL_MEM_LIST_PREFIX,
         [&](t_pol_entry *e) {
             add_pfx("10.0.0.0/8", PFX_OP_LE, 0, 16);
             add_pfx("192.168.0.0/16", PFX_OP_EQ, 0, 0);
             pol_entry_match_pfx_list_add(ctx_, e, &key, &changed_);
         },
         [&] { add_pfx("172.16.0.0/12", PFX_OP_GE, 24, 0); },
         [&] { return pol_pfx_list_find(ctx_, &key)->exec_index; },
         [](int i) { return vroute(1, std::vector<const char *>{"10.1.0.0/16", "10.1.1.0/24", "172.16.1.0/24",
                                                                 "192.168.0.0/16"}[i]); },
         {true, false, false, true}, {true, false, true, true}},
        // The policy's sequence index, over the prefix conditions of enough
        // sequences to be indexed (the first decides).
        {"sequence index", POL_MEM_BLOCK,
         [&](t_pol_entry *e) {
             add_pfx_to(key2, "10.0.0.0/8", PFX_OP_LE, 0, 16);
             add_pfx_to(key2, "192.168.0.0/16", PFX_OP_EQ, 0, 0);
             pol_entry_match_pfx_list_add(ctx_, e, &key2, &changed_);
             for (uint32_t n = 11; n < 20; n++) {
                 pol_entry_match_pfx_list_add(ctx_, seq(n, POL_MATCH_VROUTE), &key2, &changed_);
             }
         },
         [&] { add_pfx_to(key2, "172.16.0.0/12", PFX_OP_GE, 24, 0); },
         [&] { return block_->exec_index; },
         [](int i) { return vroute(1, std::vector<const char *>{"10.1.0.0/16", "10.1.1.0/24", "172.16.1.0/24",
                                                                 "192.168.0.0/16"}[i]); },
         {true, false, false, true}, {true, false, true, true}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        c.attach(seq(10, POL_MATCH_VROUTE));
        const int64_t lists = live_count(c.row);
        auto check = [&](const std::vector<bool> &want) {
            for (int i = 0; i < 4; i++) {
                AllocFailure fail(c.row);  // every build fails
                EXPECT_EQ(c.probe(i).run(out_) == POL_ACTION_ACCEPT, want[i]) << "walked, route " << i;
                EXPECT_EQ(c.index(), nullptr);
            }
            EXPECT_EQ(live_count(c.row), lists);
            for (int i = 0; i < 4; i++) {
                EXPECT_EQ(c.probe(i).run(out_) == POL_ACTION_ACCEPT, want[i]) << "indexed, route " << i;
            }
            EXPECT_NE(c.index(), nullptr);
            EXPECT_EQ(live_count(c.row), lists + 1);
        };
        check(c.before);
        c.grow();
        check(c.after);
        pol_entry_find_and_delete(ctx_, block_, 10, &changed_);
    }
}

// A condition on a field the route kind does not carry fails, whatever
// the route union holds in its place: a TLOC route has no VPN id, TLOC and
// service routes have no prefix.
TEST_F(Exec, ConditionsOnFieldsTheRouteKindLacksFail)
{
    const t_pfx_list_key any_v6 = {POL_AF_IPV6, "any6"};
    const t_pfx_list_key any_v4 = {POL_AF_IPV4, "any4"};
    const t_pfx_entry_param all_v6{PFX_OP_LE, prefix("::/0"), 0, 128};
    const t_pfx_entry_param all_v4{PFX_OP_LE, prefix("0.0.0.0/0"), 0, 32};
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &any_v6, &all_v6), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &any_v4, &all_v4), ERR_OK);
    ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "every-vpn", 0, UINT32_MAX), ERR_OK);
    const t_tloc_id t = tloc("0.0.0.0", 3, 2);
    Route tloc_r = tloc_route(t);
    uint64_t tloc_as_vpn = 0;  // what a VPN read of the TLOC route would see
    std::memcpy(&tloc_as_vpn, &tloc_r.p.u, sizeof(tloc_as_vpn));
    Route service = Route(POL_SAFI_SERVICE);
    service.p.u.service_info.vpn_id = 5;
    const struct {
        const char *what;
        e_pol_match_type type;
        std::function<void(t_pol_entry *)> condition;
        Route route;
        bool holds;
    } cases[] = {
        {"VPN id on a TLOC route", POL_MATCH_TLOC,
         [&](t_pol_entry *e) { pol_entry_match_vpn_id_add(ctx_, e, tloc_as_vpn, &changed_); }, tloc_r, false},
        {"VPN list on a TLOC route", POL_MATCH_TLOC,
         [&](t_pol_entry *e) { pol_entry_match_vpn_list_add(ctx_, e, "every-vpn", &changed_); }, tloc_r, false},
        {"IPv6 prefix list on a TLOC route", POL_MATCH_TLOC,
         [&](t_pol_entry *e) { pol_entry_match_pfx_list_add(ctx_, e, &any_v6, &changed_); }, tloc_r, false},
        {"IPv4 prefix list on a TLOC route", POL_MATCH_TLOC,
         [&](t_pol_entry *e) { pol_entry_match_pfx_list_add(ctx_, e, &any_v4, &changed_); }, tloc_r, false},
        {"IPv6 prefix list on a service route", POL_MATCH_SERVICE,
         [&](t_pol_entry *e) { pol_entry_match_pfx_list_add(ctx_, e, &any_v6, &changed_); }, service, false},
        {"VPN id on a service route", POL_MATCH_SERVICE,
         [&](t_pol_entry *e) { pol_entry_match_vpn_id_add(ctx_, e, 5, &changed_); }, service, true},
        {"VPN list on a service route", POL_MATCH_SERVICE,
         [&](t_pol_entry *e) { pol_entry_match_vpn_list_add(ctx_, e, "every-vpn", &changed_); }, service, true},
        {"IPv6 prefix list on a virtual route", POL_MATCH_VROUTE,
         [&](t_pol_entry *e) { pol_entry_match_pfx_list_add(ctx_, e, &any_v6, &changed_); },
         vroute(1, "2001:db8::/32"), true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        c.condition(seq(10, c.type));
        Route r = c.route;
        EXPECT_EQ(r.run(out_) == POL_ACTION_ACCEPT, c.holds);
        t_pol_exec_params direct = r.p;
        EXPECT_EQ(pol_exec_match(pol_entry_find(ctx_, block_, 10, nullptr), &direct), c.holds);
        pol_entry_find_and_delete(ctx_, block_, 10, &changed_);
    }
}

TEST_F(Exec, OriginProtocolFourPairsSubtypes)
{
    const struct {
        uint8_t seq_type, seq_sub, proto, sub;
        bool holds;
    } cases[] = {
        {4, 3, 4, 3, true},  {4, 3, 4, 5, true}, {4, 3, 4, 4, false}, {1, 3, 4, 5, true},  {4, 4, 4, 4, true},
        {9, 4, 4, 6, true},  {4, 4, 4, 5, false}, {4, 2, 4, 2, true}, {4, 2, 4, 6, false}, {3, 1, 3, 1, true},
        {3, 1, 3, 2, false}, {4, 3, 3, 3, false}, {3, 3, 3, 5, false},
    };
    for (const auto &c : cases) {
        t_pol_match_entry m{};
        m.match_origin_type = c.seq_type;
        m.match_origin_subtype = c.seq_sub;
        Route r = vroute(1);
        r.p.attr_in_p = &r.attr;
        r.attr.attr_flags = ZEN_ATTR_FLAG_ORIGIN;
        r.attr.origin = {0, c.proto, c.sub};
        EXPECT_EQ(pol_exec_match_origin(&m, &r.p), c.holds)
            << int(c.seq_type) << "/" << int(c.seq_sub) << " vs " << int(c.proto) << "/" << int(c.sub);
        r.attr.attr_flags = 0;
        EXPECT_FALSE(pol_exec_match_origin(&m, &r.p));
    }
}

TEST_F(Exec, SetActionsByRouteKindAndDirection)
{
    const t_tloc_id t = tloc("1.1.1.1", 3, 2);
    for (t_pol_entry *e : {seq(10, POL_MATCH_VROUTE), seq(20, POL_MATCH_TLOC), seq(30, POL_MATCH_SERVICE)}) {
        pol_entry_set_tag_add(ctx_, e, 9, &changed_);
        pol_entry_set_preference_add(ctx_, e, 200, &changed_);
        pol_entry_set_tloc_add(ctx_, e, &t, &changed_);
        pol_entry_set_vpn_id_add(ctx_, e, 33, &changed_);
    }
    const uint64_t tag_pref = POL_SET_FLAG_TAG | POL_SET_FLAG_PREFERENCE;

    // Inbound: the VPN export applies, the TLOC does not.
    Route in = vroute(7);
    EXPECT_EQ(in.sets(in_), sets(POL_ACTION_ACCEPT, tag_pref | POL_SET_FLAG_VPN_ID));
    ASSERT_EQ(in.p.vpn_list.num_vpn_entries, 1u);
    EXPECT_EQ(in.p.vpn_list.vpn_list_p[0].max_vpn_id, 33u);
    EXPECT_TRUE(g_label_calls.empty());
    pol_free(in.p.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);

    // Outbound: the reverse.
    Route out = vroute(7);
    EXPECT_EQ(out.sets(out_), sets(POL_ACTION_ACCEPT, tag_pref | POL_SET_FLAG_TLOC));
    EXPECT_EQ(out.p.vpn_list.vpn_list_p, nullptr);
    EXPECT_EQ(g_label_calls, std::vector<LabelCall>{call(t, 7, 0, 0)});

    // A TLOC route takes tag and preference only; a service route nothing.
    g_label_calls.clear();
    Route tr = tloc_route(t);
    tr.te.num_entries = 5;
    EXPECT_EQ(tr.run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(tr.p.attr_out.preference, 200u);
    EXPECT_EQ(tr.p.entry_set_flags, tag_pref);
    EXPECT_EQ(tr.te.num_entries, 5u);
    EXPECT_TRUE(g_label_calls.empty());
    Route sr(POL_SAFI_SERVICE);
    EXPECT_EQ(sr.sets(in_), sets(POL_ACTION_ACCEPT, 0u));
    EXPECT_EQ(sr.p.vpn_list.vpn_list_p, nullptr);
}

TEST_F(Exec, TlocListWinsOverServiceAndAdditiveOverReplace)
{
    const t_tloc_id a = tloc("1.1.1.1", 3, 2), b = tloc("2.2.2.2", 4, 1), s = tloc("3.3.3.3", 5, 2);
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TX", &a, 5), ERR_OK);
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TX", &b, 7), ERR_OK);
    t_pol_entry *e = seq(10, POL_MATCH_VROUTE);
    pol_entry_set_tloc_list_add(ctx_, e, "TX", &changed_);
    pol_entry_set_service_add(ctx_, e, 4, &s, 99, &changed_);
    auto *comms = static_cast<uint32_t *>(pol_calloc(1, sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
    ASSERT_EQ(pol_config_set_bgp_community_upd(e, comms, 1), 0);
    e->entry_set_flags |= POL_SET_FLAG_COMMUNITY_ADDITIVE;

    Route r = vroute(7);
    EXPECT_EQ(r.sets(out_), sets(POL_ACTION_ACCEPT, POL_SET_FLAG_TLOC_LIST | POL_SET_FLAG_COMMUNITY_ADDITIVE));
    EXPECT_EQ(r.p.set_community_p, e->set_entry.set_community);
    EXPECT_EQ(g_label_calls, (std::vector<LabelCall>{call(a, 99, 4, 5), call(b, 99, 4, 7)}));
    EXPECT_EQ(r.te.num_entries, 2u);

    g_label_calls.clear();
    pol_entry_set_tloc_list_delete(ctx_, e, &changed_);
    e->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY_ADDITIVE;
    Route r2 = vroute(7);
    EXPECT_EQ(r2.sets(out_), sets(POL_ACTION_ACCEPT, POL_SET_FLAG_SERVICE | POL_SET_FLAG_COMMUNITY));
    EXPECT_EQ(r2.p.set_community_p, e->set_entry.set_community);
    EXPECT_EQ(g_label_calls, std::vector<LabelCall>{call(s, 99, 4, 0)});

    // Communities are for virtual routes only.
    seq(20, POL_MATCH_TLOC)->entry_set_flags |= POL_SET_FLAG_COMMUNITY_ADDITIVE;
    Route tr = tloc_route(a);
    EXPECT_EQ(tr.sets(out_), sets(POL_ACTION_ACCEPT, 0u));
}

TEST_F(Exec, UnresolvedTlocRejectsUnlessUltimateFallback)
{
    const t_tloc_id set = tloc("1.1.1.1", 3, 2), own = tloc("9.9.9.9", 1, 1);
    t_pol_entry *e = seq(10, POL_MATCH_VROUTE);
    pol_entry_set_tag_add(ctx_, e, 9, &changed_);
    pol_entry_set_tloc_add(ctx_, e, &set, &changed_);
    g_label_adds = 0;
    for (uint8_t ultimate : {0, 1}) {
        e->set_entry.set_ultimate_action = ultimate;
        Route r = vroute(7);
        EXPECT_EQ(r.run(out_), POL_ACTION_REJECT) << int(ultimate);
        EXPECT_EQ(r.p.entry_set_flags, POL_SET_FLAG_TAG | POL_SET_FLAG_TLOC);
        EXPECT_EQ(r.p.attr_out.tag, 9u);  // earlier sets stay
    }

    e->set_entry.set_ultimate_action = 2;
    Route r = vroute(7);
    r.attr.attr_flags = ZEN_ATTR_FLAG_TLOC | ZEN_ATTR_FLAG_PREFERENCE;
    r.attr.tloc = own;
    r.attr.preference = 50;
    r.p.in_label = 4242;
    r.te.num_entries = 3;  // left over from another route
    EXPECT_EQ(r.run(out_), POL_ACTION_ACCEPT);
    ASSERT_EQ(r.te.num_entries, 1u);
    EXPECT_EQ(r.te.ultimate_tloc_action, 2);
    EXPECT_TRUE(r.te.entries[0].label == 4242 && r.te.entries[0].preference == 50);
    EXPECT_EQ(TLOC_CMP(&r.te.entries[0].tloc, &own), 0);

    // Resolved by the callback: no fallback needed.
    e->set_entry.set_ultimate_action = 0;
    g_label_adds = 1;
    Route resolved = vroute(7);
    EXPECT_EQ(resolved.run(out_), POL_ACTION_ACCEPT);
    ASSERT_EQ(resolved.te.num_entries, 1u);
    EXPECT_EQ(TLOC_CMP(&resolved.te.entries[0].tloc, &set), 0);
}

TEST_F(Exec, VpnExportBufferHoldsAtMost128AndControllerReleasesIt)
{
    for (uint32_t i = 0; i < 200; i++) {
        ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "W", i * 10, i * 10 + 5), ERR_OK);
    }
    t_pol_entry *e = seq(10, POL_MATCH_VROUTE);
    pol_entry_set_vpn_id_add(ctx_, e, 7, &changed_);
    pol_entry_set_vpn_list_add(ctx_, e, "W", &changed_);

    const int64_t buffers = live_count(POL_MEM_LIST_VPN_1);
    Route edge = vroute(1);
    EXPECT_EQ(edge.sets(in_), sets(POL_ACTION_ACCEPT, POL_SET_FLAG_VPN_ID));
    ASSERT_EQ(edge.p.vpn_list.num_vpn_entries, uint32_t{POL_MAX_VPN});
    const t_pol_exec_vpn_entry *got = edge.p.vpn_list.vpn_list_p;
    EXPECT_EQ(got[0].min_vpn_id, 7u);  // the VPN id comes first
    EXPECT_EQ(got[1].max_vpn_id, 5u);
    EXPECT_EQ(got[127].min_vpn_id, 1260u);
    pol_post_execute(&edge.p);  // an edge router keeps the buffer
    EXPECT_EQ(live_count(POL_MEM_LIST_VPN_1), buffers + 1);
    pol_free(edge.p.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);

    pol_entry_set_vpn_id_delete(ctx_, e, &changed_);
    Route controller = vroute(1, "10.1.0.0/16", ZEN_DEVICE_QARMON);
    EXPECT_EQ(controller.run(in_), POL_ACTION_ACCEPT);
    ASSERT_EQ(controller.p.vpn_list.num_vpn_entries, uint32_t{POL_MAX_VPN});
    EXPECT_EQ(controller.p.vpn_list.vpn_list_p[127].min_vpn_id, 1270u);
    EXPECT_EQ(live_count(POL_MEM_LIST_VPN_1), buffers + 1);
    pol_post_execute(&controller.p);
    EXPECT_EQ(live_count(POL_MEM_LIST_VPN_1), buffers);

    // Without a buffer the export is dropped, flag included.
    AllocFailure fail(POL_MEM_LIST_VPN_1);
    Route starved = vroute(1);
    EXPECT_EQ(starved.sets(in_), sets(POL_ACTION_ACCEPT, 0u));
}

TEST_F(Exec, DeletedPolicyRejectsThroughDetachedUser)
{
    const t_tloc_id t = tloc("1.1.1.1", 3, 2);
    pol_entry_set_tloc_add(ctx_, seq(10, POL_MATCH_VROUTE), &t, &changed_);
    EXPECT_EQ(vroute(1).run(out_), POL_ACTION_ACCEPT);
    EXPECT_EQ(pol_handle_sets_tloc(out_), 1);

    pol_block_find_and_delete(ctx_, "P", POL_TYPE_ROUTE, &changed_);
    EXPECT_EQ(out_->pol_block_p, nullptr);
    Route after = vroute(1);
    EXPECT_EQ(after.sets(out_), sets(POL_ACTION_REJECT, 0u));
    EXPECT_EQ(pol_handle_sets_tloc(out_), 0);
}

}  // namespace
