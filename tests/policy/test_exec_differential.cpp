// Route execution cross-checked against the plain evaluator of
// exec_reference, over randomized policies, lists and routes with fixed
// seeds. Policies are built and changed through the store operations, the
// lists change between routes and the next route is steered onto what
// changed, so the match-time indexes the library rebuilds lazily are
// queried right after every kind of change; some routes run while an index
// cannot be allocated and are answered from the entries. Verdict, flag
// words, rewritten attributes, exported VPN ranges, community set and
// label table must agree.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "exec_model.hpp"
#include "exec_reference.hpp"
#include "pol_match.hpp"
#include "pol_test_support.hpp"
#include "polctl_lines.hpp"

namespace {

using execmodel::kKinds;
using execmodel::kListNames;
using execmodel::kSetsFrom;
using execmodel::set_bit;
using execmodel::width_of;

class rng : public execmodel::chooser {
public:
    explicit rng(uint64_t seed) : gen_(seed) {}
    uint32_t below(uint32_t n) override { return n == 0 ? 0 : static_cast<uint32_t>(gen_() % n); }
    uint64_t bits() override { return gen_(); }
    void seed(uint64_t s) { gen_.seed(s); }

private:
    std::mt19937_64 gen_;
};

struct shape {
    unsigned rounds, routes;       // routes per round
    unsigned list_entries;         // initial entries of a site, VPN, TLOC, colour or community list
    unsigned pfx_entries;          // initial entries of a prefix list
    unsigned max_sequences, max_conditions;
    unsigned mutate_percent;       // chance of changes before a route
    bool prefix_focus = false;     // sequences match on a prefix list, routes are virtual routes
};

// One randomized run: rounds with seeds first_seed, first_seed + 1, ...,
// each a new policy with four users (inbound and outbound, with and
// without a label callback) taking routes of every kind, on edge routers
// and controllers; the lists carry over from round to round.
class differential_run {
public:
    differential_run(t_pol_ctx *ctx, const shape &sh, execref::stats &st) : ctx_(ctx), sh_(sh), st_(st)
    {
        // Spans grow with the lists, so that long lists hold distinct
        // entries and routes still fall on them.
        rng_.spread = {std::max(26u, 2 * sh.list_entries), std::max(3u, sh.list_entries / 4),
                       std::max(4u, sh.pfx_entries / 20), sh.pfx_entries};
    }

    void run(uint64_t first_seed)
    {
        for (unsigned round = 0; round < sh_.rounds && failures_ < 5; round++) {
            seed_ = first_seed + round;
            rng_.seed(seed_);
            for (unsigned family = 0; round == 0 && family < execmodel::FAMILIES; family++) {
                auto fam = static_cast<execmodel::family>(family);
                for (unsigned i = 0; i < 6 * (fam == execmodel::PFX ? sh_.pfx_entries : sh_.list_entries); i++) {
                    execmodel::change_list(ctx_, rng_, fam, execmodel::ADD, kListNames[i % 3]);
                }
            }
            build_policy(round);
            for (route_ = 0; route_ < sh_.routes && failures_ < 5; route_++) {
                if (rng_.percent(sh_.mutate_percent)) {
                    mutate();
                }
                check_one_route();
            }
            drop_policy();
        }
    }

    unsigned max_te_entries = 0;
    unsigned walked = 0;  // executions that found an index allocation failing

private:
    // Inside or just beside a list's prefix: random bits past its length
    // (now and then only the first of them set, or its last bit flipped),
    // so that lookups land on entries and on the bit right after them.
    t_ipprefix near(t_ipprefix p)
    {
        unsigned width = width_of(p.addr), own = std::min<unsigned>(p.prefixlen, width);
        for (unsigned i = own; i < width; i++) {
            set_bit(p.addr, i, rng_.percent(30) ? i == own : rng_.percent(50));
        }
        if (own > 0 && rng_.percent(15)) {
            p.addr.u.addr6_b[(own - 1) / 8] ^= static_cast<uint8_t>(0x80u >> ((own - 1) % 8));
        }
        unsigned len = rng_.percent(10) ? rng_.below(width + 5) : own + rng_.below(width - own + 1);
        p.prefixlen = static_cast<uint8_t>(len);
        return p;
    }

    // Puts the value the last list change concerned into the route.
    void steer(const execmodel::touched &t, t_zen_attr &a, t_pol_exec_params &p)
    {
        using namespace execmodel;
        if (t.fam == SITE) {
            a.site_id = t.id;
        } else if (t.fam == VPN && p.safi != POL_SAFI_TLOC) {  // a service route's VPN id is the same word
            p.u.vroute_info.vpn_id = t.id;
        } else if (t.fam == TLOC) {
            a.tloc = t.tloc;
            p.u.tloc_info.tloc = p.safi == POL_SAFI_TLOC ? t.tloc : p.u.tloc_info.tloc;
        } else if (t.fam == COLOR) {
            a.tloc.color = static_cast<uint8_t>(t.color);
        } else if (t.fam == PFX && p.safi == POL_SAFI_VROUTE && rng_.percent(75)) {
            p.u.vroute_info.prefix = near(t.prefix);
        } else if (t.fam >= COMMUNITY) {
            if (a.community_p == nullptr || a.community_p->n_communities == 0) {
                std::free(a.community_p);
                a.community_p = static_cast<t_bgp_community *>(std::calloc(1, sizeof(t_bgp_community) + 4));
                a.community_p->n_communities = 1;
            }
            a.community_p->communities[t.community % a.community_p->n_communities] = t.community;
        }
    }

    void change_sequence(t_pol_entry *e, int kind, bool add) { execmodel::change_sequence(ctx_, rng_, e, kind, add); }

    // Sequences of every route kind (and of none or a wrong one) with
    // random conditions, action and set actions.
    void add_sequence(uint32_t num)
    {
        uint8_t ch = 0;
        t_pol_entry *e = pol_entry_find_or_create(ctx_, block_, num, &ch);
        ASSERT_NE(e, nullptr);
        static const e_pol_match_type kTypes[] = {POL_MATCH_VROUTE, POL_MATCH_VROUTE,  POL_MATCH_VROUTE,
                                                  POL_MATCH_VROUTE, POL_MATCH_TLOC,    POL_MATCH_TLOC,    POL_MATCH_SERVICE,
                                                  POL_MATCH_SERVICE, POL_MATCH_INVALID, POL_MATCH_PACKET};
        e_pol_match_type type = rng_.percent(90) ? POL_MATCH_VROUTE : POL_MATCH_SERVICE;
        pol_entry_match_add(ctx_, block_, e, sh_.prefix_focus ? type : rng_.pick(kTypes), &ch);
        if (sh_.prefix_focus) {
            change_sequence(e, execref::COND_PFX_LIST, true);
        }
        static const unsigned kConditionCounts[] = {0, 1, 1, 1, 2, 2, 2, 3, 3, 4};
        for (unsigned n = std::min(rng_.pick(kConditionCounts), sh_.max_conditions); n > 0; n--) {
            change_sequence(e, static_cast<int>(rng_.below(execref::COND_COUNT)), true);
        }
        static const e_pol_action kActions[] = {POL_ACTION_ACCEPT, POL_ACTION_ACCEPT, POL_ACTION_ACCEPT, POL_ACTION_ACCEPT,
                                                POL_ACTION_REJECT, POL_ACTION_REJECT, POL_ACTION_INVALID};
        pol_entry_action_add(ctx_, e, rng_.pick(kActions), &ch);
        for (int kind = kSetsFrom; kind < kKinds; kind++) {
            if (rng_.percent(30)) {
                change_sequence(e, kind, true);
            }
        }
    }

    void build_policy(unsigned round)
    {
        policy_name_ = "policy-" + std::to_string(round);
        block_type_ = rng_.percent(85) ? POL_TYPE_ROUTE : POL_TYPE_MEMBERSHIP;
        for (unsigned i = 0; i < 4; i++) {
            std::string user = policy_name_ + "-" + std::to_string(i);
            e_pol_dir dir = i % 2 ? POL_DIR_OUT : POL_DIR_IN;
            users_[i] = poltest::register_user(user.c_str(), policy_name_.c_str(), block_type_, dir);
            ASSERT_NE(users_[i], nullptr);
            users_[i]->pol_label_cb = i < 2 ? execmodel::hash_label_cb : nullptr;
        }
        ASSERT_NE(block_ = users_[0]->pol_block_p, nullptr);
        for (unsigned n = rng_.below(sh_.max_sequences + 1); n > 0; n--) {
            add_sequence(1 + rng_.below(100));  // in random order; a repeat number extends the sequence
        }
        execmodel::set_default(rng_, block_);
        pol_user_chg_list_notify_all(ctx_);
    }

    void drop_policy()
    {
        for (t_pol_user *&user : users_) {
            pol_unregister(&user);
        }
        uint8_t ch = 0;
        pol_block_find_and_delete(ctx_, policy_name_.c_str(), block_type_, &ch);
        pol_user_chg_list_notify_all(ctx_);
        block_ = nullptr;
    }

    std::vector<t_pol_entry *> sequences()
    {
        std::vector<t_pol_entry *> all;
        auto collect = [](void *record, void *arg) {
            static_cast<std::vector<t_pol_entry *> *>(arg)->push_back(static_cast<t_pol_entry *>(record));
            return 0;
        };
        if (block_ != nullptr) {
            avl_foreach(&block_->pol_entries, collect, &all);
        }
        return all;
    }

    void mutate()
    {
        unsigned what = rng_.below(100);
        std::vector<t_pol_entry *> seqs = sequences();
        t_pol_entry *seq = seqs.empty() ? nullptr : seqs[rng_.below(static_cast<uint32_t>(seqs.size()))];
        uint8_t ch = 0;
        if (what < 68) {
            using namespace execmodel;
            list_op op = what < 31 ? ADD : (what < 57 ? DELETE_ENTRY : (what < 63 ? DROP_LIST : REWRITE));
            bool pfx = op == REWRITE || (sh_.prefix_focus && rng_.percent(80));
            auto fam = pfx ? PFX : static_cast<family>(rng_.below(FAMILIES));
            const char *name = rng_.pick(kListNames);
            touched_ = change_list(ctx_, rng_, fam, op, name);  // the next route is steered onto it
            for (unsigned i = 0; op == DROP_LIST && sh_.list_entries > 20 && i < sh_.list_entries; i++) {
                change_list(ctx_, rng_, fam, ADD, name);  // a long list is configured anew
            }
        } else if (block_ == nullptr) {
            return;
        } else if (what < 86 && seq != nullptr) {
            uint32_t kind = what < 78 ? rng_.below(kSetsFrom) : kSetsFrom + rng_.below(kKinds - kSetsFrom);
            change_sequence(seq, static_cast<int>(kind), rng_.percent(50));
        } else if (what < 90) {
            add_sequence(1 + rng_.below(100));
        } else if (what < 94 && seq != nullptr) {
            pol_entry_find_and_delete(ctx_, block_, seq->entry_num, &ch);
        } else if (what < 96 && seq != nullptr) {  // a new route kind clears every condition of the sequence
            bool vroute = seq->match_entry.match_type == POL_MATCH_VROUTE;
            pol_entry_match_add(ctx_, block_, seq, vroute ? POL_MATCH_SERVICE : POL_MATCH_VROUTE, &ch);
        } else if (what < 99) {
            execmodel::set_default(rng_, block_);
        } else if (rng_.percent(20)) {  // the policy goes away under its users: they reject from now on
            pol_block_find_and_delete(ctx_, policy_name_.c_str(), block_type_, &ch);
            block_ = nullptr;
        }
        pol_user_chg_list_notify_all(ctx_);
    }

    void check_one_route()
    {
        t_zen_attr attr = execmodel::random_attr(rng_);
        bool in = rng_.percent(50);
        std::vector<t_pol_entry *> seqs = sequences();  // TLOC-list actions need a label callback
        bool plain = rng_.percent(25) && std::none_of(seqs.begin(), seqs.end(), [](t_pol_entry *e) {
                         return (e->entry_set_flags & POL_SET_FLAG_TLOC_LIST) != 0;
                     });
        t_pol_user *user = users_[(in ? 0 : 1) + (plain ? 2 : 0)];
        e_zen_device device = rng_.percent(50) ? ZEN_DEVICE_QARMON : ZEN_DEVICE_RIMBA;
        t_pol_exec_params lib, ref;
        pol_pre_execute(&lib, device);
        lib.attr_in_p = &attr;
        static const uint8_t kSafis[] = {1, 1, 1, 1, 1, 2, 2, 3, 3};
        lib.safi = sh_.prefix_focus && rng_.percent(90) ? POL_SAFI_VROUTE : rng_.pick(kSafis);
        lib.afi = rng_.percent(50) ? 2 : 10;
        if (lib.safi == POL_SAFI_TLOC) {
            lib.u.tloc_info.tloc = rng_.percent(50) ? attr.tloc : execmodel::random_tloc(rng_);
        } else {
            lib.u.vroute_info.vpn_id = execmodel::random_id(rng_, true);
        }
        if (lib.safi == POL_SAFI_VROUTE) {  // often on a prefix some list holds
            t_pfx_list_key key = {lib.afi == 10 ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kListNames)};
            bool listed = rng_.percent(sh_.prefix_focus ? 85 : 50);
            t_pfx_entry *e = listed ? execmodel::pfx_entry_at(ctx_, key, rng_.below(sh_.pfx_entries + 1)) : nullptr;
            lib.u.vroute_info.prefix = e != nullptr ? near(e->prefix) : execmodel::random_prefix(rng_, lib.afi == 10, true);
        }
        if (touched_ && rng_.percent(80)) {
            steer(*touched_, attr, lib);
        }
        touched_.reset();
        lib.in_label = static_cast<uint32_t>(rng_.bits());
        t_pol_te_info lib_te{}, ref_te{};
        lib.te_info_p = &lib_te;
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        ref.te_info_p = &ref_te;
        int64_t vpn_buffers = poltest::live_count(POL_MEM_LIST_VPN_1);
        e_pol_action lib_v = execute_starving_an_index(user, &lib);
        e_pol_action ref_v = execref::execute(user, &ref, &st_);
        max_te_entries = std::max(max_te_entries, lib_te.num_entries);
        std::vector<std::string> got = execmodel::outcome(lib_v, lib, lib_te);
        std::vector<std::string> want = execmodel::outcome(ref_v, ref, ref_te);
        failures_ += got != want ? 1 : 0;
        EXPECT_EQ(got, want) << "library vs reference, seed " << seed_ << " route " << route_ << " (safi "
                             << unsigned{lib.safi} << ", " << (in ? "in" : "out") << (plain ? ", no label callback" : "")
                             << ")";
        if (device == ZEN_DEVICE_QARMON) {
            pol_post_execute(&lib);
        } else {
            pol_free(lib.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);
        }
        EXPECT_EQ(poltest::live_count(POL_MEM_LIST_VPN_1), vpn_buffers)
            << "seed " << seed_ << " route " << route_ << ": more than one export buffer per execution";
        execref::release(&ref);
        std::free(attr.community_p);
    }

    // One route in five runs while the index of one list family cannot be
    // allocated (chosen by the route's number, leaving the random stream
    // alone): a list that needs a new index then answers from its entries.
    e_pol_action execute_starving_an_index(t_pol_user *user, t_pol_exec_params *lib)
    {
        static const e_pol_mem kIndexRows[] = {POL_MEM_LIST_SITE, POL_MEM_LIST_VPN, POL_MEM_LIST_PREFIX};
        if ((seed_ + route_) % 5 != 0) {
            return pol_execute(user, lib);
        }
        const e_pol_mem row = kIndexRows[(seed_ + route_) / 5 % 3];
        const uint64_t tries = g_pol_mem_info[row].alloc;
        poltest::AllocFailure fail(row);
        e_pol_action verdict = pol_execute(user, lib);
        walked += g_pol_mem_info[row].alloc != tries ? 1 : 0;
        return verdict;
    }

    t_pol_ctx *ctx_;
    shape sh_;
    execref::stats &st_;
    rng rng_{0};
    uint64_t seed_ = 0;
    unsigned route_ = 0, failures_ = 0;
    std::string policy_name_;
    t_pol_user *users_[4] = {};
    t_pol_block *block_ = nullptr;
    e_pol_type block_type_ = POL_TYPE_ROUTE;
    std::optional<execmodel::touched> touched_;  // the next route is steered onto it
};

class ExecDifferential : public poltest::PolContextTest {
protected:
    // Every condition must have been seen holding and failing, every set
    // action applied and every verdict given: otherwise the run proved
    // little. Long lists make single-value conditions rare: those runs
    // check the list conditions only.
    differential_run run(const shape &sh, uint64_t seed, execref::stats &st)
    {
        differential_run r(ctx_, sh, st);
        r.run(seed);
        EXPECT_GT(r.walked, 0u) << "no route was answered from a list's entries";
        for (int k = 0; k < execref::COND_COUNT; k++) {
            bool exempt = sh.list_entries > 20 && !std::string(execref::condition_name(k)).ends_with("list");
            EXPECT_TRUE(st.held[k] > 0 || exempt) << "never held: " << execref::condition_name(k);
            EXPECT_TRUE(st.failed[k] > 0 || exempt) << "never failed: " << execref::condition_name(k);
        }
        for (int k = 0; k < execref::SET_COUNT; k++) {
            EXPECT_GT(st.applied[k], 0u) << "set action never applied: " << execref::set_name(k);
        }
        EXPECT_TRUE(st.accepted && st.rejected && st.invalid && st.by_default && st.unresolved_tloc &&
                    st.ultimate_fallback)
            << st.accepted << " accepted, " << st.rejected << " rejected, " << st.invalid << " invalid, "
            << st.by_default << " by default, " << st.unresolved_tloc << " unresolved TLOCs, "
            << st.ultimate_fallback << " ultimate fallbacks";
        return r;
    }
};

// Small lists, and lists and policies changing before most routes.
TEST_F(ExecDifferential, ChangingListsAndPoliciesAgreeWithReference)
{
    execref::stats st;
    run(shape{250, 60, 5, 10, 8, 4, 70}, 1000, st);
}

// Lists long enough to fill the export buffer (128 ranges) and the label
// table (64 entries), and prefix lists with many lengths and groups.
TEST_F(ExecDifferential, LargeListsAgreeWithReference)
{
    execref::stats st;
    differential_run r = run(shape{60, 100, 160, 600, 6, 2, 30}, 9000, st);
    EXPECT_GT(st.vpn_truncated, 0u);  // the library's buffer full too, as the outcomes agree
    EXPECT_EQ(r.max_te_entries, static_cast<unsigned>(POL_MAX_TE_ENTRIES));
}

// Every sequence matches on a prefix list; routes fall inside, beside and
// just past the entries while the prefix lists change before most routes.
TEST_F(ExecDifferential, PrefixListsAgreeWithReference)
{
    execref::stats st;
    run(shape{120, 80, 4, 40, 6, 1, 80, true}, 13000, st);
    EXPECT_GT(st.held[execref::COND_PFX_LIST], 1000u);
    EXPECT_GT(st.failed[execref::COND_PFX_LIST], 1000u);
}

/* ---- prefix tables and operators ---- */

t_ipprefix parse_prefix(const std::string &text)
{
    t_ipprefix p{};
    EXPECT_TRUE(polctl::parse_prefix(text, &p)) << text;
    return p;
}

// Ten prefix lists of 1,500 entries, half of them IPv6, behind ten
// sequences: the policy's tables pass the size from which they are split by
// first byte, prefixes of the short lengths recur across lists (groups of
// several rules), and lines overflow. Routes fall inside, beside and away
// from the entries; the outcomes must agree.
TEST_F(ExecDifferential, LargePrefixTablesAgreeWithReference)
{
    t_pol_user *user = poltest::register_user("large-prefix", "large-prefix-policy");
    std::mt19937 gen(20240917);
    auto below = [&](uint32_t n) { return static_cast<uint32_t>(gen() % n); };
    static const uint8_t kFirst[] = {0, 10, 11, 172, 192, 0x20};
    auto random_prefix = [&](bool v6, uint8_t len) {
        t_ipprefix p{};
        p.addr.addr_type = v6 ? IP_ADDR_V6 : IP_ADDR_V4;
        p.addr.u.addr6_b[0] = kFirst[below(6)];
        for (unsigned i = 8; i < width_of(p.addr); i++) {
            set_bit(p.addr, i, i < len && below(2) == 1);
        }
        p.prefixlen = len;
        return p;
    };
    std::vector<t_ipprefix> entries;
    uint8_t ch = 0;
    for (uint32_t l = 0; l < 10; l++) {
        const std::string name = "large-" + std::to_string(l);
        const bool v6 = l % 2 == 1;
        const t_pfx_list_key key = {v6 ? POL_AF_IPV6 : POL_AF_IPV4, name.c_str()};
        const unsigned width = v6 ? 128 : 32;
        for (uint32_t i = 0; i < 1500; i++) {
            const uint8_t len = static_cast<uint8_t>(below(8) == 0 ? 4 + below(9) : 12 + below(width - 11));
            t_pfx_entry_param e{static_cast<e_pfx_op>(below(PFX_OP_GT + 1)), random_prefix(v6, len),
                                static_cast<uint8_t>(len + below(width - len + 1)), 0};
            e.preflen_max = static_cast<uint8_t>(e.preflen_min + below(width - e.preflen_min + 1));
            if (pol_pfx_list_entry_add(ctx_, &key, &e) == ERR_OK) {
                entries.push_back(e.prefix);
            }
        }
        t_pol_entry *seq = pol_entry_find_or_create(ctx_, user->pol_block_p, 10 * (l + 1), &ch);
        pol_entry_match_add(ctx_, user->pol_block_p, seq, POL_MATCH_VROUTE, &ch);
        pol_entry_action_add(ctx_, seq, l % 3 == 0 ? POL_ACTION_REJECT : POL_ACTION_ACCEPT, &ch);
        pol_entry_set_preference_add(ctx_, seq, l + 1, &ch);
        ASSERT_NE(pol_entry_match_pfx_list_add(ctx_, seq, &key, &ch), nullptr);
    }
    pol_user_chg_list_notify_all(ctx_);
    unsigned verdicts[POL_ACTION_REJECT + 1] = {};
    for (unsigned r = 0; r < 6000; r++) {
        t_ipprefix route = entries[below(entries.size())];
        const unsigned width = width_of(route.addr);
        if (below(5) == 0) {
            route = random_prefix(width == 128, static_cast<uint8_t>(below(width + 1)));
        }
        for (unsigned i = route.prefixlen; i < width; i++) {
            set_bit(route.addr, i, below(2) == 1);
        }
        route.prefixlen = static_cast<uint8_t>(route.prefixlen + below(width - route.prefixlen + 1));
        t_zen_attr attr{};
        t_pol_te_info te{};
        t_pol_exec_params lib, ref;
        pol_pre_execute(&lib, ZEN_DEVICE_RIMBA);
        lib.attr_in_p = &attr;
        lib.safi = POL_SAFI_VROUTE;
        lib.u.vroute_info.prefix = route;
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        const e_pol_action verdict = pol_execute(user, &lib);
        const std::vector<std::string> want = execmodel::outcome(execref::execute(user, &ref), ref, te);
        execref::release(&ref);
        ASSERT_EQ(execmodel::outcome(verdict, lib, te), want) << "route " << r;
        verdicts[verdict]++;
    }
    EXPECT_GT(verdicts[POL_ACTION_ACCEPT], 1000u);
    EXPECT_GT(verdicts[POL_ACTION_REJECT], 1000u);
    pol_unregister(&user);
}

// Each operator admits the routes 10.0.0.0/len (len 0 to 32) inside its
// entry of one window of lengths, the entry's host bits not counted; an
// all-zero entry of length 0 reaches routes outside it unless its operator
// compares with its own length. The operators a configuration states are
// those its ge and le lengths (0: not given) pick.
TEST_F(ExecDifferential, PrefixOperatorsAdmitTheLengthsTheyMean)
{
    constexpr int BOUNDS = -1;  // the operator pfx_op_of_bounds picks from min (ge) and max (le)
    const struct {
        const char *entry;
        int op;
        uint8_t min, max;
        e_pfx_op picked;    // configured rows: the operator expected
        unsigned lo, hi;    // the lengths admitted
    } kRows[] = {
        {"10.0.0.0/8", BOUNDS, 0, 0, PFX_OP_EQ, 8, 8},          {"10.0.0.0/8", BOUNDS, 16, 0, PFX_OP_GE, 16, 32},
        {"10.0.0.0/8", BOUNDS, 0, 24, PFX_OP_LE, 8, 24},        {"10.0.0.0/8", BOUNDS, 16, 24, PFX_OP_RANGE, 16, 24},
        {"10.0.0.0/8", BOUNDS, 8, 8, PFX_OP_RANGE, 8, 8},       {"10.0.0.0/8", BOUNDS, 24, 16, PFX_OP_RANGE, 1, 0},
        {"10.0.0.0/8", BOUNDS, 4, 0, PFX_OP_GE, 8, 32},         {"10.0.0.0/8", BOUNDS, 0, 4, PFX_OP_LE, 1, 0},
        {"10.0.0.0/8", PFX_OP_NONE, 0, 32, {}, 8, 8},           {"10.0.0.0/8", PFX_OP_NE, 0, 0, {}, 9, 32},
        {"10.0.0.0/8", PFX_OP_XRANGE, 16, 24, {}, 17, 23},      {"10.0.0.0/8", PFX_OP_GT, 16, 32, {}, 17, 32},
        {"10.0.0.0/8", PFX_OP_LE, 30, 16, {}, 8, 16},           {"10.0.0.0/8", PFX_OP_LT, 20, 32, {}, 8, 19},
        {"10.0.0.0/8", 9, 0, 32, {}, 1, 0},                     {"10.1.2.3/8", PFX_OP_GE, 0, 0, {}, 8, 32},
        {"0.0.0.0/0", PFX_OP_EQ, 0, 0, {}, 0, 0},               {"11.0.0.0/8", PFX_OP_LE, 0, 32, {}, 1, 0},
        {"::/0", PFX_OP_GE, 20, 0, {}, 20, 32},                 {"::/0", PFX_OP_LE, 0, 24, {}, 0, 24},
        {"::/0", PFX_OP_NONE, 0, 0, {}, 1, 0},                  {"::/0", PFX_OP_NE, 0, 0, {}, 1, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(std::string(row.entry) + " op " + std::to_string(row.op) + " " + std::to_string(row.min) +
                     ".." + std::to_string(row.max));
        t_pfx_entry entry{};
        entry.pfx_op = row.op == BOUNDS ? pol::pfx_op_of_bounds(row.min, row.max) : static_cast<e_pfx_op>(row.op);
        EXPECT_TRUE(row.op != BOUNDS || entry.pfx_op == row.picked) << "picked " << entry.pfx_op;
        entry.prefix = parse_prefix(row.entry);
        entry.preflen_min = row.min;
        entry.preflen_max = row.max;
        t_pol_exec_params route{};
        for (unsigned len = 0; len <= 32; len++) {
            route.u.vroute_info.prefix = parse_prefix("10.0.0.0/" + std::to_string(len));
            EXPECT_EQ(pol_exec_match_pfx_entry(&entry, &route), row.lo <= len && len <= row.hi) << "length " << len;
        }
    }
}

/* ---- expanded community patterns ---- */

// A route's community record with the text expanded patterns read, as
// community_list_getstr renders it, and the per-entry answer the
// library's value sets and pattern automaton must give for it: regexec of
// each compiled pattern over that text.
struct community_record {
    std::vector<unsigned char> bytes;
    char text[POL_COMMUNITY_LIST_STR_SIZE];
    t_bgp_community *get() { return reinterpret_cast<t_bgp_community *>(bytes.data()); }
    explicit community_record(const std::vector<uint32_t> &values)
        : bytes(sizeof(t_bgp_community) + values.size() * sizeof(uint32_t))
    {
        get()->n_communities = static_cast<uint32_t>(values.size());
        std::copy(values.begin(), values.end(), get()->communities);
        community_list_getstr(text, get()->communities, get()->n_communities);
    }

    bool regexec_answer(t_community_list *list)
    {
        for (t_community_entry *e = TAILQ_FIRST(&list->community_entry_head); e; e = TAILQ_NEXT(e, community_entry)) {
            if (regexec(&e->comppattern, text, 0, nullptr, 0) == 0) {
                return true;
            }
        }
        return false;
    }
};

std::string community_string(uint32_t v)
{
    char buf[POL_COMMUNITY_STR_SIZE];
    return community_getstr(v, buf, sizeof(buf));
}

// Pieces of patterns: community texts as they render and as they never do,
// and the constructs of extended expressions, some of which the automaton
// reads differently (backslash classes, bracket escapes, intervals without
// a lower bound) and must leave to regexec.
std::string random_pattern(rng &r, const std::vector<uint32_t> &pool)
{
    static const char *const kAtoms[] = {
        "65000", "65001", ":", "1", "2", "0", "100", "no-export", "local-AS", "internet", ".", "[0-9]",
        "[0-9]+", "[^ ]*", "[[:digit:]]", "[]:]", "[a-z-]", " ", "\\.", "\\d", "[\\]", "x{,2}", "{", "6{2}",
        "5{1,3}", "(0|1)", "()", "a|", "\\(", "[[:alpha:]]+", "[[=a=]]", "\\<", "\\1", "(1)\\1", "^*", "(*0)", "1{0,1001}",
    };
    static const char *const kLeft[] = {"(^| )", "( |^)", "^", "", ""};
    static const char *const kRight[] = {"( |$)", "($| )", "$", "", ""};
    static const char *const kRepeat[] = {"", "", "", "*", "+", "?", "{2}", "{0,1}", "{1,}", "**"};
    static const char *const kUpperHalf[] = {"65000:", "65001:[0-9]+", "65000:[0-9]*", "065000:", "1:[0-9]+",
                                             "65535:", "0:[0-9]+"};
    auto community = [&] {
        if (r.percent(15)) {
            return std::string(r.percent(50) ? "065000:1" : (r.percent(50) ? "65535:65281" : "0:0"));
        }
        if (r.percent(20)) {
            return std::string(r.pick(kUpperHalf));
        }
        return community_string(pool[r.below(static_cast<uint32_t>(pool.size()))]);
    };
    std::string p;
    const unsigned units = 1 + r.below(3);
    for (unsigned u = 0; u < units; u++) {
        p += u > 0 ? "|" : "";
        if (r.percent(45)) {  // a whole-community shape
            p += r.pick(kLeft);
            if (r.percent(30)) {
                p += "(" + community() + "|" + community() + ")";
            } else {
                p += community();
            }
            p += r.pick(kRight);
            continue;
        }
        for (unsigned a = 1 + r.below(4); a > 0; a--) {
            p += r.percent(30) ? community() : r.pick(kAtoms);
            p += r.pick(kRepeat);
        }
    }
    return p;
}

// Random expanded lists against random routes: every verdict of the value
// sets, the automaton and the residual patterns equals the per-entry
// regexec answer, also when the index cannot be allocated, and the text
// the patterns read is the rendering of community_list_getstr, routes too
// long for it included.
TEST_F(ExecDifferential, RandomExpandedPatternsAgreeWithRegexecPerEntry)
{
    rng r(2026);
    const std::vector<uint32_t> pool = {0u, 0xFFFFFF01u, 0xFFFFFF02u, 0xFFFFFF03u, 65000u << 16 | 1, 65000u << 16 | 2,
                                        65001u << 16 | 100, 1u << 16 | 1, 65535u << 16 | 65284, 10u << 16 | 0};
    unsigned verdicts[2] = {0, 0};
    for (unsigned batch = 0; batch < 300; batch++) {
        ASSERT_EQ(pol_community_list_cfg_del(ctx_, "random", COMM_LIST_TYPE_EXPANDED), ERR_OK);
        std::string all;  // the patterns, for a failure's message
        for (unsigned n = 1 + r.below(6); n > 0;) {
            std::string p = random_pattern(r, pool);
            regex_t probe;
            if (regcomp(&probe, p.c_str(), REG_EXTENDED | REG_NOSUB) == 0) {
                ASSERT_EQ(pol_community_list_add_entry(ctx_, "random", p.c_str(), COMM_LIST_TYPE_EXPANDED), ERR_OK);
                all += " [" + p + "]";
                n--;
            }
            regfree(&probe);
        }
        t_community_list *list = pol_community_list_find(ctx_, "random", COMM_LIST_TYPE_EXPANDED);
        for (unsigned route = 0; route < 40; route++) {
            std::vector<uint32_t> values(r.percent(5) ? 40 + r.below(20) : r.below(5));
            for (uint32_t &v : values) {
                v = r.percent(70) ? pool[r.below(static_cast<uint32_t>(pool.size()))] : static_cast<uint32_t>(r.bits());
            }
            community_record rec(values);
            pol::community_text text;
            const bool want = rec.regexec_answer(list);
            std::optional<poltest::AllocFailure> fail;
            if (batch % 10 == 9) {
                fail.emplace(POL_MEM_LIST_COMMUNITY);
                pol::free_exec_index(&list->exec_index);
            }
            ASSERT_EQ(pol::community_list_matches(list, *rec.get(), text), want)
                << "patterns" << all << " text '" << (text.ready ? text.text : "(not rendered)") << "'";
            ASSERT_STREQ(text.of(*rec.get()), rec.text);  // rendered for the patterns or now, cut where it must be
            ASSERT_EQ(text.length, std::strlen(rec.text));
            verdicts[want]++;
        }
    }
    EXPECT_GT(verdicts[0], 1000u);
    EXPECT_GT(verdicts[1], 1000u);
}

}  // namespace
