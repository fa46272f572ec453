// Route execution, worked by hand where the randomized runs of
// test_exec_differential.cpp do not look: the input left alone, the
// accounting of the lazily built indexes and of the export buffer, route
// kinds whose union holds another field, and a label table left over from
// another route.
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
        return {run(user), p.entry_set_flags};  // braces: the run comes first
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

// Route policy P with an outbound and an inbound user, neither with a label
// callback.
class Exec : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        out_ = register_user("out", "P", POL_TYPE_ROUTE, POL_DIR_OUT);
        in_ = register_user("in", "P", POL_TYPE_ROUTE, POL_DIR_IN);
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

// The first sequence of the route's kind decides; the route's own
// attributes are never changed, and no user or no route rejects.
TEST_F(Exec, FirstMatchingSequenceOfTheRouteKindDecides)
{
    pol_entry_set_tag_add(ctx_, seq(10, POL_MATCH_VROUTE), 10, &changed_);
    t_pol_entry *s5 = seq(5, POL_MATCH_VROUTE);
    pol_entry_set_tag_add(ctx_, s5, 5, &changed_);
    pol_entry_set_preference_add(ctx_, seq(1, POL_MATCH_INVALID), 1, &changed_);  // never decides
    Route r = vroute(1);
    EXPECT_EQ(r.sets(out_), sets(POL_ACTION_ACCEPT, POL_SET_FLAG_TAG));
    EXPECT_EQ(r.p.attr_out.tag, 5u);
    EXPECT_EQ(r.attr.attr_flags, 0u);
    pol_entry_action_add(ctx_, s5, POL_ACTION_REJECT, &changed_);
    EXPECT_EQ(vroute(1).run(out_), POL_ACTION_REJECT);
    EXPECT_EQ(Route(POL_SAFI_TLOC).run(out_), POL_ACTION_REJECT);  // the default action
    EXPECT_EQ(pol_execute(nullptr, &r.p), POL_ACTION_REJECT);
    EXPECT_EQ(pol_execute(out_, nullptr), POL_ACTION_REJECT);
    std::memset(&r.p, 0xab, sizeof(r.p));
    pol_pre_execute(&r.p, ZEN_DEVICE_RIMBA);
    EXPECT_EQ(pol_execute(out_, &r.p), POL_ACTION_REJECT);  // a record without attributes
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
    // Entries 0 and 1 of each list, then entry 2 added between the checks;
    // route i of four is accepted as `before` says, then as `after` says.
    const uint32_t lo[] = {5, 20, 10}, hi[] = {9, 20, 19}, ids[] = {4, 7, 15, 20};
    const std::vector<bool> before{false, true, false, true}, after{false, true, true, true};
    auto add_pfx = [&](const t_pfx_list_key &k, int i) {
        const t_pfx_entry_param params[] = {{PFX_OP_LE, prefix("10.0.0.0/8"), 0, 16},
                                            {PFX_OP_EQ, prefix("192.168.0.0/16"), 0, 0},
                                            {PFX_OP_GE, prefix("172.16.0.0/12"), 24, 0}};
        ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &params[i]), ERR_OK);
    };
    // Both prefix conditions: the list's own index and the policy's.
    auto pfx_probe = [](int i) {
        return vroute(1, std::vector<const char *>{"10.1.1.0/24", "10.1.0.0/16", "172.16.1.0/24", "192.168.0.0/16"}[i]);
    };
    struct Case {
        const char *what;
        e_pol_mem row;
        std::function<void(int)> add;  // entry i of the list
        std::function<void(t_pol_entry *)> condition;
        std::function<const void *()> index;
        std::function<Route(int)> probe;
    };
    const Case cases[] = {
        {"site list", POL_MEM_LIST_SITE,
         [&](int i) { ASSERT_EQ(pol_site_list_add_entry(ctx_, "S", lo[i], hi[i]), ERR_OK); },
         [&](t_pol_entry *e) { pol_entry_match_site_list_add(ctx_, e, "S", &changed_); },
         [&] { return pol_site_list_find(ctx_, "S")->exec_index; },
         [&](int i) {
             Route r = vroute(1);
             r.attr.site_id = ids[i];
             return r;
         }},
        {"VPN list", POL_MEM_LIST_VPN,
         [&](int i) { ASSERT_EQ(pol_vpn_list_add_entry(ctx_, "V", lo[i], hi[i]), ERR_OK); },
         [&](t_pol_entry *e) { pol_entry_match_vpn_list_add(ctx_, e, "V", &changed_); },
         [&] { return pol_vpn_list_find(ctx_, "V")->exec_index; }, [&](int i) { return vroute(ids[i]); }},
        {"colour list", POL_MEM_LIST_COLOR,
         [&](int i) { ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", std::vector<uint8_t>{3, 5, 7}[i]), ERR_OK); },
         [&](t_pol_entry *e) { pol_entry_match_color_list_add(ctx_, e, "C", &changed_); },
         [&] { return pol_color_list_find(ctx_, "C")->exec_index; },
         [](int i) {
             Route r = vroute(1);
             r.attr.tloc.color = std::vector<uint8_t>{1, 3, 7, 5}[i];
             return r;
         }},
        {"prefix list", POL_MEM_LIST_PREFIX, [&](int i) { add_pfx(key, i); },
         [&](t_pol_entry *e) { pol_entry_match_pfx_list_add(ctx_, e, &key, &changed_); },
         [&] { return pol_pfx_list_find(ctx_, &key)->exec_index; }, pfx_probe},
        // The policy's sequence index, over the prefix conditions of enough
        // sequences to be indexed (the first decides).
        {"sequence index", POL_MEM_BLOCK, [&](int i) { add_pfx(key2, i); },
         [&](t_pol_entry *e) {
             pol_entry_match_pfx_list_add(ctx_, e, &key2, &changed_);
             for (uint32_t n = 11; n < 20; n++) {
                 pol_entry_match_pfx_list_add(ctx_, seq(n, POL_MATCH_VROUTE), &key2, &changed_);
             }
         },
         [&] { return block_->exec_index; }, pfx_probe},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        c.add(0);
        c.add(1);
        c.condition(seq(10, POL_MATCH_VROUTE));
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
        check(before);
        c.add(2);
        check(after);
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
    Route tloc_r(POL_SAFI_TLOC);
    tloc_r.p.u.tloc_info.tloc = tloc("0.0.0.0", 3, 2);
    uint64_t tloc_as_vpn = 0;  // what a VPN read of the TLOC route would see
    std::memcpy(&tloc_as_vpn, &tloc_r.p.u, sizeof(tloc_as_vpn));
    Route service = Route(POL_SAFI_SERVICE);
    service.p.u.service_info.vpn_id = 5;
    using Condition = std::function<void(t_pol_entry *)>;
    auto vpn_id = [&](uint64_t id) -> Condition {
        return [&, id](t_pol_entry *e) { pol_entry_match_vpn_id_add(ctx_, e, id, &changed_); };
    };
    const Condition vpn_list = [&](t_pol_entry *e) { pol_entry_match_vpn_list_add(ctx_, e, "every-vpn", &changed_); };
    auto pfx_list = [&](const t_pfx_list_key &k) -> Condition {
        return [&, key = &k](t_pol_entry *e) { pol_entry_match_pfx_list_add(ctx_, e, key, &changed_); };
    };
    const struct {
        const char *what;
        e_pol_match_type type;
        Condition condition;
        Route route;
        bool holds;
    } cases[] = {
        {"VPN id on a TLOC route", POL_MATCH_TLOC, vpn_id(tloc_as_vpn), tloc_r, false},
        {"VPN list on a TLOC route", POL_MATCH_TLOC, vpn_list, tloc_r, false},
        {"IPv6 prefix list on a TLOC route", POL_MATCH_TLOC, pfx_list(any_v6), tloc_r, false},
        {"IPv4 prefix list on a TLOC route", POL_MATCH_TLOC, pfx_list(any_v4), tloc_r, false},
        {"IPv6 prefix list on a service route", POL_MATCH_SERVICE, pfx_list(any_v6), service, false},
        {"VPN id on a service route", POL_MATCH_SERVICE, vpn_id(5), service, true},
        {"VPN list on a service route", POL_MATCH_SERVICE, vpn_list, service, true},
        {"IPv6 prefix list on a virtual route", POL_MATCH_VROUTE, pfx_list(any_v6), vroute(1, "2001:db8::/32"), true},
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

// A set TLOC that no label callback resolves rejects, whatever table the
// record held from another route, unless the ultimate action (2 or more)
// falls back to the route's own TLOC.
TEST_F(Exec, UnresolvedTlocRejectsUnlessUltimateFallback)
{
    const t_tloc_id set = tloc("1.1.1.1", 3, 2);
    t_pol_entry *e = seq(10, POL_MATCH_VROUTE);
    pol_entry_set_tloc_add(ctx_, e, &set, &changed_);
    for (uint8_t ultimate : {0, 1, 2}) {
        e->set_entry.set_ultimate_action = ultimate;
        Route r = vroute(7);
        r.te.num_entries = 3;  // left over from another route
        EXPECT_EQ(r.sets(out_), sets(ultimate < 2 ? POL_ACTION_REJECT : POL_ACTION_ACCEPT, POL_SET_FLAG_TLOC));
        EXPECT_EQ(r.te.num_entries, ultimate < 2 ? 0u : 1u) << int(ultimate);
    }
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
    // The record holds no buffer any more: a second release frees nothing.
    EXPECT_TRUE(controller.p.vpn_list.vpn_list_p == nullptr && controller.p.vpn_list.num_vpn_entries == 0u);
    pol_post_execute(&controller.p);
    pol_post_execute(nullptr);
    EXPECT_EQ(live_count(POL_MEM_LIST_VPN_1), buffers);

    // Without a buffer the export is dropped, flag included.
    AllocFailure fail(POL_MEM_LIST_VPN_1);
    Route starved = vroute(1);
    EXPECT_EQ(starved.sets(in_), sets(POL_ACTION_ACCEPT, 0u));
}

}  // namespace
