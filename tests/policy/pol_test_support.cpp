#include "pol_test_support.hpp"

#include <bsd/string.h>

#include <cstdlib>

namespace poltest {

namespace {

std::vector<std::string> g_log;

void log_sink(int priority, const char *text)
{
    g_log.push_back(std::to_string(priority) + " " + text);
}

struct {
    e_pol_mem row;
    unsigned nth, seen;
} g_fail;
uint64_t g_injected[POL_MEM_MAX + 1];

bool fail_hook(e_pol_mem row)
{
    if (row != g_fail.row || ++g_fail.seen != g_fail.nth) {
        return false;
    }
    g_injected[row]++;
    return true;
}

}  // namespace

int64_t live_count(e_pol_mem row)
{
    const t_pol_mem_info &r = g_pol_mem_info[row];
    return static_cast<int64_t>(r.alloc - r.free - g_injected[row]);
}

t_pol_user *register_user(const char *user, const char *policy, e_pol_type type, e_pol_dir dir,
                          t_pol_change_cb_f cb, void *user_ctx)
{
    t_pol_reg_params params{};
    strlcpy(params.user_name, user, sizeof(params.user_name));
    strlcpy(params.pol_name, policy, sizeof(params.pol_name));
    params.pol_type = type;
    params.pol_direction = dir;
    params.pol_chg_cb = cb;
    params.user_ctx_p = user_ctx;
    return pol_register(&params);
}

e_pol_action execute_route(t_pol_user *user, t_pol_exec_params *params)
{
    static t_zen_attr attr;
    attr = t_zen_attr{};
    attr.attr_flags = ZEN_ATTR_FLAG_TAG;
    attr.tag = 77;
    pol_pre_execute(params, ZEN_DEVICE_RIMBA);
    params->attr_in_p = &attr;
    params->safi = POL_SAFI_VROUTE;
    return pol_execute(user, params);
}

void count_cb(t_pol_user *, void *user_ctx)
{
    ++*static_cast<int *>(user_ctx);
}

void record_cb(t_pol_user *user, void *user_ctx)
{
    static_cast<std::vector<std::string> *>(user_ctx)->emplace_back(user->user_name);
}

t_pol_entry *sequence(const char *policy, uint32_t num, e_pol_type type, bool flush)
{
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(g_pol_ctx_p, policy, type, &changed);
    t_pol_entry *entry = pol_entry_find_or_create(g_pol_ctx_p, block, num, &changed);
    if (entry == nullptr) {
        ADD_FAILURE() << "no sequence " << num << " of " << policy;
        return nullptr;
    }
    entry->match_entry.pol_block_p = block;
    if (flush) {
        pol_user_chg_list_notify_all(g_pol_ctx_p);
    }
    return entry;
}

std::string ptr(const void *p)
{
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%p", p);
    return buf;
}

std::string heading(const std::string &title)
{
    const std::string rule = "\n================================";
    return rule + "\n  " + title + rule;
}

void PolContextTest::SetUp()
{
    for (int i = 0; i < POL_MEM_MAX; i++) {
        start_[i] = live_count(static_cast<e_pol_mem>(i));
    }
    t_pol_init_params params{};
    ctx_ = pol_init(&params);
    ASSERT_NE(ctx_, nullptr);
    ASSERT_EQ(g_pol_ctx_p, ctx_);
}

void PolContextTest::destroy_context()
{
    if (ctx_ != nullptr) {
        pol_destroy();
        ctx_ = nullptr;
    }
}

void PolContextTest::expect_memory_back_to_start()
{
    destroy_context();
    EXPECT_EQ(g_pol_ctx_p, nullptr);
    for (int i = 0; i < POL_MEM_MAX; i++) {
        EXPECT_EQ(live_count(static_cast<e_pol_mem>(i)), start_[i])
            << "accounting row " << i << " (" << g_pol_mem_info[i].desc << ")";
    }
}

LogCapture::LogCapture() : lines(g_log)
{
    g_log.clear();
    pol_log_set_sink(log_sink);
}

LogCapture::~LogCapture()
{
    pol_log_set_sink(nullptr);
}

std::string dump(const std::function<void(mgmtd_cli_user_info *)> &fn)
{
    mgmtd_cli_user_info session{};
    session.maapi_sock = -1;
    session.usid = 4242;
    char *buf = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&buf, &size);
    EXPECT_EQ(maapi_cli_bind_stream(session.usid, fp), 0);
    fn(&session);
    maapi_cli_unbind_stream(session.usid);
    std::fclose(fp);
    std::string text(buf, size);
    std::free(buf);
    return text;
}

AllocFailure::AllocFailure(e_pol_mem row, unsigned nth)
{
    g_fail = {row, nth, 0};
    pol_mem_set_fail_hook(fail_hook);
}

AllocFailure::~AllocFailure()
{
    pol_mem_set_fail_hook(nullptr);
}

}  // namespace poltest
