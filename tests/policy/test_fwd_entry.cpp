// Updates of data-policy sequences: the valued fields, flags and actions
// (one table), the match arrays, set TLOC, service with the
// host's labels, and the TLOC-list reference with the sequence's targets.
#include <arpa/inet.h>

#include <cstring>

#include "fwd_test_support.hpp"

namespace {

using namespace poltest;
using FwdEntryTest = FwdTest;

using Upd = std::function<e_err(t_pol_ctx *, uint32_t seq, int k, bool add)>;
using Read = std::function<std::string(const t_pol_entry &)>;

// One valued field: upd sets value k (1 or 2) or removes; read shows the
// stored value; bit is its presence bit (0: present while non-zero).
struct ScalarRow {
    const char *name;
    Upd upd;
    Read read;
    bool match_mask;
    uint64_t bit;
    std::string v1, v2, zero;
};

#define ARGS t_pol_ctx *c, uint32_t s, int k, bool add
#define AT c, "D", POL_TYPE_DATA, "V", s

t_ipaddr v6(int k)
{
    uint8_t b[16] = {0x20, 0x01};
    b[15] = static_cast<uint8_t>(k);
    t_ipaddr a{};
    IPADDR_SET_V6(&a, b);
    return a;
}

std::string num(uint64_t v)
{
    return std::to_string(v);
}

std::string none(const t_pol_entry &)
{
    return "";
}

std::string addr(const t_ipaddr &a)
{
    return IPADDR_IS_ZERO(&a) ? "0" : num(a.addr_type == IP_ADDR_V4 ? ntohl(a.u.addr4.s_addr) & 0xff : a.u.addr6_b[15]);
}

// A flag-only action: present or not, with no value of its own.
#define FLAG_ROW(name, upd, bit) \
    {name, [](t_pol_ctx *c, uint32_t s, int, bool add) { return upd(AT, add); }, none, false, bit, "", "", ""}

const ScalarRow kScalars[] = {
    {"dscp", [](ARGS) { return pol_fwd_entry_dscp_upd(AT, uint8_t(5 * k), add); },
     [](const t_pol_entry &e) { return num(e.set_entry.set_fwd_dscp); }, false, 0x4000000, "5", "10", "0"},
    {"nat vpn", [](ARGS) { return pol_fwd_entry_nat_use_vpn_upd(AT, 100u * k, add); },
     [](const t_pol_entry &e) { return num(e.set_entry.set_nat_vpn_id); }, false, 0x20000, "100", "200", "0"},
    {"nat pool", [](ARGS) { return pol_fwd_entry_nat_pool_upd(AT, 7u * k, add); },
     [](const t_pol_entry &e) { return num(e.set_entry.set_nat_pool_id); }, false, 0x10000000, "7", "14", "0"},
    {"nat fallback", [](ARGS) { return pol_fwd_entry_nat_fallback_upd(AT, k == 1, add); },
     [](const t_pol_entry &e) { return num(e.set_entry.set_nat_fallback); }, false, 0x20000000, "1", "0", "0"},
    {"fec (8 bits kept)", [](ARGS) { return pol_fwd_entry_fec_upd(AT, 300u + k, add); },
     [](const t_pol_entry &e) { return num(e.set_entry.loss_protection_fec); }, false, 0x200000, "45", "46", "0"},
    {"redirect dns type", [](ARGS) { return pol_fwd_entry_redirect_dns_type_upd(AT, uint8_t(2 - k), add); },
     [](const t_pol_entry &e) { return num(e.set_entry.redirect_dns_type); }, false, 0x40000000, "1", "0", "0"},
    {"redirect dns ip", [](ARGS) { const t_ipaddr a = v4(k); return pol_fwd_entry_redirect_dns_ip_upd(AT, &a, add); },
     [](const t_pol_entry &e) { return addr(e.set_entry.redirect_dns_ip_addr); }, false, 0x800000, "1", "2", "0"},
    {"local tloc", [](ARGS) {
         const t_local_tloc_id_args a{uint32_t(k), uint32_t(2 * k), false, false};
         return pol_fwd_local_tloc_upd(AT, &a, add); },
     [](const t_pol_entry &e) {
         return num(e.set_entry.set_local_tloc.color) + "/" + num(e.set_entry.set_local_tloc.encap); },
     false, 0x1000000, "1/2", "2/4", "0/0"},
    {"local tloc list", [](ARGS) {
         const t_pol_set_local_tloc_list_args a{1, 2, uint8_t(k - 1), false, false, false};
         return pol_fwd_local_tloc_list_upd(AT, &a, add); },
     [](const t_pol_entry &e) {
         const t_pol_set_local_tloc_list &l = e.set_entry.set_local_tloc_list;
         return num(l.color_mask) + "/" + num(l.encap_mask) + "/" + num(l.restrict1); },
     false, 0x2000000, "1/2/0", "1/2/1", "0/0/0"},
    {"backup sla colour", [](ARGS) { return pol_fwd_entry_backup_sla_prefer_color_upd(AT, 11u * k, add); },
     [](const t_pol_entry &e) { return num(e.set_entry.set_backup_sla_preferred_color); }, false, 0x8000, "11", "22",
     "0"},
    {"forwarding class", [](ARGS) { return pol_fwd_entry_fwd_class_upd(AT, k == 1 ? "gold" : "golden", add); },
     [](const t_pol_entry &e) { return std::string(e.set_entry.set_fwd_class); }, false, 0x8000000, "gold", "golden",
     ""},
    {"counter", [](ARGS) { return pol_fwd_entry_count_upd(AT, k == 1 ? "c1" : "c2", add); },
     [](const t_pol_entry &e) { return std::string(e.set_entry.set_counter_name); }, false, 0x2000, "c1", "c2", ""},
    {"dns", [](ARGS) { return pol_fwd_entry_dns_upd(AT, uint32_t(k), add); },
     [](const t_pol_entry &e) { return num(e.match_entry.match_dns); }, true, 0x8000000, "1", "2", "0"},
    {"traffic category", [](ARGS) { return pol_fwd_entry_traffic_category_upd(AT, uint32_t(k), add); },
     [](const t_pol_entry &e) { return num(e.match_entry.match_traf_category); }, true, 0x20000000, "1", "2", "0"},
    {"plp", [](ARGS) { return pol_fwd_entry_plp_upd(AT, uint32_t(k), add); },
     [](const t_pol_entry &e) { return num(e.match_entry.match_plp); }, true, 0x4000000, "1", "2", "0"},
    {"tcp", [](ARGS) { return pol_fwd_entry_tcp_upd(AT, 0x10u * k, add); },
     [](const t_pol_entry &e) { return num(e.match_entry.match_tcp_flags); }, true, 0x10000000, "16", "32", "0"},
    {"vpn", [](ARGS) { pol_fwd_entry_vpn_upd(AT, 1000u * k, add); return s == 10 ? ERR_OK : ERR_NOT_FOUND; },
     [](const t_pol_entry &e) { return num(e.set_entry.set_fwd_vpn_id); }, false, 0x100, "1000", "2000", "0"},
    {"loss protect", [](ARGS) { return pol_fwd_entry_loss_protect_upd(AT, uint32_t(k), add); },
     [](const t_pol_entry &e) { return num(e.set_entry.loss_protect); }, false, 0, "1", "2", "0"},
    {"next hop", [](ARGS) { const t_ipaddr a = v4(k); return pol_fwd_entry_next_hop_upd(AT, &a, add); },
     [](const t_pol_entry &e) { return addr(e.set_entry.next_hop); }, false, 0, "1", "2", "0"},
    {"next hop v6", [](ARGS) { const t_ipaddr a = v6(k); return pol_fwd_entry_next_hop_v6_upd(AT, &a, add); },
     [](const t_pol_entry &e) { return addr(e.set_entry.next_hop_ipv6); }, false, 0, "1", "2", "0"},
    {"action", [](ARGS) { return pol_fwd_entry_action_upd(AT, uint8_t(add ? k + 1 : 0)); },
     [](const t_pol_entry &e) { return num(e.set_entry.action); }, false, 0, "2", "3", "0"},
    {"default action (made 1)", [](ARGS) {
         const char *vpn = s == 10 ? "V" : "W";
         return pol_fwd_default_entry_action_upd(c, "D", POL_TYPE_DATA, vpn, uint8_t(add ? k + 1 : 1)); },
     [](const t_pol_entry &e) { return num(e.pol_vpn_p->default_pol_entry->set_entry.action); }, false, 0, "2", "3",
     "1"},
    FLAG_ROW("cflowd", pol_fwd_entry_cflowd_upd, 0x40000),
    FLAG_ROW("tcp optimisation", pol_fwd_entry_tcp_opt_upd, 0x80000),
    FLAG_ROW("ssl optimisation", pol_fwd_entry_ssl_opt_upd, 0x100000),
    FLAG_ROW("packet duplication", pol_fwd_entry_pkt_dup_upd, 0x400000),
    FLAG_ROW("cloud saas", pol_fwd_entry_cloud_saas_upd, 0x10000),
    FLAG_ROW("log", pol_fwd_entry_log_upd, 0x4000),
    FLAG_ROW("signature", pol_fwd_entry_sig_upd, 0x100000000),
};

// Equal value (a flag set again): no notification; removal zeroes value and
// bit; removal of an absent value: no notification; a missing sequence is
// reported.
TEST_F(FwdEntryTest, ValuedFields)
{
    for (const ScalarRow &row : kScalars) {
        SCOPED_TRACE(row.name);
        const uint64_t &mask = row.match_mask ? entry_->entry_match_flags : entry_->entry_set_flags;
        auto present = [&] { return row.bit == 0 || (mask & row.bit) != 0; };
        EXPECT_EQ(row.upd(ctx_, 10, 1, false), ERR_OK);
        EXPECT_EQ(notified(), 0);
        EXPECT_EQ(row.upd(ctx_, 10, 1, true), ERR_OK);
        EXPECT_TRUE(notified() == 1 && present() && row.read(*entry_) == row.v1);
        EXPECT_EQ(row.upd(ctx_, 10, 1, true), ERR_OK);
        EXPECT_EQ(notified(), 0);
        EXPECT_EQ(row.upd(ctx_, 10, 2, true), ERR_OK);
        EXPECT_TRUE(notified() == (row.v1 != row.v2 ? 1 : 0) && present() && row.read(*entry_) == row.v2);
        EXPECT_EQ(row.upd(ctx_, 10, 2, false), ERR_OK);
        EXPECT_EQ(notified(), 1);
        EXPECT_EQ(row.read(*entry_), row.zero);
        EXPECT_TRUE(row.bit == 0 || (mask & row.bit) == 0);
        EXPECT_EQ(row.upd(ctx_, 10, 2, false), ERR_OK);
        EXPECT_EQ(notified(), 0);
        EXPECT_EQ(row.upd(ctx_, 11, 1, true), ERR_NOT_FOUND);
        EXPECT_EQ(notified(), 0);
    }
    EXPECT_EQ(entry_->entry_match_flags | entry_->entry_set_flags, 0u);
    // Loss protection compares even with nothing stored.
    EXPECT_EQ(pol_fwd_entry_loss_protect_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, 0, true), ERR_OK);
    EXPECT_EQ(notified(), 0);
}

// One match array: its leaf tag, accounting row, element size, setter and
// what it holds.
struct ArrayRow {
    uint32_t tag;
    e_pol_mem mem;
    std::size_t elem;
    std::function<e_err(t_pol_ctx *, void *, uint32_t, uint32_t)> upd;
    std::function<std::pair<const void *, uint32_t>(const t_pol_match_entry &)> held;
};

#define ARRAY_ROW(tag, mem, T, setter, items, count)                                                        \
    ArrayRow{tag, POL_MEM_ENTRY_MATCH_##mem, sizeof(T),                                                     \
             [](t_pol_ctx *c, void *a, uint32_t n, uint32_t t) {                                            \
                 return pol_fwd_entry_##setter(c, "D", POL_TYPE_DATA, "V", 10, static_cast<T *>(a), n, t); \
             },                                                                                             \
             [](const t_pol_match_entry &m) { return std::pair<const void *, uint32_t>(m.match_##items, m.count); }}

TEST_F(FwdEntryTest, MatchArraysAdoptAndFree)
{
    const ArrayRow rows[] = {
        ARRAY_ROW(0x553788af, SRC_IP, t_ipprefix, pfx_upd, src_ip_list, match_num_src_ip),
        ARRAY_ROW(0x3ade449f, SRC_IPV6, t_ipprefix, pfx_upd, src_ipv6_list, match_num_src_ipv6),
        ARRAY_ROW(0x22688857, DST_IP, t_ipprefix, pfx_upd, dst_ip_list, match_num_dst_ip),
        ARRAY_ROW(0x7277a1c1, DST_IPV6, t_ipprefix, pfx_upd, dst_ipv6_list, match_num_dst_ipv6),
        ARRAY_ROW(0x0f472580, SRC_PORT, t_pol_range, range_config_upd, src_port_list, match_num_src_port),
        ARRAY_ROW(0x6475b955, DST_PORT, t_pol_range, range_config_upd, dst_port_list, match_num_dst_port),
        ARRAY_ROW(0x5b2c4c8c, PKT_LEN, t_pol_range, range_config_upd, packet_len, match_num_packet_len),
        ARRAY_ROW(0x3838f6e1, PROTO, uint8_t, list_config_upd, proto_list, match_num_proto),
        ARRAY_ROW(0x42a50984, DSCP, uint8_t, list_config_upd, dscp_list, match_num_dscp),
        ARRAY_ROW(0x2ab85e1b, ICMP, uint32_t, icmp_list_config_upd, icmp_list, match_num_icmp),
        ARRAY_ROW(0x0e190ee1, ICMP6, uint32_t, icmp_list_config_upd, icmp6_list, match_num_icmp6),
    };
    EXPECT_EQ(pol_fwd_get_mem_type(0), POL_MEM_MAX);
    for (const ArrayRow &row : rows) {
        SCOPED_TRACE(row.tag);
        const e_pol_mem mem = row.mem;
        EXPECT_TRUE(pol_fwd_get_mem_type(row.tag) == mem && pol_fwd_get_mem_type(row.tag ^ 1) == POL_MEM_MAX);
        const int64_t live = live_count(mem);
        using Held = std::pair<const void *, uint32_t>;
        notified();
        EXPECT_EQ(row.upd(ctx_, nullptr, 0, row.tag), ERR_OK);
        EXPECT_EQ(notified(), 0);
        void *a = pol_malloc(3 * row.elem, mem);
        EXPECT_EQ(row.upd(ctx_, a, 3, row.tag), ERR_OK);
        EXPECT_TRUE(row.held(entry_->match_entry) == Held(a, 3) && notified() == 1);
        EXPECT_EQ(row.upd(ctx_, a, 3, row.tag), ERR_OK);  // the same array again
        EXPECT_EQ(notified(), 1);
        void *b = pol_malloc(row.elem, mem);
        EXPECT_EQ(row.upd(ctx_, b, 1, row.tag), ERR_OK);
        EXPECT_TRUE(row.held(entry_->match_entry) == Held(b, 1) && live_count(mem) == live + 1);
        EXPECT_EQ(notified(), 1);
        EXPECT_EQ(row.upd(ctx_, nullptr, 0, row.tag), ERR_OK);
        EXPECT_TRUE(row.held(entry_->match_entry) == Held(nullptr, 0) && live_count(mem) == live);
        EXPECT_EQ(notified(), 1);
        EXPECT_EQ(row.upd(ctx_, nullptr, 1, row.tag ^ 1), ERR_FAIL);  // no array of that leaf here
        void *kept = pol_malloc(row.elem, mem);  // left for the sequence's deletion
        EXPECT_EQ(row.upd(ctx_, kept, 1, row.tag), ERR_OK);
    }
    EXPECT_EQ(pol_fwd_entry_pfx_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, nullptr, 0, 0x6475b955), ERR_FAIL);
    const int64_t before = live_count(POL_MEM_ENTRY_MATCH_ICMP6);
    pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", 10);
    EXPECT_EQ(live_count(POL_MEM_ENTRY_MATCH_ICMP6), before - 1);
}

// A TLOC without address or colour keeps the stored one; the encapsulation
// changes only when told.
TEST_F(FwdEntryTest, SetTlocMergesPartialTloc)
{
    auto upd = [&](bool encap_set, const t_tloc_id *t) {
        return pol_fwd_entry_tloc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 10, encap_set, t);
    };
    const t_tloc_id *stored = &entry_->set_entry.set_fwd_tloc;
    const t_tloc_id full{v4(1), 3, 2}, addr_only{v4(2), 0, 1}, colour_encap{t_ipaddr{}, 9, 0};
    const struct {
        bool encap_set;
        const t_tloc_id *given;
        t_tloc_id want;
    } steps[] = {{true, &full, full}, {false, &addr_only, {v4(2), 3, 2}}, {true, &colour_encap, {v4(2), 9, 0}}};
    for (const auto &step : steps) {
        ASSERT_EQ(upd(step.encap_set, step.given), ERR_OK);
        EXPECT_EQ(TLOC_CMP(stored, &step.want), 0) << &step - steps;
        EXPECT_TRUE((entry_->entry_set_flags & 0x80) && (block_->pol_flags & 0x8) && notified() == 1);  // always told
    }
    ASSERT_EQ(upd(false, nullptr), ERR_OK);
    EXPECT_TRUE(IPADDR_IS_ZERO(&stored->addr) && stored->addr.addr_type == 0 && stored->color == 0);
    EXPECT_TRUE(!(entry_->entry_set_flags & 0x80) && !(block_->pol_flags & 0x8) && notified() == 1);
    EXPECT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 11, false, &full), ERR_NOT_FOUND);
    EXPECT_DEATH({ dup2(2, 1); pol_fwd_entry_tloc_upd(nullptr, ctx_, "D", POL_TYPE_PFR, "V", 10, false, &full); },
                 "failed assertion `pol_type == POL_TYPE_DATA'");
}

// The local flags of a service, and the host's answer for it becoming the
// sequence's targets (the kinds of answer and a node that cannot be had
// are test_fwd_label's).
TEST_F(FwdEntryTest, ServiceAsksTheHostForTargets)
{
    // Its local flags never notify: the service's question carries them.
    const t_pol_set_entry &s = entry_->set_entry;
    auto local = [&](bool local, bool restrict1, bool add) {
        return pol_fwd_entry_svc_local_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, local, restrict1, add);
    };
    EXPECT_EQ(local(true, true, true), ERR_OK);
    EXPECT_TRUE(s.set_fwd_service_local && s.set_fwd_service_local_restrict &&
                (entry_->entry_set_flags & 0x80000000) != 0);
    EXPECT_EQ(local(false, true, true), ERR_OK);
    EXPECT_TRUE(!s.set_fwd_service_local && s.set_fwd_service_local_restrict &&
                (entry_->entry_set_flags & 0x80000000) == 0);
    EXPECT_EQ(local(true, true, true), ERR_OK);
    EXPECT_EQ(local(true, true, false), ERR_OK);
    EXPECT_TRUE(!s.set_fwd_service_local && !s.set_fwd_service_local_restrict && entry_->entry_set_flags == 0);
    EXPECT_EQ(notified(), 0);
    EXPECT_EQ(pol_fwd_entry_svc_local_upd(ctx_, "D", POL_TYPE_DATA, "V", 9, true, true, true), ERR_NOT_FOUND);

    ctx_->init_params.pol_label_cb = label_cb;
    g_host = LabelHost{{}, 77, {{5, 40, {v4(3), 1, 2}}, {6, 50, {v4(4), 2, 2}}}, {}};
    pol_fwd_entry_vpn_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, 12, true);
    local(true, false, true);
    notified();
    auto svc = [&](uint16_t type, bool del) {
        return pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 10, type, del);
    };
    ASSERT_EQ(svc(4, false), ERR_OK);
    EXPECT_EQ(targets(entry_), (std::vector<std::string>{"3/1:5:40", "4/2:6:50"}));
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(g_host.calls, std::vector<std::string>{"0/0:12:4"});
    EXPECT_EQ(g_host.last_args, (std::vector<uint64_t>{1, 0, 1, 1, 0}));
    EXPECT_TRUE((entry_->entry_set_flags & 0x400) && (block_->pol_flags & 0x10) &&
                entry_->set_entry.set_fwd_service == 4);

    // Neither a service nor a removal: the block has a service sequence, so
    // the targets are asked for again.
    ASSERT_EQ(svc(0, false), ERR_OK);
    EXPECT_TRUE(g_host.calls.size() == 2 && targets(entry_).size() == 2 && notified() == 1);

    // With a TLOC address set the host is not asked and the targets go.
    const t_tloc_id t{v4(9), 1, 0};
    ASSERT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 10, false, &t), ERR_OK);
    ASSERT_EQ(svc(4, false), ERR_OK);
    EXPECT_TRUE(g_host.calls.size() == 2 && targets(entry_).empty());
    ASSERT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 10, false, nullptr), ERR_OK);
    ASSERT_EQ(svc(4, false), ERR_OK);
    notified();

    // Removal zeroes the service and its local flags; afterwards a call
    // with neither does nothing.
    ASSERT_EQ(svc(0, true), ERR_OK);
    EXPECT_TRUE(s.set_fwd_service == 0 && !s.set_fwd_service_local && !(entry_->entry_set_flags & 0x400) &&
                !(block_->pol_flags & 0x10) && targets(entry_).empty() && notified() == 1);
    ASSERT_EQ(svc(0, false), ERR_OK);
    EXPECT_TRUE(g_host.calls.size() == 3 && notified() == 0);
    EXPECT_EQ(pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "W", 10, 4, false), ERR_NOT_FOUND);
}

TEST_F(FwdEntryTest, TlocListReference)
{
    const t_tloc_id t1{v4(1), 1, 2}, t2{v4(2), 2, 2};
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t2, 20), ERR_OK);
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t1, 10), ERR_OK);
    auto upd = [&](const char *name) { pol_fwd_entry_tloc_list_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, name); };
    const t_pol_set_entry &s = entry_->set_entry;

    upd("");  // removing what is not there
    EXPECT_EQ(notified(), 0);
    upd("TL");
    t_tloc_list *tl = pol_tloc_list_find(ctx_, "TL");
    EXPECT_TRUE(s.set_fwd_tloc_list_p == tl && (entry_->entry_set_flags & 0x1000) && (block_->pol_flags & 0x20));
    EXPECT_EQ(TAILQ_FIRST(&tl->set_list_head), &s);
    EXPECT_EQ(targets(entry_), (std::vector<std::string>{"1/1:0:10", "2/2:0:20"}));
    EXPECT_EQ(notified(), 1);
    upd("TL");  // same list: nothing
    EXPECT_EQ(notified(), 0);

    // Another list: the first one loses the user; an empty list goes.
    upd("OTHER");
    EXPECT_TRUE(TAILQ_EMPTY(&tl->set_list_head) && targets(entry_).empty() && notified() == 1);
    upd(nullptr);
    EXPECT_TRUE(s.set_fwd_tloc_list_p == nullptr && !(entry_->entry_set_flags & 0x1000) &&
                !(block_->pol_flags & 0x20) && notified() == 1);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "OTHER"), nullptr);

    // The list's registration fails: the bit stays, no list is held.
    {
        AllocFailure fail(POL_MEM_LIST_TLOC);
        uint8_t changed = 0;
        EXPECT_EQ(pol_fwd_entry_set_tloc_list_add(ctx_, entry_, "NEW", &changed), nullptr);
        EXPECT_TRUE(changed == 0 && s.set_fwd_tloc_list_p == nullptr && (entry_->entry_set_flags & 0x1000));
    }

    // Deleting the sequence releases the list it sets.
    upd("TL");
    notified();
    pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", 10);
    EXPECT_TRUE(TAILQ_EMPTY(&tl->set_list_head) && notified() == 1);
}

// Every single-list reference of a sequence: set, same again, moved to
// another list, removed by an empty name, and released with the sequence;
// the family's dump shows which of its lists the sequence uses.
struct ListRef {
    const char *what;
    void (*upd)(t_pol_ctx *, const char *, e_pol_type, const char *, uint32_t, const char *);
    uint64_t t_pol_entry::*flags;
    uint64_t bit;
    const void *(*held)(const t_pol_entry &);
    const void *(*find)(t_pol_ctx *, const char *);
    void (*dump)(mgmtd_cli_user_info *);
    const char *user_line;
    e_err (*cfg_del)(t_pol_ctx *, const char *);
};

#define LIST_REF(what, upd, flags, bit, held, find, dump, user_line, cfg_del)                                 \
    ListRef{what, upd, &t_pol_entry::flags, bit, [](const t_pol_entry &e) -> const void * { return e.held; }, \
            [](t_pol_ctx *c, const char *n) -> const void * { return find(c, n); }, dump, user_line, cfg_del}

const ListRef kListRefs[] = {
    LIST_REF("source prefix list", pol_fwd_entry_src_pfx_upd, entry_match_flags, 0x1000, match_entry.match_src_list_p,
             pol_fwd_pfx_list_find, pol_dump_fwd_pfx_list_all, "SRC LIST User: D", pol_fwd_pfx_list_cfg_del),
    LIST_REF("destination prefix list", pol_fwd_entry_dst_pfx_upd, entry_match_flags, 0x2000,
             match_entry.match_dst_list_p, pol_fwd_pfx_list_find, pol_dump_fwd_pfx_list_all, "DST LIST User: D",
             pol_fwd_pfx_list_cfg_del),
    LIST_REF("IPv6 source prefix list", pol_fwd_entry_src_pfx6_upd, entry_match_flags, 0x800000,
             match_entry.match_src6_list_p, pol_fwd_pfx6_list_find, pol_dump_fwd_pfx6_list_all, "SRC LIST User: D",
             pol_fwd_pfx6_list_cfg_del),
    LIST_REF("IPv6 destination prefix list", pol_fwd_entry_dst_pfx6_upd, entry_match_flags, 0x1000000,
             match_entry.match_dst6_list_p, pol_fwd_pfx6_list_find, pol_dump_fwd_pfx6_list_all, "DST LIST User: D",
             pol_fwd_pfx6_list_cfg_del),
    LIST_REF("app-id", pol_fwd_entry_app_id_upd, entry_match_flags, 0x40000, match_entry.match_app_id_p,
             pol_fwd_app_id_find, pol_dump_fwd_app_id_all, "APP ID User: D", pol_fwd_app_id_cfg_del),
    LIST_REF("application list", pol_fwd_entry_app_list_upd, entry_match_flags, 0x80000, match_entry.match_app_list_p,
             pol_app_list_find, pol_dump_app_list_all, "APP LIST User: D", pol_app_list_cfg_del),
    LIST_REF("DNS application list", pol_fwd_entry_dns_app_list_upd, entry_match_flags, 0x400000,
             match_entry.match_dns_app_list_p, pol_app_list_find, pol_dump_app_list_all, "DNS APP LIST User: D",
             pol_app_list_cfg_del),
    LIST_REF("policer", pol_fwd_entry_policer_upd, entry_set_flags, 0x800, set_entry.set_fwd_policer_p,
             pol_fwd_policer_find, pol_dump_fwd_policer_all, "Policer User: D", pol_fwd_policer_cfg_del),
};

TEST_F(FwdEntryTest, NamedListReferences)
{
    using Names = std::vector<std::string>;
    for (const ListRef &r : kListRefs) {
        SCOPED_TRACE(r.what);
        entry_ = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10);
        notified();
        auto upd = [&](const char *name) { r.upd(ctx_, "D", POL_TYPE_DATA, "V", 10, name); };
        auto bit = [&] { return ((*entry_).*r.flags & r.bit) != 0; };
        auto used = [&] { return showing(r.dump, r.user_line); };
        upd("A");
        const void *a = r.find(ctx_, "A");
        EXPECT_TRUE(a != nullptr && r.held(*entry_) == a && bit() && used() == Names{"A"} && notified() == 1);
        upd("A");
        EXPECT_EQ(notified(), 0);
        upd("B");
        const void *b = r.find(ctx_, "B");
        EXPECT_TRUE(b != nullptr && r.held(*entry_) == b && bit() && used() == Names{"B"} && notified() == 1);
        upd("");
        EXPECT_TRUE(r.held(*entry_) == nullptr && !bit() && used().empty() && notified() == 1);
        upd(nullptr);
        EXPECT_EQ(notified(), 0);
        upd("C");
        pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", 10);
        EXPECT_TRUE(used().empty());
        // The list's configuration goes while a sequence uses it, then the
        // policy goes: nothing is left pointing at freed memory (the dumps
        // read every link under the sanitizers).
        entry_ = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10);
        upd("E");
        EXPECT_EQ(r.cfg_del(ctx_, "E"), ERR_OK);
        EXPECT_EQ(r.held(*entry_), r.find(ctx_, "E"));
        dump([](auto *s) { pol_dump_all(s, 0, nullptr); });
        uint8_t changed = 0;
        pol_block_find_and_delete(ctx_, "D", POL_TYPE_DATA, &changed);
        EXPECT_EQ(notified(), 1);
        EXPECT_TRUE(used().empty());
        dump([](auto *s) { pol_dump_all(s, 0, nullptr); });
        ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V"), nullptr);
    }
    uint8_t changed = 0;
    entry_ = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10);
    pol_fwd_entry_set_policer_add(ctx_, entry_, "P", &changed);
    EXPECT_EQ(pol_fwd_entry_set_policer_add(ctx_, entry_, "", &changed), nullptr);  // lets go only
    EXPECT_TRUE(entry_->set_entry.set_fwd_policer_p == nullptr &&
                TAILQ_EMPTY(&pol_fwd_policer_find(ctx_, "P")->set_policer_head));

    // SaaS lists are a set: each name adds one, an empty name drops them all.
    notified();
    auto upd = [&](const char *name) { pol_fwd_entry_saas_app_list_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, name); };
    auto held = [&] { return showing(pol_dump_app_list_all, "SAAS APP LIST User: D"); };
    upd("S1");
    upd("S2");
    EXPECT_EQ(notified(), 1);
    upd("S1");
    EXPECT_EQ(notified(), 0);
    EXPECT_EQ(held(), (std::vector<std::string>{"S1", "S2"}));
    EXPECT_TRUE(entry_->match_entry.match_saas_app_list.count == 2 && (entry_->entry_match_flags & 0x2000000));
    upd("");
    EXPECT_TRUE(held().empty() && entry_->match_entry.match_saas_app_list.count == 0 && notified() == 1);
    EXPECT_FALSE(entry_->entry_match_flags & 0x2000000);
    upd("S3");
    pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", 10);
    EXPECT_TRUE(held().empty());
}

// The SLA class of an app-route sequence keeps what a change leaves out.
TEST_F(FwdEntryTest, SlaClassOfAppRouteSequences)
{
    uint8_t changed = 0;
    pol_block_find_or_create(ctx_, "AR", POL_TYPE_PFR, &changed);
    register_user("ar", "AR", POL_TYPE_PFR, POL_DIR_IN, count_cb, &calls_);
    t_pol_fwd_vpn_entry *vpn = pol_fwd_vpn_find_or_create(ctx_, "AR", POL_TYPE_PFR, "V");
    t_pol_entry *seq = pol_fwd_entry_find_or_create(ctx_, "AR", POL_TYPE_PFR, "V", 1);
    ASSERT_TRUE(vpn != nullptr && seq != nullptr);
    notified();
    const t_pol_set_entry &s = seq->set_entry;
    auto upd = [&](const char *name, uint8_t strict, uint32_t pref, bool del, bool strict_changed, bool pref_changed) {
        pol_fwd_entry_sla_class_upd(ctx_, "AR", POL_TYPE_PFR, "V", 1, name, strict, pref, del, strict_changed,
                                    pref_changed);
        return notified();
    };
    EXPECT_EQ(upd("S1", 1, 0x3, false, true, true), 1);
    t_fwd_sla_class *s1 = pol_fwd_sla_class_find(ctx_, "S1");
    EXPECT_TRUE(s.set_sla_class_p == s1 && s.set_sla_strict == 1 && s.set_sla_preferred_color == 0x3u &&
                (seq->entry_set_flags & 0x200));
    EXPECT_EQ(upd(nullptr, 0, 0x4, false, false, true), 1);  // name and strictness kept
    EXPECT_TRUE(s.set_sla_class_p == s1 && s.set_sla_strict == 1 && s.set_sla_preferred_color == 0x4u);
    EXPECT_EQ(upd("S1", 1, 0x4, false, true, true), 0);
    EXPECT_EQ(upd("S2", 0, 0x4, false, false, false), 1);  // moved, values kept
    EXPECT_TRUE(s.set_sla_class_p == pol_fwd_sla_class_find(ctx_, "S2") && s.set_sla_strict == 1 &&
                TAILQ_EMPTY(&s1->set_sla_class_head));
    EXPECT_EQ(upd(nullptr, 0, 0, true, false, false), 1);
    EXPECT_TRUE(s.set_sla_class_p == nullptr && s.set_sla_strict == 0 && s.set_sla_preferred_color == 0u &&
                !(seq->entry_set_flags & 0x200));

    pol_fwd_default_entry_sla_class_upd(ctx_, "AR", POL_TYPE_PFR, "V", "S1", 0, 0x1, false);
    EXPECT_TRUE(vpn->default_pol_entry->set_entry.set_sla_class_p == s1 && notified() == 1);
    pol_fwd_vpn_find_and_delete(ctx_, "AR", POL_TYPE_PFR, "V");
    EXPECT_TRUE(TAILQ_EMPTY(&s1->set_sla_class_head));

    EXPECT_EQ(pol_fwd_entry_app_probe_class_add(ctx_, "S1", "probe"), 1);  // no such class
    ASSERT_NE(pol_app_probe_class_find_or_create(ctx_, "probe", &changed), nullptr);
    EXPECT_EQ(pol_fwd_entry_app_probe_class_add(ctx_, "S1", "probe"), 0);
    EXPECT_EQ(s1->pol_app_probe_class_p, pol_app_probe_class_find(ctx_, "probe"));
    EXPECT_EQ(pol_fwd_entry_app_probe_class_add(ctx_, "nope", "probe"), 1);
    EXPECT_DEATH({ dup2(2, 1); pol_fwd_entry_sla_class_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, "S1", 0, 0, false,
                                                           true, true); },
                 "failed assertion `pol_type == POL_TYPE_PFR'");
}

}  // namespace
