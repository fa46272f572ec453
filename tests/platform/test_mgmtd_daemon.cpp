// The management daemon (zen-mgmtd) run as a process of its own on a free
// port with a database directory of the test's, driven through the client
// library (libzenmaapi) and, for broken frames, through raw sockets.
// Every test ends with the daemon reporting no open session, transaction
// or lock, and the daemon stopping cleanly (exit status 0).
// (mgmtd_test_daemon.hpp brings the socket, process and client headers.)
#include <fstream>

#include <gtest/gtest.h>

#include "mgmtd_test_daemon.hpp"

#include <zen/mgmtd_wire.h>

namespace {

using namespace zen_test;

constexpr const char *kEdgeNs = "urn:zen:params:xml:ns:yang:zen-policy-edge";
constexpr int kConfigFlags = 0x4401;  // the policy library's configuration load
constexpr int kShowFlags = 65;        // its show data load

// A configuration document for the edge subtree, in the config envelope.
std::string config_doc(const std::string &inner)
{
    return std::string("<config xmlns=\"") + MGMTD_CONFIG_NS + "\"><policy-from-qarmon xmlns=\"" + kEdgeNs + "\">" +
           inner + "</policy-from-qarmon></config>";
}

// A show data document for the operational edge subtree.
std::string show_doc(const std::string &inner)
{
    return std::string("<policy xmlns=\"") + kEdgeNs + "\"><from-qarmon>" + inner + "</from-qarmon></policy>";
}

std::string vpn_list(const std::string &name, int vpn)
{
    return "<lists><vpn-list><name>" + name + "</name><vpn><id>" + std::to_string(vpn) + "</id></vpn></vpn-list></lists>";
}

std::string data_policy(const std::string &name, const std::string &vpn_list_name)
{
    return "<data-policy><name>" + name + "</name><vpn-list><name>" + vpn_list_name + "</name></vpn-list></data-policy>";
}

int start_trans(const conn &c, mgmtd_dbname db = MGMTD_CANDIDATE)
{
    return maapi_start_trans_flags2(c.fd, db, MAAPI_READ_WRITE, 0, 0);
}

// The errno a call failed with; 0 when it succeeded.
int err(int rc)
{
    return rc == MGMTD_ERR ? mgmtd_errno : 0;
}

std::string file_text(const fs::path &file)
{
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The test's own daemon: its port, directory and counts are the fixture's.
class MgmtdDaemon : public ::testing::Test, protected test_daemon {
protected:
    void SetUp() override
    {
        open(std::string("mgmtd-test-") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override { close(); }

    // The calls of one publication: session, transaction, load, apply,
    // commit (of the candidate), finish, end. The failing call's errno, or 0.
    int publish(const std::string &text, int flags = kConfigFlags, mgmtd_dbname db = MGMTD_CANDIDATE)
    {
        conn c = maapi_conn(port());
        const int th = start_trans(c, db);
        if (th < 0) {
            return mgmtd_errno;
        }
        int failed = 0;
        if (maapi_load_config_cmds(c.fd, th, flags, text.c_str()) != MGMTD_OK ||
            maapi_apply_trans(c.fd, th, 1) != MGMTD_OK ||
            (db == MGMTD_CANDIDATE && maapi_candidate_commit(c.fd) != MGMTD_OK)) {
            failed = mgmtd_errno;
        }
        EXPECT_EQ(maapi_finish_trans(c.fd, th), MGMTD_OK);
        EXPECT_EQ(maapi_end_user_session(c.fd), MGMTD_OK);
        return failed;
    }
};

TEST_F(MgmtdDaemon, TransactionAppliesToCandidateAndCommitMakesItRunning)
{
    conn c = maapi_conn(port());
    const int th = start_trans(c);
    ASSERT_GT(th, 0) << mgmtd_lasterr();
    auto load = [&](int t, const std::string &inner) {
        return maapi_load_config_cmds(c.fd, t, kConfigFlags, config_doc(inner).c_str());
    };
    ASSERT_EQ(load(th, data_policy("dp1", "vl1") + vpn_list("vl1", 1)), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(count("/policy-from-qarmon/data-policy"), 0) << "before apply";
    ASSERT_EQ(maapi_apply_trans(c.fd, th, 1), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(count("/policy-from-qarmon/data-policy"), 0) << "before commit";
    ASSERT_EQ(maapi_candidate_commit(c.fd), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(count("/policy-from-qarmon/data-policy"), 1);

    // The replacing load (0x4401) takes the subtree as a whole: vl1 goes.
    ASSERT_EQ(load(th, vpn_list("vl2", 2)), MGMTD_OK);
    ASSERT_EQ(maapi_apply_trans(c.fd, th, 1), MGMTD_OK) << mgmtd_lasterr();
    ASSERT_EQ(maapi_candidate_commit(c.fd), MGMTD_OK);
    EXPECT_EQ(count("/policy-from-qarmon/data-policy"), 0);
    EXPECT_EQ(count("/policy-from-qarmon/lists/vpn-list{vl2}"), 1);

    // Deleting the subtree, then committing, empties it; the unapplied
    // load of a finished transaction never lands.
    ASSERT_EQ(maapi_delete(c.fd, th, "/policy-from-qarmon"), MGMTD_OK) << mgmtd_lasterr();
    ASSERT_EQ(maapi_apply_trans(c.fd, th, 0), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(err(maapi_finish_trans(c.fd, th)), MGMTD_ERR_NOTRANS) << "apply without keep-open finishes";
    const int th2 = start_trans(c);
    ASSERT_EQ(load(th2, vpn_list("vl3", 3)), MGMTD_OK);
    ASSERT_EQ(maapi_finish_trans(c.fd, th2), MGMTD_OK);
    ASSERT_EQ(maapi_candidate_commit(c.fd), MGMTD_OK);
    EXPECT_EQ(count("/policy-from-qarmon/lists/vpn-list"), 0);
    EXPECT_EQ(maapi_end_user_session(c.fd), MGMTD_OK);
}

// Each load flag combination on each database, and payloads that do not
// parse or validate: accepted, or refused with the error they get while the
// transaction stays usable; what the database holds afterwards. A refused
// payload leaves the running configuration as it was.
TEST_F(MgmtdDaemon, LoadFlagsAndPayloadsDecideWhatTheDatabaseHolds)
{
    const std::string show = show_doc("<lists><vpn-list><name>s1</name></vpn-list></lists>");
    const std::string unknown = config_doc(vpn_list("u1", 1) + "<future-leaf>1</future-leaf>");
    const std::string vpn_b = config_doc(vpn_list("b", 1));
    constexpr mgmtd_dbname C = MGMTD_CANDIDATE, O = MGMTD_OPERATIONAL;
    constexpr int kUsage = MGMTD_ERR_PROTOUSAGE, kXml = MGMTD_ERR_XML;
    // count: of the VPN lists after the commit; -1: running stays as it was
    struct row { const char *what; mgmtd_dbname db; int flags; std::string text; int load_err, apply_err, count; };
    const row rows[] = {
        {"config, replace, strict", C, kConfigFlags, config_doc(vpn_list("a", 1)), 0, 0, 1},
        {"show data merged", O, kShowFlags, show, 0, 0, 1},
        {"second show data merged", O, kShowFlags, show_doc("<lists><vpn-list><name>s2</name></vpn-list></lists>"),
         0, 0, 2},
        {"show flags on configuration", C, kShowFlags, show, kUsage, 0, -1},
        {"config flags on operational", O, kConfigFlags, show, kUsage, 0, -1},
        {"no format", C, 0x4400, vpn_b, kUsage, 0, -1},
        {"unknown bit", C, kConfigFlags | 0x8000, vpn_b, kUsage, 0, -1},
        {"state data in configuration", C, MAAPI_CONFIG_XML, show, kXml, 0, -1},
        {"unknown element, strict", C, kConfigFlags, unknown, kXml, 0, -1},
        {"not XML", C, kConfigFlags, "<config xmlns=\"" + std::string(MGMTD_CONFIG_NS) + "\"><policy-from", kXml, 0,
         -1},
        {"duplicate list entries", C, kConfigFlags,
         config_doc("<lists><vpn-list><name>z</name><vpn><id>1</id></vpn><vpn><id>1</id></vpn></vpn-list></lists>"), 0,
         MGMTD_ERR_VALIDATION, -1},
        {"unknown element skipped", C, MAAPI_CONFIG_XML, unknown, 0, 0, 2},
        {"merge keeps what is there", C, MAAPI_CONFIG_XML, config_doc(vpn_list("c", 1)), 0, 0, 3},
    };
    conn c = maapi_conn(port());
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        const std::string before = file_text(dir / "running.xml");
        const int th = start_trans(c, r.db);
        ASSERT_GT(th, 0) << mgmtd_lasterr();
        EXPECT_EQ(err(maapi_load_config_cmds(c.fd, th, r.flags, r.text.c_str())), r.load_err) << mgmtd_lasterr();
        const int apply_err = err(maapi_apply_trans(c.fd, th, 0));
        EXPECT_EQ(apply_err, r.apply_err) << mgmtd_lasterr();
        EXPECT_TRUE(apply_err == 0 || maapi_finish_trans(c.fd, th) == MGMTD_OK) << "the transaction stays usable";
        ASSERT_TRUE(r.db == O || maapi_candidate_commit(c.fd) == MGMTD_OK) << mgmtd_lasterr();
        if (r.count >= 0) {
            EXPECT_EQ(r.db == O ? count("/policy/from-qarmon/lists/vpn-list", O)
                                : count("/policy-from-qarmon/lists/vpn-list"),
                      r.count);
        } else {
            EXPECT_EQ(file_text(dir / "running.xml"), before);
        }
    }
    // Loading from a file reads it on the client's side.
    const fs::path file = dir / "show.xml";
    std::ofstream(file) << show;
    const int th = start_trans(c, O);
    EXPECT_EQ(maapi_load_config(c.fd, th, kShowFlags, file.c_str()), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(err(maapi_load_config(c.fd, th, kShowFlags, (dir / "missing.xml").c_str())), MGMTD_ERR_OS);
    EXPECT_EQ(maapi_finish_trans(c.fd, th), MGMTD_OK);
    EXPECT_EQ(maapi_end_user_session(c.fd), MGMTD_OK);
}

// The locked database gives the other session the in-use error (10); the
// same transaction applies once the lock is released. (A client that goes
// away with its lock: ClientKilledMidTransactionLeavesNothingBehind.)
TEST_F(MgmtdDaemon, LockedDatabaseIsInUseForOtherSessionsUntilReleased)
{
    conn holder = maapi_conn(port());
    conn other = maapi_conn(port());
    ASSERT_EQ(maapi_lock(holder.fd, MGMTD_CANDIDATE), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(err(maapi_lock(other.fd, MGMTD_CANDIDATE)), 10);

    const int th = start_trans(other);
    ASSERT_EQ(maapi_load_config_cmds(other.fd, th, kConfigFlags, config_doc(vpn_list("x", 1)).c_str()), MGMTD_OK);
    EXPECT_EQ(err(maapi_apply_trans(other.fd, th, 1)), MGMTD_ERR_INUSE);
    EXPECT_STREQ(mgmtd_strerror(mgmtd_errno), "database is in use (locked by another session)");
    EXPECT_NE(std::string(mgmtd_lasterr()).find("locked"), std::string::npos);

    ASSERT_EQ(maapi_unlock(holder.fd, MGMTD_CANDIDATE), MGMTD_OK);
    ASSERT_EQ(maapi_apply_trans(other.fd, th, 1), MGMTD_OK) << mgmtd_lasterr();

    // A lock on running stops the commit; the holder's own commit passes.
    ASSERT_EQ(maapi_lock(holder.fd, MGMTD_RUNNING), MGMTD_OK);
    EXPECT_EQ(err(maapi_candidate_commit(other.fd)), MGMTD_ERR_INUSE);
    EXPECT_EQ(count("/policy-from-qarmon/lists/vpn-list"), 0);
    EXPECT_EQ(maapi_candidate_commit(holder.fd), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(count("/policy-from-qarmon/lists/vpn-list"), 1);

    EXPECT_EQ(maapi_finish_trans(other.fd, th), MGMTD_OK);
    EXPECT_EQ(maapi_end_user_session(other.fd), MGMTD_OK);
    EXPECT_EQ(maapi_end_user_session(holder.fd), MGMTD_OK) << "ends the session and its lock on running";
}

std::string be32(uint32_t v)
{
    return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

// A frame header with request id 7.
std::string header(uint16_t op, uint32_t length, uint32_t magic = MGMTD_WIRE_MAGIC,
                   uint8_t version = MGMTD_WIRE_VERSION)
{
    return be32(magic) + char(version) + '\0' + char(op >> 8) + char(op & 0xff) + be32(7) + be32(length);
}

// Frames that break the protocol: the daemon answers MGMTD_ERR_PROTO (or
// just closes a cut frame), drops that connection and serves the others.
TEST_F(MgmtdDaemon, BrokenFramesCloseTheirConnectionOnly)
{
    const std::string hello = be32(MGMTD_CONN_MAAPI) + be32(1) + "t";
    struct row { const char *what; std::string bytes; bool proto_answer; } const rows[] = {
        {"bad magic", header(MGMTD_OP_HELLO, 0, 0x12345678), true},
        {"other version", header(MGMTD_OP_HELLO, 0, MGMTD_WIRE_MAGIC, 9), true},
        {"frame too large", header(MGMTD_OP_HELLO, MGMTD_WIRE_MAX_PAYLOAD + 1), true},
        {"fields cut short", header(MGMTD_OP_HELLO, 3) + "abc", true},
        {"string longer than the frame", header(MGMTD_OP_HELLO, 8) + be32(1) + be32(100), true},
        {"request before hello", header(MGMTD_OP_COMMIT, 0), true},
        {"unknown operation", header(MGMTD_OP_HELLO, uint32_t(hello.size())) + hello + header(999, 0), true},
        {"peer leaves inside a frame", header(MGMTD_OP_HELLO, 100) + "ab", false},
    };
    ASSERT_EQ(publish(config_doc(vpn_list("keep", 7))), 0);
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        conn raw;
        endpoint a(port());
        ASSERT_EQ(connect(raw.fd, a.addr(), sizeof a.in), 0);
        ASSERT_EQ(send(raw.fd, r.bytes.data(), r.bytes.size(), MSG_NOSIGNAL), ssize_t(r.bytes.size()));
        if (!r.proto_answer) {
            continue;  // closed here with the frame unfinished
        }
        // Read every answer up to the close; the last one says MGMTD_ERR_PROTO.
        std::string in;
        char buf[512];
        ssize_t n;
        pollfd p{raw.fd, POLLIN, 0};
        while (poll(&p, 1, 5000) > 0 && (n = recv(raw.fd, buf, sizeof buf, 0)) > 0) {
            in.append(buf, size_t(n));
        }
        ASSERT_GE(in.size(), size_t(MGMTD_WIRE_HEADER_SIZE + 4)) << "no answer before the close";
        size_t last = 0;
        for (size_t at = 0; at + MGMTD_WIRE_HEADER_SIZE <= in.size();) {
            last = at;
            const auto *h = reinterpret_cast<const unsigned char *>(in.data() + at + 12);
            at += MGMTD_WIRE_HEADER_SIZE + ((h[0] << 24) | (h[1] << 16) | (h[2] << 8) | h[3]);
        }
        EXPECT_EQ(in.substr(last + MGMTD_WIRE_HEADER_SIZE, 4), be32(uint32_t(MGMTD_ERR_PROTO)));
    }
    EXPECT_EQ(count("/policy-from-qarmon/lists/vpn-list{keep}/vpn"), 1);
    EXPECT_EQ(publish(config_doc(vpn_list("after", 1)), MAAPI_CONFIG_XML), 0);
}

// A client process killed in the middle of a transaction (after its load,
// or holding a lock): the daemon discards the transaction and the lock and
// keeps serving; neither running nor candidate gets the load.
TEST_F(MgmtdDaemon, ClientKilledMidTransactionLeavesNothingBehind)
{
    ASSERT_EQ(publish(config_doc(vpn_list("keep", 7))), 0);
    const std::string before = file_text(dir / "running.xml");
    for (const bool with_lock : {false, true}) {
        SCOPED_TRACE(with_lock ? "holding the lock" : "after the load");
        const pid_t child = fork();
        if (child == 0) {
            conn c = maapi_conn(port());
            const int th = start_trans(c);
            maapi_load_config_cmds(c.fd, th, kConfigFlags, config_doc(vpn_list("lost", 1)).c_str());
            if (with_lock) {
                maapi_lock(c.fd, MGMTD_CANDIDATE);
            }
            raise(SIGKILL);
        }
        int st = 0;
        ASSERT_EQ(waitpid(child, &st, 0), child);
        ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
        expect_idle();
        ASSERT_EQ(publish(config_doc(vpn_list("keep", 7))), 0) << "the daemon serves on";
        EXPECT_EQ(file_text(dir / "running.xml"), before);
    }
}

// The running configuration survives a stop, a kill and a restart; a
// running file that no longer loads stops the daemon from starting.
TEST_F(MgmtdDaemon, RunningConfigurationPersistsAcrossRestarts)
{
    const std::string first = config_doc(data_policy("dp1", "vl1") + vpn_list("vl1", 1));
    ASSERT_EQ(publish(first), 0);
    for (const int sig : {SIGTERM, SIGKILL}) {
        SCOPED_TRACE(sig);
        EXPECT_EQ(process.stop(sig), sig == SIGTERM ? 0 : -SIGKILL);
        ASSERT_TRUE(process.start(dir));
        EXPECT_EQ(count("/policy-from-qarmon/data-policy{dp1}"), 1);
        // The candidate starts as the running configuration.
        EXPECT_EQ(publish(config_doc(vpn_list("vl2", 2)), MAAPI_CONFIG_XML), 0);
        EXPECT_EQ(count("/policy-from-qarmon/lists/vpn-list"), 2);
        EXPECT_EQ(publish(first), 0);
    }
    expect_idle();
    ASSERT_EQ(process.stop(), 0);
    std::ofstream(dir / "running.xml") << "<policy-from-qarmon xmlns=\"" << kEdgeNs << "\"><nonsense/>";
    std::string output;
    daemon_process broken;
    EXPECT_FALSE(broken.start(dir, &output));
    EXPECT_NE(output.find("running.xml"), std::string::npos) << output;
    EXPECT_EQ(broken.stop(0), 1);
}

// The reads of the policy library's start-up and the schema look-ups of its
// compatibility filter. (Its show-data clean-up, counting and deleting on
// the operational database, is run against the daemon by the publishing
// tests of the library.)
TEST_F(MgmtdDaemon, DataSessionsReadAndSchemaLookupsAnswer)
{
    ASSERT_EQ(publish(config_doc(data_policy("dp1", "vl1") + data_policy(std::string(40, 'n'), "vl2") +
                                         "<data-policy><name>dp3</name><vpn-list><name>va</name></vpn-list>"
                                         "<vpn-list><name>vb</name></vpn-list></data-policy>")),
              0);
    conn c = cdb_conn(port(), MGMTD_RUNNING);
    ASSERT_EQ(cdb_pushd(c.fd, "/policy-from-qarmon"), MGMTD_OK) << mgmtd_lasterr();
    ASSERT_EQ(cdb_num_instances(c.fd, "data-policy"), 3);
    char name[33];
    std::vector<std::string> names;  // the 40-character name does not fit
    for (int i = 0; i < 3; i++) {
        const int failed = err(cdb_get_str(c.fd, name, sizeof name, "data-policy[%d]/name", i));
        names.push_back(failed == 0 ? name : failed == MGMTD_ERR_TOOBIG ? "(too big)" : "(failed)");
    }
    EXPECT_EQ(names, (std::vector<std::string>{"dp1", "(too big)", "dp3"}));
    EXPECT_EQ(cdb_num_instances(c.fd, "data-policy[%d]/vpn-list", 2), 2);
    ASSERT_EQ(cdb_pushd(c.fd, "data-policy[%d]/vpn-list[%d]", 2, 1), MGMTD_OK) << mgmtd_lasterr();
    ASSERT_EQ(cdb_get_str(c.fd, name, sizeof name, "name"), MGMTD_OK);
    EXPECT_STREQ(name, "vb");
    ASSERT_EQ(cdb_popd(c.fd), MGMTD_OK);
    EXPECT_EQ(cdb_get_str(c.fd, name, sizeof name, "data-policy{dp3}/vpn-list[0]/name"), MGMTD_OK);
    EXPECT_STREQ(name, "va");
    EXPECT_EQ(err(cdb_get_str(c.fd, name, sizeof name, "data-policy[7]/name")), MGMTD_ERR_NOEXISTS);
    EXPECT_EQ(err(cdb_num_instances(c.fd, "no-such-node")), MGMTD_ERR_BADPATH);
    EXPECT_EQ(err(cdb_delete(c.fd, "/policy-from-qarmon")), MGMTD_ERR_NOT_WRITABLE) << "running is read-only here";
    EXPECT_EQ(cdb_end_session(c.fd), MGMTD_OK);

    struct lookup { const char *path; int kind /* 0: unknown */, config; } const lookups[] = {
        {"/zentrak-policy:policy-from-qarmon/zentrak-policy:data-policy/zentrak-policy:name", MGMTD_CS_LEAF, 1},
        {"/policy-from-qarmon/lists/vpn-list", MGMTD_CS_LIST, 1},
        {"/policy/from-qarmon/lists/app-list/app", MGMTD_CS_LEAF_LIST, 0},
        {"/zen-policy:policy", MGMTD_CS_CONTAINER, 1},
        {"/zentrak-policy:policy-from-qarmon/zentrak-policy:newer-element", 0, 0},
        {"/other-prefix:policy-from-qarmon", 0, 0},
        {"not-absolute", 0, 0},
    };
    for (const lookup &l : lookups) {
        SCOPED_TRACE(l.path);
        for (int again = 0; again < 2; again++) {  // the second answer comes from the cache
            const mgmtd_cs_node_t *node = mgmtd_cs_node_cd(nullptr, "%s", l.path);
            EXPECT_EQ(node != nullptr ? 0 : mgmtd_errno, l.kind != 0 ? 0 : MGMTD_ERR_BADPATH) << mgmtd_lasterr();
            EXPECT_EQ(node != nullptr ? node->kind : 0, l.kind);
            EXPECT_EQ(node != nullptr ? node->config : 0, l.config);
        }
    }
    const mgmtd_cs_node_t *dp = mgmtd_cs_node_cd(nullptr, "/policy-from-qarmon/data-policy");
    ASSERT_NE(dp, nullptr);
    const mgmtd_cs_node_t *seq = mgmtd_cs_node_cd(dp, "vpn-list/sequence/%s", "seq-value");
    ASSERT_NE(seq, nullptr);
    EXPECT_STREQ(seq->name, "seq-value");
    EXPECT_STREQ(seq->module, "zen-policy-edge");
}

// A daemon that never answers: every call gives up after the timeout.
TEST_F(MgmtdDaemon, ClientTimesOutOnASilentPeer)
{
    conn listener;
    endpoint a(0);
    ASSERT_EQ(bind(listener.fd, a.addr(), sizeof a.in), 0);
    ASSERT_EQ(listen(listener.fd, 1), 0);
    socklen_t len = sizeof a.in;
    getsockname(listener.fd, a.addr(), &len);
    mgmtd_set_timeout_ms(200);
    conn c;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(err(maapi_connect(c.fd, a.addr(), sizeof a.in)), MGMTD_ERR_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(150));
    EXPECT_LT(waited, std::chrono::milliseconds(5000));
}

// Many clients at once, each committing its own transactions and reading
// its change back from running right after its commit: no change is lost,
// and every commit is counted once.
TEST_F(MgmtdDaemon, ConcurrentClientsLoseAndDuplicateNoCommit)
{
    constexpr int kClients = 50;
    constexpr int kTransactions = 100;
    std::vector<std::thread> threads;
    std::vector<int> failures(kClients, 0);
    for (int i = 0; i < kClients; i++) {
        threads.emplace_back([&, i] {
            conn c = maapi_conn(port());
            conn reader = cdb_conn(port(), MGMTD_RUNNING, false);
            const std::string name = "c" + std::to_string(i);
            for (int j = 0; j < kTransactions; j++) {
                const int th = start_trans(c);
                const std::string text = config_doc("<sla-class><name>" + name + "</name><latency>" +
                                                    std::to_string(j) + "</latency></sla-class>");
                char latency[16] = "";
                if (th < 0 ||
                    maapi_load_config_cmds(c.fd, th, MAAPI_CONFIG_XML | MAAPI_CONFIG_STRICT, text.c_str()) != 0 ||
                    maapi_apply_trans(c.fd, th, 0) != MGMTD_OK || maapi_candidate_commit(c.fd) != MGMTD_OK ||
                    cdb_start_session2(reader.fd, MGMTD_RUNNING, 0) != MGMTD_OK ||
                    cdb_get_str(reader.fd, latency, sizeof latency, "/policy-from-qarmon/sla-class{%s}/latency",
                                name.c_str()) != MGMTD_OK ||
                    cdb_end_session(reader.fd) != MGMTD_OK || std::atoi(latency) != j) {
                    failures[i]++;
                }
            }
            maapi_end_user_session(c.fd);
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(failures, std::vector<int>(kClients, 0));
    mgmtd_status_t st{};
    EXPECT_EQ(mgmtd_get_status(maapi_conn(port(), false).fd, &st), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_EQ(st.commits, long(kClients) * kTransactions);
    EXPECT_EQ(count("/policy-from-qarmon/sla-class"), kClients);
}

// Subtrees read back whole: every node a path names with its parents, in
// one document, in XML or JSON, as the golden texts show; a path without
// nodes gives an empty text, a bad format or path none at all.
TEST_F(MgmtdDaemon, DataSessionsReadSubtreesWithTheirParents)
{
    ASSERT_EQ(publish(show_doc(data_policy("dp1", "vl1") + data_policy("dp2", "vl2") + vpn_list("vl1", 1)),
                      kShowFlags, MGMTD_OPERATIONAL),
              0);
    const fs::path golden = ZEN_TEST_GOLDEN;
    struct row { const char *path; cdb_tree_format format; int errcode; std::string want; } const rows[] = {
        {"/policy/from-qarmon/data-policy", CDB_TREE_XML, 0, file_text(golden / "mgmtd-data-policies.xml")},
        {"/policy/from-qarmon/data-policy{dp2}/vpn-list", CDB_TREE_JSON, 0,
         file_text(golden / "mgmtd-dp2-vpn-lists.json")},
        {"/policy/from-qarmon/lists/app-list", CDB_TREE_XML, 0, ""},
        {"/policy/from-qarmon", static_cast<cdb_tree_format>(3), MGMTD_ERR_PROTOUSAGE, ""},
        {"/policy/no-such-node", CDB_TREE_XML, MGMTD_ERR_BADPATH, ""},
    };
    conn o = cdb_conn(port(), MGMTD_OPERATIONAL);
    for (const row &r : rows) {
        SCOPED_TRACE(r.path);
        char *text = nullptr;
        ASSERT_EQ(err(cdb_get_tree(o.fd, r.format, &text, "%s", r.path)), r.errcode) << mgmtd_lasterr();
        EXPECT_EQ(text == nullptr, r.errcode != 0);
        EXPECT_EQ(std::string(text != nullptr ? text : ""), r.want);
        std::free(text);
    }
    EXPECT_EQ(cdb_end_session(o.fd), MGMTD_OK);
}

}  // namespace
