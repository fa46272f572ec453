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

/* ---- hand-worked prefix cases ---- */

t_ipprefix parse_prefix(const std::string &text)
{
    t_ipprefix p{};
    bool ipv6 = text.find(':') != std::string::npos;
    p.addr.addr_type = ipv6 ? IP_ADDR_V6 : IP_ADDR_V4;
    EXPECT_EQ(inet_pton(ipv6 ? AF_INET6 : AF_INET, text.substr(0, text.find('/')).c_str(), p.addr.u.addr6_b), 1);
    p.prefixlen = static_cast<uint8_t>(std::stoi(text.substr(text.find('/') + 1)));
    return p;
}

// A virtual route of a prefix, with no attributes, through the library
// and the reference.
struct vroute_run {
    t_zen_attr attr{};
    t_pol_exec_params lib, ref;
    e_pol_action lib_v, ref_v;

    vroute_run(t_pol_user *user, const t_ipprefix &prefix)
    {
        pol_pre_execute(&lib, ZEN_DEVICE_RIMBA);
        lib.attr_in_p = &attr;
        lib.safi = POL_SAFI_VROUTE;
        lib.u.vroute_info.prefix = prefix;
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        lib_v = pol_execute(user, &lib);
        ref_v = execref::execute(user, &ref);
    }
    ~vroute_run() { execref::release(&ref); }
};

struct prefix_case {
    e_pol_af list_af;
    const char *entry;
    int op;
    uint8_t min, max;
    const char *route;
    bool matches;
};

constexpr e_pol_af V4 = POL_AF_IPV4, V6 = POL_AF_IPV6;
constexpr int NONE = PFX_OP_NONE, RANGE = PFX_OP_RANGE, XRANGE = PFX_OP_XRANGE, EQ = PFX_OP_EQ, NE = PFX_OP_NE,
              LE = PFX_OP_LE, LT = PFX_OP_LT, GE = PFX_OP_GE, GT = PFX_OP_GT;

// clang-format off
const prefix_case kPrefixCases[] = {
    // A zero prefix of length 0 skips containment, except with NONE, EQ and NE.
    {V4, "0.0.0.0/0", LE, 0, 24, "0.0.0.0/0", true},       {V4, "0.0.0.0/0", LE, 0, 24, "10.1.2.0/24", true},
    {V4, "0.0.0.0/0", LE, 0, 24, "10.1.2.0/25", false},    {V4, "0.0.0.0/0", EQ, 0, 0, "0.0.0.0/0", true},
    {V4, "0.0.0.0/0", EQ, 0, 0, "10.0.0.0/8", false},      {V4, "0.0.0.0/0", NONE, 0, 0, "10.0.0.0/8", false},
    {V4, "0.0.0.0/0", NE, 0, 0, "10.0.0.0/8", true},       {V4, "0.0.0.0/0", GE, 8, 0, "8.0.0.0/7", false},
    {V4, "0.0.0.0/0", RANGE, 8, 24, "10.0.0.0/8", true},   {V4, "0.0.0.0/0", RANGE, 8, 24, "10.0.0.0/7", false},
    {V4, "0.0.0.0/0", RANGE, 8, 24, "10.0.0.0/25", false}, {V4, "::/0", GE, 0, 0, "10.0.0.0/8", true},
    {V4, "::/0", NE, 0, 0, "10.0.0.0/8", false},           {V4, "::/0", NONE, 0, 0, "10.0.0.0/8", false},
    {V6, "0.0.0.0/0", LE, 0, 32, "2001:db8::/32", true},   {V6, "0.0.0.0/0", NE, 0, 0, "2001:db8::/32", false},
    {V6, "0.0.0.0/0", EQ, 0, 0, "::/0", false},            {V6, "::/0", LE, 0, 64, "2001:db8:1::/48", true},
    // NONE, EQ and NE compare with the entry's own length.
    {V4, "10.0.0.0/8", NE, 0, 0, "10.1.0.0/16", true},     {V4, "10.0.0.0/8", NE, 0, 0, "11.0.0.0/16", false},
    {V4, "10.0.0.0/8", NE, 0, 0, "10.0.0.0/8", false},     {V4, "10.0.0.0/8", NONE, 0, 0, "10.0.0.0/9", false},
    // LE reads the max bound; LT, GE and GT the min.
    {V4, "10.0.0.0/8", LE, 30, 16, "10.1.0.0/16", true},   {V4, "10.0.0.0/8", LE, 30, 16, "10.1.1.0/24", false},
    {V4, "10.0.0.0/8", LT, 20, 0, "10.1.0.0/16", true},    {V4, "10.0.0.0/8", LT, 20, 0, "10.1.1.0/20", false},
    {V4, "10.0.0.0/8", LT, 24, 32, "10.1.0.0/23", true},   {V4, "10.0.0.0/8", LT, 24, 32, "10.1.0.0/24", false},
    {V4, "10.0.0.0/8", GE, 16, 0, "10.1.0.0/16", true},    {V4, "10.0.0.0/8", GE, 16, 0, "10.0.0.0/15", false},
    {V4, "10.0.0.0/8", GT, 16, 0, "10.1.1.0/17", true},    {V4, "10.0.0.0/8", GT, 16, 0, "10.1.0.0/16", false},
    {V4, "10.0.0.0/8", GT, 16, 32, "10.1.0.0/17", true},   {V4, "10.0.0.0/8", GT, 16, 32, "10.1.0.0/16", false},
    {V4, "10.0.0.0/8", RANGE, 16, 24, "10.1.1.0/24", true}, {V4, "10.0.0.0/8", RANGE, 16, 24, "10.1.1.0/25", false},
    {V4, "10.0.0.0/8", RANGE, 8, 32, "11.1.0.0/16", false}, {V4, "10.0.0.0/8", XRANGE, 16, 24, "10.1.0.0/16", false},
    {V4, "10.0.0.0/8", XRANGE, 16, 24, "10.1.0.0/17", true}, {V4, "10.0.0.0/8", XRANGE, 16, 24, "10.1.1.0/24", false},
    {V4, "10.0.0.0/8", 9, 0, 32, "10.1.1.0/24", false},
    // Host bits of the entry do not count (lengths past the width are refused by the store).
    {V4, "10.1.2.3/8", LE, 0, 32, "10.200.0.0/16", true},
    // The list's family, then the entry's, must be the route's.
    {V4, "2001:db8::/32", LE, 0, 128, "10.0.0.0/8", false}, {V6, "0.0.0.0/0", GE, 0, 0, "10.0.0.0/8", false},
    {V6, "2001:db8::/32", LE, 0, 64, "2001:db8:1::/48", true},
    {V6, "2001:db8::/32", LE, 0, 64, "2001:db9:1::/48", false},
    {V6, "2001:db8::/100", LE, 0, 128, "2001:db8::800:0/128", true},
    {V6, "2001:db8::/100", LE, 0, 128, "2001:db8::1000:0/128", false},
    {V6, "2001:db8::/65", GE, 65, 0, "2001:db8::4000:0:0:0/80", true},
    {V6, "2001:db8::/33", GE, 33, 0, "2001:db8:8000::/40", false},
    {V6, "2001:db8::/33", GE, 33, 0, "2001:db8:7fff::/48", true},
};
// clang-format on

// Each case as the only entry of the list a sequence matches on, through
// the library and the reference, and where the list is of the route's
// family the entry alone through pol_exec_match_pfx_entry.
TEST_F(ExecDifferential, HandWorkedPrefixCasesGiveTheSameVerdictEverywhere)
{
    t_pol_user *user = poltest::register_user("prefix-cases", "prefix-policy");
    uint8_t ch = 0;
    t_pol_entry *seq = pol_entry_find_or_create(ctx_, user->pol_block_p, 10, &ch);
    pol_entry_match_add(ctx_, user->pol_block_p, seq, POL_MATCH_VROUTE, &ch);
    pol_entry_action_add(ctx_, seq, POL_ACTION_ACCEPT, &ch);
    for (const prefix_case &c : kPrefixCases) {
        SCOPED_TRACE(std::string(c.entry) + " op " + std::to_string(c.op) + " " + std::to_string(c.min) + ".." +
                     std::to_string(c.max) + ", route " + c.route);
        t_pfx_list_key key = {c.list_af, "cases"};
        ASSERT_NE(pol_entry_match_pfx_list_add(ctx_, seq, &key, &ch), nullptr);
        pol_pfx_list_cfg_del(ctx_, &key);
        t_pfx_entry_param e{static_cast<e_pfx_op>(c.op), parse_prefix(c.entry), c.min, c.max};
        ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &key, &e), ERR_OK);
        vroute_run run(user, parse_prefix(c.route));
        if (IPPREFIX_IS_V4(&run.lib.u.vroute_info.prefix) == (c.list_af == V4)) {
            t_pfx_entry *only = TAILQ_FIRST(&pol_pfx_list_find(ctx_, &key)->pfx_entry_head);
            EXPECT_EQ(pol_exec_match_pfx_entry(only, &run.lib), c.matches) << "entry alone";
        }
        e_pol_action want = c.matches ? POL_ACTION_ACCEPT : POL_ACTION_REJECT;
        EXPECT_EQ(run.lib_v, want) << "library";
        EXPECT_EQ(run.ref_v, want) << "reference";
    }
    pol_unregister(&user);
}

// Ten prefix lists of 1,500 entries, half of them IPv6, behind ten
// sequences: the policy's tables pass the size from which they are split by
// first byte, prefixes of the short lengths recur across lists (groups of
// several rules), and lines overflow. Routes fall inside, beside and away
// from the entries; verdict, match flags and preference must agree.
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
        const t_pfx_list_key key = {v6 ? V6 : V4, name.c_str()};
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
        vroute_run run(user, route);
        ASSERT_EQ(run.lib_v, run.ref_v) << "route " << r;
        EXPECT_EQ(run.lib.entry_match_flags, run.ref.entry_match_flags) << "route " << r;
        EXPECT_EQ(run.lib.attr_out.preference, run.ref.attr_out.preference) << "route " << r;
        verdicts[run.lib_v]++;
    }
    EXPECT_GT(verdicts[POL_ACTION_ACCEPT], 1000u);
    EXPECT_GT(verdicts[POL_ACTION_REJECT], 1000u);
    pol_unregister(&user);
}

// Configured ge and le lengths (0: not given) pick the operator that admits
// what they say: the entry 10.0.0.0/8 admits the routes inside it of
// lengths ge to le, ge and longer, up to le, or, with neither, its own.
TEST_F(ExecDifferential, ConfiguredBoundsPickTheOperatorTheyMean)
{
    const struct {
        uint8_t ge, le;
        e_pfx_op op;
        unsigned lo, hi;  // the lengths admitted
    } kBounds[] = {
        {0, 0, PFX_OP_EQ, 8, 8},         {16, 0, PFX_OP_GE, 16, 32},     {0, 24, PFX_OP_LE, 8, 24},
        {16, 24, PFX_OP_RANGE, 16, 24},  {8, 8, PFX_OP_RANGE, 8, 8},     {24, 16, PFX_OP_RANGE, 1, 0},
        {4, 0, PFX_OP_GE, 8, 32},        {0, 4, PFX_OP_LE, 1, 0},
    };
    for (const auto &b : kBounds) {
        SCOPED_TRACE("ge " + std::to_string(b.ge) + " le " + std::to_string(b.le));
        EXPECT_EQ(pol::pfx_op_of_bounds(b.ge, b.le), b.op);
        t_pfx_entry entry{};
        entry.pfx_op = pol::pfx_op_of_bounds(b.ge, b.le);
        entry.prefix = parse_prefix("10.0.0.0/8");
        entry.preflen_min = b.ge;
        entry.preflen_max = b.le;
        t_pol_exec_params route{};
        for (unsigned len = 0; len <= 32; len++) {
            route.u.vroute_info.prefix = parse_prefix("10.0.0.0/" + std::to_string(len));
            EXPECT_EQ(pol_exec_match_pfx_entry(&entry, &route), b.lo <= len && len <= b.hi) << "length " << len;
        }
    }
}

/* ---- expanded community patterns ---- */

// A route's community record, and the per-entry answer the library's value
// sets and pattern automaton must give for it: regexec of each compiled
// pattern over the rendered text.
struct community_record {
    std::vector<unsigned char> bytes;
    t_bgp_community *get() { return reinterpret_cast<t_bgp_community *>(bytes.data()); }
    explicit community_record(const std::vector<uint32_t> &values)
        : bytes(sizeof(t_bgp_community) + values.size() * sizeof(uint32_t))
    {
        get()->n_communities = static_cast<uint32_t>(values.size());
        std::copy(values.begin(), values.end(), get()->communities);
    }

    bool regexec_answer(t_community_list *list)
    {
        char text[POL_COMMUNITY_LIST_STR_SIZE];
        community_list_getstr(text, get()->communities, get()->n_communities);
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

// Hand-worked verdicts for the shapes the library answers without the
// text, and the rendering that the text-bound patterns see.
TEST_F(ExecDifferential, ExpandedPatternShapesMeanWhatRegexecMeans)
{
    const struct {
        const char *pattern;
        std::vector<uint32_t> route;
        bool matches;
    } kCases[] = {
        {"^65000:1$", {65000u << 16 | 1}, true},
        {"^65000:1$", {65000u << 16 | 1, 65000u << 16 | 2}, false},
        {"(^| )65000:1( |$)", {7, 65000u << 16 | 1, 9}, true},
        {"(^| )65000:1( |$)", {65000u << 16 | 10}, false},
        {"^(65000:1|65000:2)( |$)", {65000u << 16 | 2, 3}, true},
        {"^(65000:1|65000:2)( |$)", {3, 65000u << 16 | 2}, false},
        {"(^| )65000:2$", {3, 65000u << 16 | 2}, true},
        {"(^| )65535:65281( |$)", {0xFFFFFF01u}, false},  // renders as no-export
        {"(^| )no-export( |$)", {0xFFFFFF01u}, true},
        {"^0:0$", {0}, false},  // renders as internet
        {"65000:1", {65000u << 16 | 10}, true},
        {"^$", {}, true},
        {"(^| )1:1( |$)", std::vector<uint32_t>(60, 2u << 16 | 2), false},
        {"^65100:", {65100u << 16 | 7, 1}, true},
        {"^65100:", {1, 65100u << 16 | 7}, false},
        {"(^| )65200:[0-9]+$", {1, 65200u << 16 | 9}, true},
        {"^65100:$", {65100u << 16 | 7}, false},
        {"(^| )65535:", {0xFFFFFF01u}, false},  // no-export has no upper half in its text
        {"no-export", {1, 0xFFFFFF01u}, true},
        {"5100:", {65100u << 16 | 7}, true},  // inside a token: left to the automaton
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.pattern);
        ASSERT_EQ(pol_community_list_cfg_del(ctx_, "shapes", COMM_LIST_TYPE_EXPANDED), ERR_OK);
        ASSERT_EQ(pol_community_list_add_entry(ctx_, "shapes", c.pattern, COMM_LIST_TYPE_EXPANDED), ERR_OK);
        t_community_list *list = pol_community_list_find(ctx_, "shapes", COMM_LIST_TYPE_EXPANDED);
        community_record rec(c.route);
        pol::community_text text;
        EXPECT_EQ(pol::community_list_matches(list, *rec.get(), text), c.matches);
        EXPECT_EQ(rec.regexec_answer(list), c.matches);
    }
    // The last route does not fit the text: the rendering stops before the
    // community that would not fit, as community_list_getstr does.
    std::vector<uint32_t> too_long(60, 65535u << 16 | 65535);
    too_long[41] = 1u << 16 | 1;
    community_record rec(too_long);
    char want[POL_COMMUNITY_LIST_STR_SIZE], got[POL_COMMUNITY_LIST_STR_SIZE];
    community_list_getstr(want, rec.get()->communities, rec.get()->n_communities);
    EXPECT_EQ(pol::render_communities(got, rec.get()->communities, rec.get()->n_communities), std::strlen(want));
    EXPECT_STREQ(got, want);
}

// Random expanded lists against random routes: every verdict of the value
// sets, the automaton and the residual patterns equals the per-entry
// regexec answer, also when the index cannot be allocated.
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
            verdicts[want]++;
        }
    }
    EXPECT_GT(verdicts[0], 1000u);
    EXPECT_GT(verdicts[1], 1000u);
}

}  // namespace
