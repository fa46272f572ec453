// Publishing the edge policy documents: the payload assembled from the
// rendered documents, the compatibility filter asking a real daemon's
// schema, and the load into a real daemon (zen-mgmtd on a free port of
// its own) read back through the client library, with the daemon down or
// locked by another session.
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <zen/maapi.h>

#include "../platform/mgmtd_test_daemon.hpp"
#include "pol_publish.hpp"
#include "pol_test_support.hpp"

namespace {

namespace fs = std::filesystem;
using poltest::register_user;

constexpr const char *kNs = POL_XML_POLICY_NS;

// One daemon for the whole run; every test points the library at it.
class DaemonEnv : public ::testing::Environment {
public:
    void SetUp() override { daemon.open("pol-publish"); }
    void TearDown() override { daemon.close(); }
    zen_test::test_daemon daemon;
};

DaemonEnv *g_env = static_cast<DaemonEnv *>(::testing::AddGlobalTestEnvironment(new DaemonEnv));
const zen_test::test_daemon &g_daemon = g_env->daemon;

// Points the library at the test daemon (and the schema look-ups with it:
// they follow the last connection made) with a short lock retry delay.
void use_test_daemon(unsigned retries = 32, unsigned delay_ms = 20)
{
    static std::string show_file;
    show_file = (g_daemon.dir / "show_fwd_pol_data.xml").string();
    pol::publish::set_settings({g_daemon.port(), retries, delay_ms, show_file.c_str()});
    zen_test::maapi_conn(g_daemon.port(), false);
}

size_t occurrences(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) {
        n++;
    }
    return n;
}

// The payload, taken out of the library's buffer.
struct payload {
    int rc;
    std::string text;
};

payload populate(t_pol_user *in, t_pol_user *out, t_pol_user *pfr = nullptr, t_pol_user *cflowd = nullptr)
{
    pol_fwd_queue_xml_config(g_pol_ctx_p, 1);
    uint32_t size = 0;
    char *xml = nullptr;
    const int rc = pol_fwd_policy_populate(in, out, pfr, cflowd, &size, &xml);
    payload p{rc, xml != nullptr ? std::string(xml, size) : std::string()};
    pol_free(xml, POL_MEM_XML_1);
    return p;
}

std::string wrap(const std::string &payload_text, bool show = false)
{
    uint32_t size = 0;
    char *wrapped = (show ? pol_show_fwd_policy_hdr_add : pol_fwd_policy_hdr_add)(
        payload_text.c_str(), static_cast<uint32_t>(payload_text.size()), &size);
    std::string text = wrapped != nullptr ? std::string(wrapped, size) : std::string();
    pol_free(wrapped, POL_MEM_XML_2);
    return text;
}

int set_config(const std::string &text)
{
    return pol_fwd_policy_mgmtd_set(static_cast<uint32_t>(text.size()), text.c_str(), 0);
}

class PolPublishTest : public poltest::PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        use_test_daemon();
    }
    void TearDown() override
    {
        for (t_pol_user *&u : users_) {
            pol_unregister(&u);
        }
        pol::publish::set_settings(pol::publish::default_settings());
        mgmtd_cs_reset();  // closes the schema look-ups' connection
        g_daemon.expect_idle();
        PolContextTest::TearDown();
    }

    t_pol_user *user(const char *name, const char *policy, e_pol_type type, e_pol_dir dir)
    {
        users_.push_back(register_user(name, policy, type, dir));
        return users_.back();
    }

    // Policy pol of type on VPN list vpn (with VPN 10), sequence 1 matching
    // the source prefix list src.
    void data_policy(const char *pol, e_pol_type type, const char *vpn, const char *src)
    {
        uint8_t changed = 0;
        ASSERT_EQ(pol_vpn_list_add_entry(ctx_, vpn, 10, 10), ERR_OK);
        ASSERT_NE(pol_block_find_or_create(ctx_, pol, type, &changed), nullptr);
        ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, pol, type, vpn), nullptr);
        ASSERT_NE(pol_fwd_entry_find_or_create(ctx_, pol, type, vpn, 1), nullptr);
        pol_fwd_default_entry_action_upd(ctx_, pol, type, vpn, 0);
        pol_fwd_entry_src_pfx_upd(ctx_, pol, type, vpn, 1, src);
    }

    std::vector<t_pol_user *> users_;
};

// Which policies and lists the payload of one peer holds.
TEST_F(PolPublishTest, PopulateTakesEachPolicyAndListOnce)
{
    data_policy("D", POL_TYPE_DATA, "V", "SRC");
    data_policy("D2", POL_TYPE_DATA, "V", "SRC");  // the same lists again
    data_policy("APP", POL_TYPE_PFR, "V2", "SRC");
    uint8_t changed = 0;
    ASSERT_NE(pol_block_find_or_create(ctx_, "EMPTY", POL_TYPE_DATA, &changed), nullptr);
    t_pol_user *in = user("in", "D", POL_TYPE_DATA, POL_DIR_IN);
    t_pol_user *out = user("out", "D", POL_TYPE_DATA, POL_DIR_OUT);
    t_pol_user *out2 = user("out2", "D2", POL_TYPE_DATA, POL_DIR_OUT);
    t_pol_user *pfr = user("pfr", "APP", POL_TYPE_PFR, POL_DIR_NONE);
    t_pol_user *empty = user("empty", "EMPTY", POL_TYPE_DATA, POL_DIR_IN);

    struct row {
        const char *what;
        t_pol_user *in, *out, *pfr;
        std::vector<std::pair<std::string, size_t>> counts;  // text, occurrences
    } rows[] = {
        {"same name both ways: one policy, direction all", in, out, nullptr,
         {{"<data-policy>", 1}, {"<direction>all</direction>", 1}, {"<lists>", 1}, {"<vpn-list>\n", 2}}},
        {"two policies naming the same lists: each list once", in, out2, nullptr,
         {{"<data-policy>", 2},
          {"<direction>from-service</direction></data-policy>", 1},
          {"<direction>from-tunnel</direction></data-policy>", 1},
          {"<name>SRC</name>", 1},
          {"<data-prefix-list>", 1}}},
        {"app-route policy with its own VPN list", nullptr, nullptr, pfr,
         {{"<app-route-policy>", 1}, {"<data-policy>", 0}, {"<name>V2</name>", 2}}},
        {"a policy naming no list: no lists element", empty, nullptr, nullptr,
         {{"<data-policy>", 1}, {"<lists>", 0}, {"<direction>from-service</direction>", 1}}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        const payload p = populate(r.in, r.out, r.pfr);
        ASSERT_EQ(p.rc, ERR_OK);
        EXPECT_EQ(p.text.find("<?xml"), std::string::npos) << p.text;
        for (const auto &[text, n] : r.counts) {
            EXPECT_EQ(occurrences(p.text, text), n) << text << " in\n" << p.text;
        }
    }
    const payload none = populate(nullptr, nullptr);
    EXPECT_EQ(none.rc, ERR_OK);
    EXPECT_EQ(none.text, "");
}

// Appending grows the buffer to exactly what it holds once it is full.
TEST_F(PolPublishTest, AppendGrowsToTheExactSize)
{
    char *buf = static_cast<char *>(pol_malloc(8, POL_MEM_XML_1));
    buf[0] = '\0';
    uint32_t left = 8;
    for (auto [text, n, want_left] : {std::tuple{"abcdefg", 5u, 3u}, {"0123456789", 10u, 0u}, {"!", 1u, 0u}}) {
        ASSERT_EQ(pol_fwd_policy_append(text, n, &buf, &left), 0);
        EXPECT_EQ(left, want_left) << text;
    }
    EXPECT_STREQ(buf, "abcde0123456789!");
    pol_free(buf, POL_MEM_XML_1);
}

// The filter keeps what the daemon's schema knows and drops the first
// unknown element on the way down, subtree and all.
TEST_F(PolPublishTest, FilterRemovesWhatTheSchemaDoesNotKnow)
{
    const std::string open = std::string("<policy-from-qarmon xmlns=\"") + kNs + "\">";
    const std::string close = "</policy-from-qarmon>";
    const auto unknown = [](int from, int to) {
        std::string text;
        for (int i = from; i < to; i++) {
            text += "<unknown" + std::to_string(i) + "/>";
        }
        return text;
    };
    struct row {
        const char *what;
        std::string inner;
        bool filtered;
        std::string kept;         // expected inner text after filtering
        int incompat_logs;        // "Incompat xpath" lines
    } rows[] = {
        {"fully known", "<policer><name>P</name><rate>5</rate></policer>", false, "", 0},
        {"empty element", "", false, "", 0},
        {"two unknown leaves under one unknown element: one path",
         "<policer><name>P</name><future><a>1</a><b>2</b></future></policer>", true,
         "<policer><name>P</name></policer>", 1},
        {"unknown element removed from every entry, siblings kept",
         "<policer><name>P</name><burst>1</burst><newer>x</newer></policer>"
         "<policer><name>Q</name><newer/></policer><sla-class><name>S</name></sla-class>",
         true, "<policer><name>P</name><burst>1</burst></policer><policer><name>Q</name></policer>"
               "<sla-class><name>S</name></sla-class>",
         1},
        // More unknown kinds than the path table holds: the first 32 go, the
        // rest stay (and make the strict load refuse the document).
        {"40 unknown kinds", "<policer><name>P</name>" + unknown(0, 40) + "</policer>", true,
         "<policer><name>P</name>" + unknown(32, 40) + "</policer>", 32},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        poltest::LogCapture log;
        const std::string doc = open + r.inner + close;
        size_t size = 0;
        char *out = pol_xml_fetch_compat_config(kNs, doc.data(), doc.size(), &size);
        ASSERT_EQ(out != nullptr, r.filtered);
        int incompat = 0, none = 0;
        for (const std::string &line : log.lines) {
            incompat += line.find("[POL] Incompat xpath: /zentrak-policy:policy-from-qarmon/") != std::string::npos;
            none += line.find("[POL] No incompatible nodes found") != std::string::npos;
        }
        EXPECT_EQ(incompat, r.incompat_logs);
        EXPECT_EQ(none, r.filtered ? 0 : 1);
        if (out != nullptr) {
            const std::string text(out, size);
            xmlFree(out);
            EXPECT_NE(text.find(open + r.kept + close), std::string::npos) << text;
            // What the wrapper makes of it loads strictly.
            EXPECT_EQ(wrap(r.inner), std::string("<config xmlns=\"") + MGMTD_CONFIG_NS + "\">" + open + r.kept +
                                         close + "</config>");
        }
    }
    char path[] = "/p:a/p:b";
    EXPECT_EQ(strstr_reverse(path, "p:"), path + 5);  // the rightmost
    EXPECT_EQ(strstr_reverse(path, nullptr), path);
    EXPECT_EQ(strstr_reverse(path, "q:"), nullptr);
    EXPECT_EQ(strstr_reverse(path, "/p:a/p:b/p:c"), nullptr);
}

// The payload set as configuration and as show data, then taken out again:
// the show data deleted, an empty payload replacing the subtree with an
// empty one, the configuration deleted. (What the payload of an example
// edge puts there is read back by polctl's publishing tests.)
TEST_F(PolPublishTest, PayloadIsSetAndRemovedAgain)
{
    data_policy("D", POL_TYPE_DATA, "V", "SRC");
    const payload p = populate(user("in", "D", POL_TYPE_DATA, POL_DIR_IN), nullptr);
    ASSERT_EQ(p.rc, ERR_OK);
    constexpr mgmtd_dbname O = MGMTD_OPERATIONAL;
    ASSERT_EQ(set_config(wrap(p.text)), ERR_OK);
    ASSERT_EQ(pol_show_fwd_policy_mgmtd_set(wrap(p.text, true).c_str(), 0), ERR_OK);
    EXPECT_EQ(g_daemon.count("/policy-from-qarmon/data-policy{D}"), 1);
    EXPECT_EQ(g_daemon.count("/policy/from-qarmon/lists/vpn-list{V}", O), 1);

    EXPECT_EQ(pol_show_fwd_policy_mgmtd_delete(0), ERR_OK);
    EXPECT_EQ(g_daemon.count("/policy/from-qarmon/data-policy", O), 0);
    EXPECT_EQ(g_daemon.count("/policy/from-qarmon/lists/vpn-list", O), 0);
    ASSERT_EQ(set_config(wrap("")), ERR_OK);
    EXPECT_EQ(g_daemon.count("/policy-from-qarmon/data-policy"), 0);
    ASSERT_EQ(set_config(wrap(p.text)), ERR_OK);
    EXPECT_EQ(pol_fwd_policy_mgmtd_delete(0), ERR_OK);
    EXPECT_EQ(g_daemon.count("/policy-from-qarmon/data-policy"), 0);
}

// A daemon that is down, and a candidate database another session holds
// locked: for some retries, then free; or throughout.
TEST_F(PolPublishTest, DaemonDownOrLocked)
{
    const auto set = [] { return set_config(wrap("")); };
    struct row {
        const char *what;
        int unlock_after;  // retries seen before the lock is released; -1 never
        int rc;
        int retries;
    } rows[] = {
        {"locked for 3 retries, then free", 3, ERR_OK, 3},
        {"locked throughout", -1, ERR_MGMTD_FAIL, 4},
    };
    static std::atomic<int> retries;
    pol_log_set_sink([](int, const char *text) {
        retries += std::strstr(text, "[POL] Database is locked - Retrying") != nullptr;
    });
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        use_test_daemon(4, 50);
        retries = 0;
        zen_test::conn locker = zen_test::maapi_conn(g_daemon.port());
        ASSERT_EQ(maapi_lock(locker.fd, MGMTD_CANDIDATE), MGMTD_OK) << mgmtd_lasterr();
        std::atomic<int> rc{-1};
        std::thread publisher([&] { rc = set(); });
        if (r.unlock_after >= 0) {
            while (retries < r.unlock_after && rc == -1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            maapi_unlock(locker.fd, MGMTD_CANDIDATE);
        }
        publisher.join();
        maapi_end_user_session(locker.fd);
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(retries, r.retries);
    }
    pol_log_set_sink(nullptr);

    pol::publish::set_settings({zen_test::unused_port(), 1, 1, "/nonexistent/show.xml"});
    EXPECT_EQ(set(), ERR_SOCKET);
    EXPECT_EQ(pol_fwd_policy_mgmtd_delete(0), ERR_SOCKET);
    EXPECT_EQ(pol_show_fwd_policy_mgmtd_set("<x/>", 0), ERR_SOCKET);
    EXPECT_EQ(pol_show_fwd_policy_mgmtd_delete(0), ERR_SOCKET);
}

}  // namespace
