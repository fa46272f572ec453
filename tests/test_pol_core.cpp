// Memory accounting and its report, policy blocks and sequences, and the
// collectors of cflowd templates.
#include <bsd/string.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;

uint64_t current(e_pol_mem row)
{
    return g_pol_mem_info[row].alloc - g_pol_mem_info[row].free;
}

TEST(PolMem, CountsOnlyRealCategoriesAndTracksPeak)
{
    std::vector<t_pol_mem_info> before(g_pol_mem_info, g_pol_mem_info + POL_MEM_MAX + 1);
    pol_free(nullptr, POL_MEM_BLOCK);
    pol_free(pol_malloc(16, POL_MEM_UNKNOWN), POL_MEM_UNKNOWN);
    pol_free(pol_calloc(2, 8, POL_MEM_MAX), POL_MEM_MAX);
    std::free(pol_realloc(nullptr, 32));
    for (int i = 0; i <= POL_MEM_MAX; i++) {
        EXPECT_EQ(g_pol_mem_info[i].alloc, before[i].alloc) << i;
        EXPECT_EQ(g_pol_mem_info[i].free, before[i].free) << i;
    }

    const t_pol_mem_info r0 = g_pol_mem_info[POL_MEM_XML_1];
    void *p[3] = {pol_malloc(4, POL_MEM_XML_1), pol_malloc(4, POL_MEM_XML_1),
                  pol_calloc(1, 4, POL_MEM_XML_1)};
    pol_free(p[0], POL_MEM_XML_1);
    pol_free(p[1], POL_MEM_XML_1);
    p[0] = pol_malloc(4, POL_MEM_XML_1);
    const t_pol_mem_info &r1 = g_pol_mem_info[POL_MEM_XML_1];
    EXPECT_EQ(r1.alloc - r0.alloc, 4u);
    EXPECT_EQ(r1.free - r0.free, 2u);
    EXPECT_EQ(r1.max_alloc, std::max(r0.max_alloc, r0.alloc - r0.free + 3));
    pol_free(p[0], POL_MEM_XML_1);
    pol_free(p[2], POL_MEM_XML_1);

    // A failed allocation is counted all the same.
    const uint64_t live = current(POL_MEM_XML_2);
    {
        AllocFailure fail(POL_MEM_XML_2, 2);
        void *ok = pol_malloc(4, POL_MEM_XML_2);
        EXPECT_NE(ok, nullptr);
        EXPECT_EQ(pol_calloc(1, 4, POL_MEM_XML_2), nullptr);
        pol_free(ok, POL_MEM_XML_2);
    }
    EXPECT_EQ(current(POL_MEM_XML_2), live + 1);
}

using PolMemReport = PolContextTest;

std::string report(uint32_t usid, const char *option = nullptr)
{
    CliCapture cli(usid);
    std::string cmd = "show", opt = option != nullptr ? option : "";
    char *argv[] = {cmd.data(), opt.data(), nullptr};
    EXPECT_EQ(pol_dump_memory_info(cli.session(), option != nullptr ? 2 : 1, argv), 0);
    return cli.text();
}

std::string row_of(const std::string &text, const std::string &desc)
{
    size_t at = text.find("\n" + desc + " ");
    return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

long number_after(const std::string &text, const std::string &label)
{
    size_t at = text.find(label);
    return at == std::string::npos ? -1 : std::atol(text.c_str() + at + label.size());
}

TEST_F(PolMemReport, PrintsRowsTotalsAndDetail)
{
    EXPECT_EQ(current(POL_MEM_FWD_ENTRY_VPN), 1u);  // nothing of it exists after start-up
    ASSERT_EQ(g_pol_mem_info[POL_MEM_OMP_MGMTD_THREAD_ARGS].alloc, 0u);
    void *x = pol_malloc(1, POL_MEM_OMP_MGMTD_THREAD_ARGS);
    pol_free(pol_malloc(1, POL_MEM_OMP_MGMTD_THREAD_ARGS), POL_MEM_OMP_MGMTD_THREAD_ARGS);
    const std::string text = report(1);
    pol_free(x, POL_MEM_OMP_MGMTD_THREAD_ARGS);
    EXPECT_EQ(text.rfind("    ================================\n    MEMORY STATISTICS\n"
                         "    ================================\n"
                         "DESCRIPTION             TYPE                         SIZE        CACHE  "
                         "#ALLOC          #FREE           #PEAK           #CURRENT    \n\n"
                         "unknown ", 0), 0u);
    EXPECT_EQ(row_of(text, "omp-mgmtd-thrd-args"),
              "omp-mgmtd-thrd-args     omp_thread_queue_item        0           no    "
              "2               1               2               1           ");
    std::istringstream fwd_vpn(row_of(text, "entry fwd vpn"));
    std::string last;
    while (fwd_vpn >> last) {
    }
    EXPECT_EQ(last, "1");
    EXPECT_NE(text.find("\nset community entry "), std::string::npos);
    EXPECT_EQ(text.find("\nmax "), std::string::npos);
    EXPECT_NE(text.find("           \n\nTotal memory used: "), std::string::npos);

    // A block counts in both totals, a prefix list only in the first.
    void *blk = pol_malloc(1, POL_MEM_BLOCK);
    void *pfx = pol_malloc(1, POL_MEM_LIST_PREFIX);
    const std::string text2 = report(2);
    pol_free(blk, POL_MEM_BLOCK);
    pol_free(pfx, POL_MEM_LIST_PREFIX);
    EXPECT_EQ(number_after(text2, "Total memory used: ") - number_after(text, "Total memory used: "),
              long(sizeof(t_pol_block) + sizeof(t_pfx_list)));
    EXPECT_EQ(number_after(text2, "push memory used: ") - number_after(text, "push memory used: "),
              long(sizeof(t_pol_block)));

    const char *saved = g_pol_meminfo_file;
    const std::string path = ::testing::TempDir() + "pol_meminfo_test.txt";
    std::remove(path.c_str());
    g_pol_meminfo_file = path.c_str();
    EXPECT_EQ(report(3, "--brief").back(), 's');
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    const std::string detail = report(4, "x--detail");
    EXPECT_EQ(detail.substr(detail.rfind("Bytes") + 5), "\n wrote malloc info to " + path + "\n");
    std::ifstream in(path);
    std::string first;
    in >> first;
    EXPECT_EQ(first.rfind("<malloc", 0), 0u);
    std::remove(path.c_str());
    g_pol_meminfo_file = "/nonexistent-dir/pol_meminfo.txt";
    EXPECT_EQ(report(5, "--detail").back(), 's');
    g_pol_meminfo_file = saved;
}

/* ---- blocks and sequences ---- */

using PolBlock = PolContextTest;
using PolBlockDeathTest = PolContextTest;

int g_notified = 0;
void count_cb(t_pol_user *, void *)
{
    g_notified++;
}

TEST_F(PolBlock, NamesTypesAndExistingObjects)
{
    uint8_t changed = 0;
    const std::string stem(127, 'p');
    t_pol_block *a = pol_block_find_or_create(ctx_, (stem + "A").c_str(), POL_TYPE_ROUTE, &changed);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(a->default_action_entry.entry_action, POL_ACTION_REJECT);
    changed = 0;
    EXPECT_EQ(pol_block_find_or_create(ctx_, (stem + "B").c_str(), POL_TYPE_ROUTE, &changed), a);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(pol_block_find(ctx_, stem.c_str(), POL_TYPE_ROUTE, nullptr), a);
    EXPECT_NE(pol_block_find_or_create(ctx_, (stem.substr(1) + "q").c_str(), POL_TYPE_ROUTE, &changed), a);
    EXPECT_EQ(pol_block_find(ctx_, stem.c_str(), POL_TYPE_MEMBERSHIP, nullptr), nullptr);
    changed = 0;
    for (e_pol_type bad : {POL_TYPE_INVALID, POL_TYPE_MAX}) {
        EXPECT_EQ(pol_block_find_or_create(ctx_, "x", bad, &changed), nullptr);
        EXPECT_EQ(pol_block_first(ctx_, bad), nullptr);
    }
    pol_block_find_and_delete(ctx_, "absent", POL_TYPE_ROUTE, &changed);
    EXPECT_EQ(changed, 0);

    t_pol_entry *e = pol_entry_find_or_create(ctx_, a, 10, &changed);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(e->entry_action, POL_ACTION_REJECT);
    EXPECT_EQ(e->set_entry.pol_block_p, a);
    changed = 0;
    EXPECT_EQ(pol_entry_find_or_create(ctx_, a, 10, &changed), e);
    pol_entry_find_and_delete(ctx_, a, 11, &changed);
    EXPECT_EQ(changed, 0);
    pol_entry_find_and_delete(ctx_, a, 10, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(pol_entry_find(ctx_, a, 10, nullptr), nullptr);
}

TEST_F(PolBlock, WalksInOrder)
{
    uint8_t changed = 0;
    for (const char *name : {"m", "z", "a"}) {
        pol_block_find_or_create(ctx_, name, POL_TYPE_ROUTE, &changed);
    }
    pol_block_find_or_create(ctx_, "b", POL_TYPE_MEMBERSHIP, &changed);
    std::string names;
    for (t_pol_block *b = pol_block_first(ctx_, POL_TYPE_ROUTE); b; b = pol_block_next(ctx_, b, POL_TYPE_ROUTE)) {
        names += b->pol_name;
    }
    EXPECT_EQ(names, "amz");

    t_pol_block *blk = pol_block_first(ctx_, POL_TYPE_ROUTE);
    for (uint32_t n : {100u, 0x80000000u, 10u, 5u}) {
        ASSERT_NE(pol_entry_find_or_create(ctx_, blk, n, &changed), nullptr);
    }
    std::vector<uint32_t> seen;
    for (void *e = avl_first(&blk->pol_entries); e; e = avl_walk(&blk->pol_entries, e, AVL_AFTER)) {
        seen.push_back(static_cast<t_pol_entry *>(e)->entry_num);
    }
    EXPECT_EQ(seen, (std::vector<uint32_t>{5, 10, 100, 0x80000000u}));
}

TEST_F(PolBlockDeathTest, NextWithAnotherTypeStops)
{
    uint8_t changed = 0;
    t_pol_block *blk = pol_block_find_or_create(ctx_, "r", POL_TYPE_ROUTE, &changed);
    EXPECT_DEATH((dup2(2, 1), pol_block_next(ctx_, blk, POL_TYPE_MEMBERSHIP)), "failed assertion");
}

TEST_F(PolBlock, DefaultActionAddAndDelete)
{
    uint8_t changed = 0;
    t_pol_user *user = register_user("u", "dflt");
    t_pol_block *blk = user->pol_block_p;
    t_pol_entry *d = &blk->default_action_entry;
    t_pol_entry proto{};
    proto.entry_set_flags = POL_SET_FLAG_TAG;
    proto.entry_action = POL_ACTION_ACCEPT;
    EXPECT_EQ(pol_block_default_action_add(ctx_, blk, &proto, &changed), d);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(d->entry_set_flags, POL_SET_FLAG_TAG);
    EXPECT_EQ(d->entry_action, POL_ACTION_REJECT);  // the action is set by the reader itself
    EXPECT_TRUE(user->pol_user_flags & POL_USER_FLAG_QUEUED);
    pol_user_chg_list_notify_all(ctx_);
    changed = 0;
    pol_block_default_action_add(ctx_, blk, &proto, &changed);
    EXPECT_EQ(changed, 0);
    EXPECT_FALSE(user->pol_user_flags & POL_USER_FLAG_QUEUED);

    t_pol_entry reject{};
    reject.entry_action = POL_ACTION_REJECT;
    pol_block_default_action_delete(ctx_, blk, &changed);  // already reject: no change
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(std::memcmp(d, &reject, sizeof(reject)), 0);
    d->entry_action = POL_ACTION_ACCEPT;
    d->entry_match_flags = POL_MATCH_FLAG_TAG;
    pol_block_default_action_delete(ctx_, blk, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_TRUE(user->pol_user_flags & POL_USER_FLAG_QUEUED);
    EXPECT_EQ(std::memcmp(d, &reject, sizeof(reject)), 0);
    pol_unregister(&user);
}

TEST_F(PolBlock, DeletingBlockDetachesUsers)
{
    uint8_t changed = 0;
    g_notified = 0;
    t_pol_user *user = register_user("host", "gone", POL_TYPE_ROUTE, POL_DIR_IN, count_cb);
    pol_entry_find_or_create(ctx_, user->pol_block_p, 5, &changed);
    user->pol_block_p->default_action_entry.entry_action = POL_ACTION_ACCEPT;
    t_pol_exec_params params;
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_ACCEPT);
    pol_block_find_and_delete(ctx_, "gone", POL_TYPE_ROUTE, &changed);
    EXPECT_EQ(pol_block_find(ctx_, "gone", POL_TYPE_ROUTE, nullptr), nullptr);
    EXPECT_EQ(user->pol_block_p, nullptr);
    EXPECT_EQ(pol_user_find(ctx_, "host", POL_TYPE_ROUTE, POL_DIR_IN, nullptr), user);

    // Re-creating the policy does not bring the user back.
    pol_block_find_or_create(ctx_, "gone", POL_TYPE_ROUTE, &changed)->default_action_entry.entry_action =
        POL_ACTION_ACCEPT;
    EXPECT_EQ(execute_route(user, &params), POL_ACTION_REJECT);
    EXPECT_EQ(params.entry_set_flags, 0u);
    EXPECT_EQ(params.attr_out.tag, 77u);
    pol_user_chg_list_notify_all(ctx_);
    EXPECT_EQ(g_notified, 1);
    pol_unregister(&user);
}

TEST_F(PolBlock, AllocationFailureLeavesTreesUnchanged)
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
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(avl_numnodes(&ctx_->cflowd_templates), 0u);
    EXPECT_EQ(avl_numnodes(&blk->pol_entries), 1u);
}

// The fixture's teardown checks that shutdown frees every kind of block.
TEST_F(PolBlock, DestroyFreesEveryKind)
{
    uint8_t changed = 0;
    for (e_pol_type t : {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR, POL_TYPE_MEMBERSHIP}) {
        t_pol_block *blk = pol_block_find_or_create(ctx_, "p1", t, &changed);
        ASSERT_NE(blk, nullptr);
        if (t == POL_TYPE_ROUTE || t == POL_TYPE_MEMBERSHIP) {
            ASSERT_NE(pol_entry_find_or_create(ctx_, blk, 1, &changed), nullptr);
        }
    }
    ASSERT_NE(register_user("a", "p1", POL_TYPE_MEMBERSHIP, POL_DIR_IN, count_cb), nullptr);
}

/* ---- cflowd templates ---- */

using PolCflowd = PolContextTest;

t_cflowd_collector collector(uint64_t vpn, uint16_t port, uint32_t transport, const char *src)
{
    t_cflowd_collector c{};
    c.vpn_id = vpn;
    IPADDR_SET_V4(&c.addr, 0x0100000a);
    c.port = port;
    c.transport_type = transport;
    strlcpy(c.source_if, src, sizeof(c.source_if));
    return c;
}

TEST_F(PolCflowd, CollectorIdentityAndSourceInterface)
{
    uint8_t changed = 0;
    t_pol_block *blk = pol_block_find_or_create(ctx_, "tmpl", POL_TYPE_CFLOWD, &changed);
    t_cflowd_entry *tmpl = blk->pol_cflowd_entry;
    ASSERT_NE(tmpl, nullptr);
    EXPECT_EQ(tmpl->cflowd_pol_block_p, blk);
    t_cflowd_collector c = collector(1, 2055, 0, "ge0/0");
    EXPECT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    strlcpy(c.source_if, "ge0/1", sizeof(c.source_if));
    EXPECT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    ASSERT_EQ(avl_numnodes(&tmpl->collector_db), 1u);
    auto *first = static_cast<t_cflowd_collector *>(avl_first(&tmpl->collector_db));
    EXPECT_STREQ(first->source_if, "ge0/1");
    EXPECT_EQ(first->cflowd_entry_p, tmpl);

    // Another transport is another collector; long interface names keep 32 characters.
    c.transport_type = 1;
    std::memset(c.source_if, 'x', sizeof(c.source_if));
    EXPECT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    EXPECT_EQ(avl_numnodes(&tmpl->collector_db), 2u);
    auto *second = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, &c, nullptr));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(std::string(second->source_if), std::string(32, 'x'));
    c.transport_type = 0;
    std::memset(c.source_if, 'y', sizeof(c.source_if));
    EXPECT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    EXPECT_EQ(std::string(first->source_if), std::string(32, 'y'));

    t_cflowd_collector missing = collector(2, 2055, 0, "");
    EXPECT_EQ(pol_cflowd_del_collector(tmpl, &missing), 0);
    EXPECT_EQ(avl_numnodes(&tmpl->collector_db), 2u);
    EXPECT_EQ(pol_cflowd_del_collector(tmpl, &c), 0);
    EXPECT_EQ(avl_numnodes(&tmpl->collector_db), 1u);
    {
        AllocFailure fail(POL_MEM_CFLOWD_COLL_ENTRY);
        EXPECT_EQ(pol_cflowd_add_collector(tmpl, &missing), 1);
    }
    EXPECT_EQ(avl_numnodes(&tmpl->collector_db), 1u);
    pol_block_find_and_delete(ctx_, "tmpl", POL_TYPE_CFLOWD, &changed);  // frees everything
}

TEST_F(PolCflowd, ShutdownKeepsTemplates)
{
    uint8_t changed = 0;
    const int64_t tmpl0 = live_count(POL_MEM_CFLOWD_ENTRY), coll0 = live_count(POL_MEM_CFLOWD_COLL_ENTRY);
    t_cflowd_entry *tmpl = pol_block_find_or_create(ctx_, "t", POL_TYPE_CFLOWD, &changed)->pol_cflowd_entry;
    for (uint16_t port : {1000, 1001}) {
        t_cflowd_collector c = collector(1, port, 0, "eth0");
        ASSERT_EQ(pol_cflowd_add_collector(tmpl, &c), 0);
    }
    allow_leak(POL_MEM_CFLOWD_ENTRY);
    allow_leak(POL_MEM_CFLOWD_COLL_ENTRY);
    expect_memory_back_to_start();
    EXPECT_EQ(live_count(POL_MEM_CFLOWD_ENTRY), tmpl0 + 1);
    EXPECT_EQ(live_count(POL_MEM_CFLOWD_COLL_ENTRY), coll0 + 2);
    void *cookie = nullptr;  // reclaim what shutdown leaves, uncounted
    while (void *c = avl_destroy_nodes(&tmpl->collector_db, &cookie)) {
        std::free(c);
    }
    avl_destroy(&tmpl->collector_db);
    std::free(tmpl);
}

}  // namespace
