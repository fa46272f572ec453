// polctl publish, load and show-data against a real management daemon
// (zen-mgmtd on a free port of the test's own): an example edge's payload
// published, loaded and read back; payloads the daemon must not take; a
// daemon that is down; an edge the configuration does not name.
#include <libxml/parser.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "../platform/mgmtd_test_daemon.hpp"
#include "polctl_cmd.hpp"

namespace {

namespace fs = std::filesystem;

const std::string kConfig = std::string(POLCTL_TEST_EXAMPLES) + "/data-policy.xml";

struct run_result {
    int rc;
    std::string out;
    std::string err;
};

// Every leaf element of a document as "path=value" (the path below the
// first skip levels), sorted: the content, whatever the order.
void collect_leaves(xmlNodePtr node, const std::string &path, int skip, std::vector<std::string> *out)
{
    for (xmlNodePtr n = node; n != nullptr; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        const std::string here = skip > 0 ? path : path + "/" + reinterpret_cast<const char *>(n->name);
        bool has_elements = false;
        for (xmlNodePtr c = n->children; c != nullptr; c = c->next) {
            has_elements = has_elements || c->type == XML_ELEMENT_NODE;
        }
        if (has_elements || skip > 0) {
            collect_leaves(n->children, here, skip - 1, out);
            continue;
        }
        xmlChar *text = xmlNodeGetContent(n);
        out->push_back(here + "=" + reinterpret_cast<const char *>(text));
        xmlFree(text);
    }
}

std::vector<std::string> leaves(const std::string &xml, int skip)
{
    const std::string doc = "<document>" + xml + "</document>";
    xmlDocPtr parsed = xmlReadMemory(doc.c_str(), static_cast<int>(doc.size()), nullptr, nullptr, XML_PARSE_NOBLANKS);
    std::vector<std::string> out;
    if (parsed != nullptr) {
        collect_leaves(xmlDocGetRootElement(parsed)->children, "", skip, &out);
        xmlFreeDoc(parsed);
    }
    std::sort(out.begin(), out.end());
    return out;
}

class PolctlPublish : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("polctl-publish-" + std::to_string(getpid()) + "-" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_ / "db");
        ASSERT_TRUE(daemon_.start(dir_ / "db"));
    }
    void TearDown() override
    {
        mgmtd_cs_reset();
        EXPECT_EQ(daemon_.stop(), 0);
        fs::remove_all(dir_);
    }

    run_result publish(const std::string &edge, bool json = false)
    {
        std::ostringstream out, err;
        const int rc = polctl::cmd_publish({json, 0, {}}, kConfig, edge, out, err);
        return {rc, out.str(), err.str()};
    }
    run_result load(const std::string &payload, int port = 0)
    {
        const fs::path file = dir_ / "payload.xml";
        std::ofstream(file) << payload;
        std::ostringstream out, err;
        const int rc = polctl::cmd_load({}, file.string(), port != 0 ? port : daemon_.port(), out, err);
        return {rc, out.str(), err.str()};
    }
    run_result show_data(bool json = false, int port = 0)
    {
        std::ostringstream out, err;
        const int rc = polctl::cmd_show_data({json, 0, {}}, port != 0 ? port : daemon_.port(), out, err);
        return {rc, out.str(), err.str()};
    }
    // The running configuration's edge subtree, as the daemon prints it.
    std::string running()
    {
        zen_test::conn c = zen_test::cdb_conn(daemon_.port(), MGMTD_RUNNING);
        char *text = nullptr;
        EXPECT_EQ(cdb_get_tree(c.fd, CDB_TREE_XML, &text, "/policy-from-qarmon"), MGMTD_OK) << mgmtd_lasterr();
        cdb_end_session(c.fd);
        const std::string tree = text != nullptr ? text : "";
        std::free(text);
        return tree;
    }

    fs::path dir_;
    zen_test::daemon_process daemon_;
};

// Each example edge: the payload published is what the running
// configuration and the show data hold afterwards, nothing more (the show
// data of the edge before is gone).
TEST_F(PolctlPublish, RoundTripGivesBackWhatWasPublished)
{
    struct row {
        const char *edge;
        const char *direction;
        const char *policies;  // of the JSON report
    } rows[] = {
        {"branch-1", "from-service",
         "\"data-policy-from-service\": \"hub-and-spoke-data\",\n    \"app-route-policy\": \"voice-and-video\",\n"
         "    \"cflowd-template\": \"flows\"\n"},
        {"branch-2", "all", "\"data-policy-from-tunnel\": \"hub-and-spoke-data\"\n"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.edge);
        const run_result published = publish(r.edge);
        ASSERT_EQ(published.rc, 0) << published.err;
        const std::vector<std::string> content = leaves(published.out, 0);
        ASSERT_GT(content.size(), 20u);
        EXPECT_NE(std::find(content.begin(), content.end(), std::string("/data-policy/direction=") + r.direction),
                  content.end());
        EXPECT_NE(publish(r.edge, true).out.find(r.policies), std::string::npos);

        const run_result loaded = load(published.out);
        ASSERT_EQ(loaded.rc, 0) << loaded.err;
        EXPECT_NE(loaded.out.find("pruned: nothing\n  configuration: ERR_OK (0)\n  show data: ERR_OK (0)\n"),
                  std::string::npos)
            << loaded.out;
        EXPECT_EQ(leaves(running(), 1), content);
        const run_result shown = show_data();
        ASSERT_EQ(shown.rc, 0) << shown.err;
        EXPECT_EQ(leaves(shown.out, 2), content);
        EXPECT_NE(show_data(true).out.find("\"zen-policy-edge:policy\": {\n    \"from-qarmon\": {"),
                  std::string::npos);
    }
}

// A payload that is not XML, or that the daemon refuses, leaves the running
// configuration as it was; an element the daemon's schema does not know is
// pruned and reported, and the rest loads.
TEST_F(PolctlPublish, RefusedPayloadsLeaveRunningAsItWas)
{
    const run_result published = publish("branch-1");
    ASSERT_EQ(published.rc, 0) << published.err;
    ASSERT_EQ(load(published.out).rc, 0);
    const std::string before = running();
    struct row {
        const char *what;
        std::string payload;
        int rc;
        const char *reported;  // in the output (rc 0) or the errors
    } rows[] = {
        {"not well-formed", "<data-policy>\n<name>x</name>", 1,
         "payload.xml:2: the payload is not well-formed XML"},
        {"refused by the daemon", "<data-policy><name>x</name><direction>sideways</direction></data-policy>", 1,
         "configuration not loaded: ERR_MGMTD_FAIL (16): malformed configuration text: Invalid enumeration value "
         "\"sideways\""},
        {"newer element", published.out + "<newer-element><a>1</a></newer-element>", 0,
         "pruned: /newer-element\n"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        const run_result loaded = load(r.payload);
        EXPECT_EQ(loaded.rc, r.rc);
        EXPECT_NE((r.rc == 0 ? loaded.out : loaded.err).find(r.reported), std::string::npos)
            << loaded.out << loaded.err;
        EXPECT_EQ(running(), before);
    }
}

// No daemon on the port, and an edge the configuration does not name.
TEST_F(PolctlPublish, DaemonDownOrEdgeUnknownIsExitOne)
{
    zen_test::endpoint unused(0);
    zen_test::conn probe;  // a port nobody listens on: bind, read it, close
    ASSERT_EQ(bind(probe.fd, unused.addr(), sizeof unused.in), 0);
    socklen_t len = sizeof unused.in;
    getsockname(probe.fd, unused.addr(), &len);
    const int dead_port = ntohs(unused.in.sin_port);
    close(std::exchange(probe.fd, -1));

    const run_result rows[] = {
        load("<data-policy><name>x</name></data-policy>", dead_port),
        show_data(false, dead_port),
        publish("branch-9"),
    };
    const std::string reasons[] = {
        "load: the management daemon does not answer on 127.0.0.1:" + std::to_string(dead_port) + " (socket error:",
        "show-data: the management daemon does not answer",
        "data-policy.xml: no edge \"branch-9\" under apply-policy (edges: branch-1, branch-2)",
    };
    for (size_t i = 0; i < std::size(rows); i++) {
        SCOPED_TRACE(reasons[i]);
        EXPECT_EQ(rows[i].rc, 1);
        EXPECT_NE(rows[i].err.find(reasons[i]), std::string::npos) << rows[i].err;
        EXPECT_EQ(rows[i].out, "");
    }
}

}  // namespace
