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
#include "polctl_host.hpp"

namespace {

namespace fs = std::filesystem;
using poltest::register_user;

constexpr const char *kNs = POL_XML_POLICY_NS;

// One daemon for the whole run; every test points the library at it.
class DaemonEnv : public ::testing::Environment {
public:
    void SetUp() override
    {
        dir = fs::temp_directory_path() / ("pol-publish-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
        ASSERT_TRUE(daemon.start(dir));
        mgmtd_set_timeout_ms(20000);
    }
    void TearDown() override
    {
        mgmtd_cs_reset();
        EXPECT_EQ(daemon.stop(), 0);
        fs::remove_all(dir);
    }
    zen_test::daemon_process daemon;
    fs::path dir;
};

DaemonEnv *g_env = static_cast<DaemonEnv *>(::testing::AddGlobalTestEnvironment(new DaemonEnv));

// Points the library at the test daemon (and the schema look-ups with it:
// they follow the last connection made) with a short lock retry delay.
void use_test_daemon(int port, unsigned retries = 32, unsigned delay_ms = 20)
{
    static std::string show_file;
    show_file = (g_env->dir / "show_fwd_pol_data.xml").string();
    pol::publish::set_settings({port, retries, delay_ms, show_file.c_str()});
    zen_test::maapi_conn(port, false);
}

// Everything under a path of a database, as the daemon counts it.
int count(mgmtd_dbname db, const char *path)
{
    zen_test::conn c = zen_test::cdb_conn(g_env->daemon.port(), db);
    const int n = cdb_num_instances(c.fd, "%s", path);
    cdb_end_session(c.fd);
    return n;
}

std::string leaf(mgmtd_dbname db, const std::string &path)
{
    zen_test::conn c = zen_test::cdb_conn(g_env->daemon.port(), db);
    char buf[128] = "";
    cdb_get_str(c.fd, buf, sizeof buf, "%s", path.c_str());
    cdb_end_session(c.fd);
    return buf;
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

class PolPublishTest : public poltest::PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        use_test_daemon(g_env->daemon.port());
    }
    void TearDown() override
    {
        for (t_pol_user *&u : users_) {
            pol_unregister(&u);
        }
        pol::publish::set_settings(pol::publish::default_settings());
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

// Publishes what an edge router gets: configuration committed and read
// back, show data loaded, both removed again; an empty payload replaces
// the subtree with an empty one.
TEST(PolPublish, ExampleDataPolicyReachesTheDaemon)
{
    use_test_daemon(g_env->daemon.port());
    polctl::host host;
    std::string error;
    ASSERT_TRUE(host.start(&error)) << error;
    ASSERT_EQ(host.commit_file(std::string(POL_TEST_EXAMPLES) + "/data-policy.xml", &error), MGMTD_DS_OK) << error;
    polctl::user_record *in = host.register_user("edge", "hub-and-spoke-data", POL_TYPE_DATA, POL_DIR_IN);
    polctl::user_record *pfr = host.register_user("edge", "voice-and-video", POL_TYPE_PFR, POL_DIR_NONE);
    polctl::user_record *cf = host.register_user("edge", "flows", POL_TYPE_CFLOWD, POL_DIR_NONE);
    ASSERT_TRUE(in != nullptr && pfr != nullptr && cf != nullptr);
    const payload p = populate(in->handle, nullptr, pfr->handle, cf->handle);
    ASSERT_EQ(p.rc, ERR_OK);

    const std::string config = wrap(p.text);
    ASSERT_EQ(pol_fwd_policy_mgmtd_set(static_cast<uint32_t>(config.size()), config.c_str(), 0), ERR_OK);
    const std::string show = wrap(p.text, true);
    ASSERT_EQ(pol_show_fwd_policy_mgmtd_set(show.c_str(), 0), ERR_OK);
    for (mgmtd_dbname db : {MGMTD_RUNNING, MGMTD_OPERATIONAL}) {
        const std::string root = db == MGMTD_RUNNING ? "/policy-from-qarmon" : "/policy/from-qarmon";
        SCOPED_TRACE(root);
        EXPECT_EQ(leaf(db, root + "/data-policy{hub-and-spoke-data}/direction"), "from-service");
        EXPECT_EQ(count(db, (root + "/app-route-policy").c_str()), 1);
        EXPECT_EQ(count(db, (root + "/cflowd-template").c_str()), 1);
        EXPECT_EQ(count(db, (root + "/lists/vpn-list").c_str()), 2);
        EXPECT_GE(count(db, (root + "/lists/data-prefix-list").c_str()), 1);
    }

    EXPECT_EQ(pol_show_fwd_policy_mgmtd_delete(0), ERR_OK);
    EXPECT_EQ(count(MGMTD_OPERATIONAL, "/policy/from-qarmon/data-policy"), 0);
    EXPECT_EQ(count(MGMTD_OPERATIONAL, "/policy/from-qarmon/lists/vpn-list"), 0);
    const std::string empty = wrap("");
    ASSERT_EQ(pol_fwd_policy_mgmtd_set(static_cast<uint32_t>(empty.size()), empty.c_str(), 0), ERR_OK);
    EXPECT_EQ(count(MGMTD_RUNNING, "/policy-from-qarmon/data-policy"), 0);
    ASSERT_EQ(pol_fwd_policy_mgmtd_set(static_cast<uint32_t>(config.size()), config.c_str(), 0), ERR_OK);
    EXPECT_EQ(pol_fwd_policy_mgmtd_delete(0), ERR_OK);
    EXPECT_EQ(count(MGMTD_RUNNING, "/policy-from-qarmon/data-policy"), 0);
    pol::publish::set_settings(pol::publish::default_settings());
}

// A daemon that is down, and a candidate database another session holds
// locked: for some retries, then free; or throughout.
TEST(PolPublish, DaemonDownOrLocked)
{
    const std::string config = wrap("");
    const auto set = [&] { return pol_fwd_policy_mgmtd_set(static_cast<uint32_t>(config.size()), config.c_str(), 0); };
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
        use_test_daemon(g_env->daemon.port(), 4, 50);
        retries = 0;
        zen_test::conn locker = zen_test::maapi_conn(g_env->daemon.port());
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

    zen_test::endpoint unused(0);
    zen_test::conn probe;  // a port nobody listens on: bind, read it, close
    ASSERT_EQ(bind(probe.fd, unused.addr(), sizeof unused.in), 0);
    socklen_t len = sizeof unused.in;
    getsockname(probe.fd, unused.addr(), &len);
    const int dead_port = ntohs(unused.in.sin_port);
    close(std::exchange(probe.fd, -1));
    pol::publish::set_settings({dead_port, 1, 1, "/nonexistent/show.xml"});
    EXPECT_EQ(set(), ERR_SOCKET);
    EXPECT_EQ(pol_fwd_policy_mgmtd_delete(0), ERR_SOCKET);
    EXPECT_EQ(pol_show_fwd_policy_mgmtd_set("<x/>", 0), ERR_SOCKET);
    EXPECT_EQ(pol_show_fwd_policy_mgmtd_delete(0), ERR_SOCKET);
    pol::publish::set_settings(pol::publish::default_settings());
}

}  // namespace
