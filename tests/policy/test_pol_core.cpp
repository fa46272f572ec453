// Memory accounting and its report, policy blocks and sequences, and the
// collectors of cflowd templates.
#include <bsd/string.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using PolMemReport = PolContextTest;
using PolBlock = PolContextTest;
using PolCflowd = PolContextTest;

TEST(PolMem, CountsOnlyRealCategoriesAndTracksPeak)
{
    std::vector<t_pol_mem_info> before(g_pol_mem_info, g_pol_mem_info + POL_MEM_MAX + 1);
    pol_free(nullptr, POL_MEM_BLOCK);
    pol_free(pol_malloc(16, POL_MEM_UNKNOWN), POL_MEM_UNKNOWN);
    pol_free(pol_calloc(2, 8, POL_MEM_MAX), POL_MEM_MAX);
    std::free(pol_realloc(nullptr, 32));
    EXPECT_TRUE(std::equal(before.begin(), before.end(), g_pol_mem_info,
                           [](auto &x, auto &y) { return x.alloc == y.alloc && x.free == y.free; }));

    // Three live at the peak, then two freed and one more allocated.
    const t_pol_mem_info r0 = g_pol_mem_info[POL_MEM_XML_1];
    void *p[3] = {pol_malloc(4, POL_MEM_XML_1), pol_malloc(4, POL_MEM_XML_1), pol_calloc(1, 4, POL_MEM_XML_1)};
    pol_free(p[0], POL_MEM_XML_1);
    pol_free(p[1], POL_MEM_XML_1);
    p[0] = pol_malloc(4, POL_MEM_XML_1);
    const t_pol_mem_info &r1 = g_pol_mem_info[POL_MEM_XML_1];
    EXPECT_TRUE(r1.alloc - r0.alloc == 4u && r1.free - r0.free == 2u &&
                r1.max_alloc == std::max(r0.max_alloc, r0.alloc - r0.free + 3));
    pol_free(p[0], POL_MEM_XML_1);
    pol_free(p[2], POL_MEM_XML_1);

    // A failed allocation is counted all the same.
    const t_pol_mem_info r2 = g_pol_mem_info[POL_MEM_XML_2];
    {
        AllocFailure fail(POL_MEM_XML_2, 2);
        void *ok = pol_malloc(4, POL_MEM_XML_2);
        EXPECT_TRUE(ok != nullptr && pol_calloc(1, 4, POL_MEM_XML_2) == nullptr);
        pol_free(ok, POL_MEM_XML_2);
    }
    EXPECT_TRUE(g_pol_mem_info[POL_MEM_XML_2].alloc - r2.alloc == 2u && g_pol_mem_info[POL_MEM_XML_2].free - r2.free == 1u);
}

std::string report(const char *option = nullptr)
{
    std::string cmd = "show", opt = option != nullptr ? option : "";
    char *argv[] = {cmd.data(), opt.data(), nullptr};
    return dump([&](mgmtd_cli_user_info *s) { EXPECT_EQ(pol_dump_memory_info(s, option ? 2 : 1, argv), 0); });
}

TEST_F(PolMemReport, PrintsRowsTotalsAndDetail)
{
    EXPECT_EQ(live_count(POL_MEM_FWD_ENTRY_VPN), 1);  // nothing of it exists after start-up
    ASSERT_EQ(g_pol_mem_info[POL_MEM_OMP_MGMTD_THREAD_ARGS].alloc, 0u);
    void *x = pol_malloc(1, POL_MEM_OMP_MGMTD_THREAD_ARGS);
    pol_free(pol_malloc(1, POL_MEM_OMP_MGMTD_THREAD_ARGS), POL_MEM_OMP_MGMTD_THREAD_ARGS);
    const std::string text = report();
    pol_free(x, POL_MEM_OMP_MGMTD_THREAD_ARGS);
    EXPECT_TRUE(text.find("#CURRENT    \n\nunknown ") != std::string::npos) << text;  // rows start at row 0
    EXPECT_NE(text.find("\nomp-mgmtd-thrd-args     omp_thread_queue_item        0           no    "
                        "2               1               2               1           \n"),
              std::string::npos);
    EXPECT_TRUE(std::regex_search(text, std::regex("\nentry fwd vpn [^\n]* 1 {11}\n")));  // one too many
    // The last row (no "max" row), then the totals.
    EXPECT_TRUE(std::regex_search(text, std::regex("\nset community entry [^\n]* {11}\n\nTotal memory used: ")));

    // A block counts in both totals, a prefix list only in the first.
    void *blk = pol_malloc(1, POL_MEM_BLOCK), *pfx = pol_malloc(1, POL_MEM_LIST_PREFIX);
    const std::string text2 = report();
    pol_free(blk, POL_MEM_BLOCK);
    pol_free(pfx, POL_MEM_LIST_PREFIX);
    auto growth = [&](const std::string &label) {
        auto value = [&](const std::string &t) { return std::stol(t.substr(t.find(label) + label.size())); };
        return value(text2) - value(text);
    };
    EXPECT_EQ(growth("Total memory used: "), long(sizeof(t_pol_block) + sizeof(t_pfx_list)));
    EXPECT_EQ(growth("push memory used: "), long(sizeof(t_pol_block)));

    // Only an option containing --detail writes the allocator's report, to a file.
    const char *saved = g_pol_meminfo_file;
    const std::string path = ::testing::TempDir() + "pol_meminfo_test.txt";
    std::remove(path.c_str());
    g_pol_meminfo_file = path.c_str();
    EXPECT_TRUE(report("--brief").ends_with(" Bytes") && access(path.c_str(), F_OK) != 0);
    EXPECT_TRUE(report("x--detail").ends_with(" Bytes\n wrote malloc info to " + path + "\n"));
    std::string first;
    EXPECT_TRUE((std::ifstream(path) >> first) && first.starts_with("<malloc")) << first;
    std::remove(path.c_str());
    g_pol_meminfo_file = "/nonexistent-dir/pol_meminfo.txt";
    EXPECT_TRUE(report("--detail").ends_with(" Bytes"));
    g_pol_meminfo_file = saved;
}

TEST_F(PolBlock, NamesTypesOrderAndExistingObjects)
{
    uint8_t changed = 0;
    const std::string stem(127, 'p');
    t_pol_block *a = pol_block_find_or_create(ctx_, (stem + "A").c_str(), POL_TYPE_ROUTE, &changed);
    ASSERT_TRUE(a != nullptr && changed == 1 && a->default_action_entry.entry_action == POL_ACTION_REJECT);
    changed = 0;  // names agree in their first 127 characters
    EXPECT_EQ(pol_block_find_or_create(ctx_, (stem + "B").c_str(), POL_TYPE_ROUTE, &changed), a);
    EXPECT_TRUE(changed == 0 && pol_block_find(ctx_, stem.c_str(), POL_TYPE_ROUTE, nullptr) == a);
    EXPECT_NE(pol_block_find_or_create(ctx_, (stem.substr(1) + "q").c_str(), POL_TYPE_ROUTE, &changed), a);
    EXPECT_EQ(pol_block_find(ctx_, stem.c_str(), POL_TYPE_MEMBERSHIP, nullptr), nullptr);
    changed = 0;
    for (e_pol_type bad : {POL_TYPE_INVALID, POL_TYPE_MAX}) {
        EXPECT_TRUE(pol_block_find_or_create(ctx_, "x", bad, &changed) == nullptr && !pol_block_first(ctx_, bad));
    }
    pol_block_find_and_delete(ctx_, "absent", POL_TYPE_ROUTE, &changed);
    EXPECT_EQ(changed, 0);

    t_pol_entry *e = pol_entry_find_or_create(ctx_, a, 10, &changed);
    ASSERT_TRUE(e != nullptr && changed == 1 && e->entry_action == POL_ACTION_REJECT && e->set_entry.pol_block_p == a);
    changed = 0;
    EXPECT_EQ(pol_entry_find_or_create(ctx_, a, 10, &changed), e);
    pol_entry_find_and_delete(ctx_, a, 11, &changed);
    EXPECT_EQ(changed, 0);
    pol_entry_find_and_delete(ctx_, a, 10, &changed);
    EXPECT_TRUE(changed == 1 && pol_entry_find(ctx_, a, 10, nullptr) == nullptr);

    // Numbers compare unsigned (the walks in name and number order are pinned
    // by the polctl_show_policy_order golden, whose numbers stop at 65535).
    for (uint32_t n : {0x80000000u, 5u}) {
        ASSERT_NE(pol_entry_find_or_create(ctx_, a, n, &changed), nullptr);
    }
    EXPECT_EQ(static_cast<t_pol_entry *>(avl_first(&a->pol_entries))->entry_num, 5u);
    EXPECT_DEATH((dup2(2, 1), pol_block_next(ctx_, a, POL_TYPE_MEMBERSHIP)), "failed assertion");
}

TEST_F(PolBlock, DefaultActionAndDeletingTheBlock)
{
    uint8_t changed = 0;
    int calls = 0;
    t_pol_user *user = register_user("u", "dflt", POL_TYPE_ROUTE, POL_DIR_IN, count_cb, &calls);
    t_pol_block *blk = user->pol_block_p;
    t_pol_entry *d = &blk->default_action_entry;
    t_pol_entry proto{}, reject{};
    proto.entry_set_flags = POL_SET_FLAG_TAG;
    proto.entry_action = POL_ACTION_ACCEPT;
    reject.entry_action = POL_ACTION_REJECT;
    auto queued = [&] { return (user->pol_user_flags & POL_USER_FLAG_QUEUED) != 0; };
    EXPECT_EQ(pol_block_default_action_add(ctx_, blk, &proto, &changed), d);
    EXPECT_TRUE(changed == 1 && queued());
    // The flags are copied; the action is set by the reader itself.
    EXPECT_TRUE(d->entry_set_flags == POL_SET_FLAG_TAG && d->entry_action == POL_ACTION_REJECT);
    pol_user_chg_list_notify_all(ctx_);
    changed = 0;
    pol_block_default_action_add(ctx_, blk, &proto, &changed);
    EXPECT_TRUE(changed == 0 && !queued());
    // Padding takes no part: the bytes between the sequence number and the tree node.
    t_pol_entry padded = proto;
    std::memset(reinterpret_cast<char *>(&padded) + sizeof(padded.entry_num), 0xA5,
                offsetof(t_pol_entry, entry_node) - sizeof(padded.entry_num));
    pol_block_default_action_add(ctx_, blk, &padded, &changed);
    EXPECT_TRUE(changed == 0 && !queued());

    pol_block_default_action_delete(ctx_, blk, &changed);  // already reject: no change
    EXPECT_TRUE(changed == 0 && std::memcmp(d, &reject, sizeof(reject)) == 0);
    d->entry_action = POL_ACTION_ACCEPT;
    d->entry_match_flags = POL_MATCH_FLAG_TAG;
    pol_block_default_action_delete(ctx_, blk, &changed);
    EXPECT_TRUE(changed == 1 && queued() && std::memcmp(d, &reject, sizeof(reject)) == 0);

    // Deleting the block detaches its users; re-creating it does not bring them back.
    pol_entry_find_or_create(ctx_, blk, 5, &changed);
    d->entry_action = POL_ACTION_ACCEPT;
    t_pol_exec_params params;
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_ACCEPT);
    calls = 0;
    pol_block_find_and_delete(ctx_, "dflt", POL_TYPE_ROUTE, &changed);
    EXPECT_TRUE(pol_block_find(ctx_, "dflt", POL_TYPE_ROUTE, nullptr) == nullptr && user->pol_block_p == nullptr &&
                pol_user_find(ctx_, "u", POL_TYPE_ROUTE, POL_DIR_IN, nullptr) == user);
    pol_block_find_or_create(ctx_, "dflt", POL_TYPE_ROUTE, &changed)->default_action_entry.entry_action =
        POL_ACTION_ACCEPT;
    EXPECT_TRUE(execute_route(user, &params) == POL_ACTION_REJECT && params.entry_set_flags == 0u &&
                params.attr_out.tag == 77u);
    pol_user_chg_list_notify_all(ctx_);
    EXPECT_EQ(calls, 1);
}

t_cflowd_collector collector(uint64_t vpn, uint16_t port, uint32_t transport, const char *src)
{
    t_cflowd_collector c{.avl_node = {}, .cflowd_entry_p = nullptr, .vpn_id = vpn, .addr = {},
                         .port = port, .transport_type = transport, .source_if = {}};
    IPADDR_SET_V4(&c.addr, 0x0100000a);  // 10.0.0.1
    strlcpy(c.source_if, src, sizeof(c.source_if));
    return c;
}

// A sequence of policy P that uses a list of every family through its
// conditions and actions, and sets communities twice over.
void use_every_list(t_pol_entry *e)
{
    t_pol_ctx *ctx = g_pol_ctx_p;
    uint8_t changed = 0;
    const t_pfx_list_key pfx = {POL_AF_IPV4, "PFX"};
    const t_pfx_entry_param param{PFX_OP_EQ, {{IP_ADDR_V4, {.addr32_b = {0x0000000a}}}, 8}, 0, 0};  // 10.0.0.0/8
    const t_tloc_id tloc = {{IP_ADDR_V4, {}}, 2, 2};
    ASSERT_TRUE(pol_site_list_add_entry(ctx, "SITES", 1, 9) == ERR_OK &&
                pol_vpn_list_add_entry(ctx, "VPNS", 10, 20) == ERR_OK &&
                pol_tloc_list_add_entry(ctx, "TLOCS", &tloc, 5) == ERR_OK &&
                pol_color_list_add_entry(ctx, "COLORS", 2) == ERR_OK &&
                pol_pfx_list_entry_add(ctx, &pfx, &param) == ERR_OK &&
                pol_community_list_add_entry(ctx, "STD", "65000:1", COMM_LIST_TYPE_STANDARD) == ERR_OK);
    for (const char *pattern : {"^65000:", "(1|2):3$", "no-export"}) {
        ASSERT_EQ(pol_community_list_add_entry(ctx, "EXP", pattern, COMM_LIST_TYPE_EXPANDED), ERR_OK);
    }
    ASSERT_EQ(pol_community_list_del_entry(ctx, "EXP", "(1|2):3$", COMM_LIST_TYPE_EXPANDED), ERR_OK);
    ASSERT_TRUE(pol_entry_match_site_list_add(ctx, e, "SITES", &changed) &&
                pol_entry_match_vpn_list_add(ctx, e, "VPNS", &changed) &&
                pol_entry_match_color_list_add(ctx, e, "COLORS", &changed) &&
                pol_entry_match_pfx_list_add(ctx, e, &pfx, &changed) &&
                pol_entry_match_community_list_add(ctx, e, "EXP", COMM_LIST_TYPE_EXPANDED, &changed) &&
                pol_entry_set_tloc_list_add(ctx, e, "TLOCS", &changed) &&
                pol_entry_set_vpn_list_add(ctx, e, "VPNS", &changed));
    for (uint32_t value : {1u, 2u}) {  // the second set replaces the first
        auto *values = static_cast<uint32_t *>(pol_calloc(1, sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
        *values = value;
        ASSERT_EQ(pol_config_set_bgp_community_upd(e, values, 1), 0);
    }
    EXPECT_EQ(live_count(POL_MEM_SET_ENTRY_COMMUNITY), 1);
    t_pol_list_reg_params reg{POL_LIST_SITE, "SITES", nullptr, nullptr};
    ASSERT_NE(pol_list_register(&reg), nullptr);
}

// Shutdown with every kind of object alive, registered users of data
// blocks and templates with collectors among them: the fixture's teardown
// expects every accounting row back at its start-up value, and the
// sanitizer build finds no leak outside the table (compiled patterns).
TEST_F(PolBlock, AllocationFailureLeavesTreesUnchangedAndShutdownFreesAll)
{
    uint8_t changed = 0;
    t_pol_block *blk = pol_block_find_or_create(ctx_, "keep", POL_TYPE_ROUTE, &changed);
    changed = 0;
    for (e_pol_mem row : {POL_MEM_BLOCK, POL_MEM_CFLOWD_ENTRY}) {
        AllocFailure fail(row);
        EXPECT_EQ(pol_block_find_or_create(ctx_, "new", POL_TYPE_CFLOWD, &changed), nullptr);
    }
    {
        AllocFailure fail(POL_MEM_ENTRY, 2);
        EXPECT_NE(pol_entry_find_or_create(ctx_, blk, 1, &changed), nullptr);
        changed = 0;
        EXPECT_EQ(pol_entry_find_or_create(ctx_, blk, 2, &changed), nullptr);
    }
    EXPECT_TRUE(changed == 0 && avl_numnodes(&ctx_->cflowd_templates) == 0u && avl_numnodes(&blk->pol_entries) == 1u);

    for (e_pol_type t : {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR, POL_TYPE_MEMBERSHIP}) {
        t_pol_block *b = pol_block_find_or_create(ctx_, "p1", t, &changed);
        const bool has_sequences = t == POL_TYPE_ROUTE || t == POL_TYPE_MEMBERSHIP;
        ASSERT_TRUE(b != nullptr && (!has_sequences || pol_entry_find_or_create(ctx_, b, 1, &changed)));
    }
    for (e_pol_type t : {POL_TYPE_MEMBERSHIP, POL_TYPE_DATA, POL_TYPE_PFR}) {
        ASSERT_NE(register_user("a", "p1", t, POL_DIR_IN), nullptr);
    }
    t_cflowd_entry *tmpl = pol_block_find_or_create(ctx_, "t", POL_TYPE_CFLOWD, &changed)->pol_cflowd_entry;
    for (uint16_t port : {1000, 1001}) {
        t_cflowd_collector k = collector(1, port, 0, "eth0");
        ASSERT_EQ(pol_cflowd_add_collector(tmpl, &k), 0);
    }
    ASSERT_NO_FATAL_FAILURE(use_every_list(sequence("P", 10)));
    for (e_pol_mem row : {POL_MEM_LIST_SITE, POL_MEM_LIST_POL_USER, POL_MEM_LIST_VPN, POL_MEM_LIST_TLOC,
                          POL_MEM_LIST_COLOR, POL_MEM_LIST_PREFIX, POL_MEM_LIST_COMMUNITY,
                          POL_MEM_ENTRY_COMMUNITY, POL_MEM_SET_COMMUNITY, POL_MEM_CFLOWD_COLL_ENTRY}) {
        EXPECT_GT(live_count(row), 0) << g_pol_mem_info[row].desc;
    }
}

TEST_F(PolCflowd, CollectorIdentitySourceInterfaceAndShutdown)
{
    uint8_t changed = 0;
    const int64_t tmpl0 = live_count(POL_MEM_CFLOWD_ENTRY), coll0 = live_count(POL_MEM_CFLOWD_COLL_ENTRY);
    t_pol_block *blk = pol_block_find_or_create(ctx_, "tmpl", POL_TYPE_CFLOWD, &changed);
    t_cflowd_entry *tmpl = blk->pol_cflowd_entry;
    ASSERT_TRUE(tmpl != nullptr && tmpl->cflowd_pol_block_p == blk);
    t_cflowd_collector c = collector(1, 2055, 0, "ge0/0");
    EXPECT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    auto *first = static_cast<t_cflowd_collector *>(avl_first(&tmpl->collector_db));
    ASSERT_TRUE(first != nullptr && first->cflowd_entry_p == tmpl);

    // Another transport is another collector; the same collector again takes
    // the new source interface; long interface names keep 32 characters.
    for (uint32_t transport : {1u, 0u}) {
        c.transport_type = transport;
        std::memset(c.source_if, transport == 1 ? 'x' : 'y', sizeof(c.source_if));
        EXPECT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    }
    const std::string head = "\n    vpn_id: 1\n    addr: 10.0.0.1\n    port: 2055\n    transport_type: ";
    EXPECT_TRUE(dump([&](auto *s) { pol_dump_cflowd_template(blk, s); })
                    .ends_with("\n  Collector: 1" + head + "0\n    source_if: " + std::string(32, 'y') +
                               "\n  Collector: 2" + head + "1\n    source_if: " + std::string(32, 'x')));
    t_cflowd_collector missing = collector(2, 2055, 0, "");
    EXPECT_TRUE(pol_cflowd_del_collector(tmpl, &missing) == 0 && avl_numnodes(&tmpl->collector_db) == 2u);
    EXPECT_TRUE(pol_cflowd_del_collector(tmpl, &c) == 0 && avl_numnodes(&tmpl->collector_db) == 1u);
    {
        AllocFailure fail(POL_MEM_CFLOWD_COLL_ENTRY);
        EXPECT_TRUE(pol_cflowd_add_collector(tmpl, &missing) == 1 && avl_numnodes(&tmpl->collector_db) == 1u);
    }
    pol_block_find_and_delete(ctx_, "tmpl", POL_TYPE_CFLOWD, &changed);  // frees everything
    EXPECT_TRUE(live_count(POL_MEM_CFLOWD_ENTRY) == tmpl0 && live_count(POL_MEM_CFLOWD_COLL_ENTRY) == coll0);
}

}  // namespace
