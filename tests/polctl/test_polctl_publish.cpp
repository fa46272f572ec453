// polctl load and show-data against a real management daemon (zen-mgmtd on
// a free port of the test's own): an example edge's payload published,
// loaded and read back; payloads the daemon must not take. (What publish
// prints, a payload that is not XML and a daemon that is down are pinned
// by polctl's end-to-end cases.)
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../platform/mgmtd_test_daemon.hpp"
#include "polctl_cmd.hpp"

namespace {

namespace fs = std::filesystem;

struct run_result {
    int rc;
    std::string out;
    std::string err;
};

// Every leaf element of a document as "path=value" (the path below the
// first skip levels), sorted: the content, whatever the order.
std::vector<std::string> leaves(const std::string &xml, size_t skip)
{
    static const std::regex tag(R"(<(/?)([\w-]+)[^>]*?(/?)>([^<]*))");
    std::vector<std::string> path, out;
    std::string text;   // after the tag last opened
    bool leaf = false;  // the element last opened holds no element yet
    for (std::sregex_iterator it(xml.begin(), xml.end(), tag), end; it != end; ++it) {
        const std::smatch &m = *it;
        const bool closing = m[1].length() > 0, empty = m[3].length() > 0;
        if (!closing) {
            path.push_back(m[2]);
        }
        if (closing ? leaf : empty) {
            std::string here;
            for (size_t i = skip; i < path.size(); i++) {
                here += "/" + path[i];
            }
            out.push_back(here + "=" + (empty ? "" : text));
        }
        leaf = !closing && !empty;
        text = m[4];
        if (closing || empty) {
            path.pop_back();
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

class PolctlPublish : public ::testing::Test {
protected:
    void SetUp() override
    {
        daemon_.open(std::string("polctl-publish-") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override { daemon_.close(); }

    run_result publish(const std::string &edge)
    {
        std::ostringstream out, err;
        const int rc = polctl::cmd_publish({}, std::string(POLCTL_TEST_EXAMPLES) + "/data-policy.xml", edge, out, err);
        return {rc, out.str(), err.str()};
    }
    run_result load(const std::string &payload)
    {
        const fs::path file = daemon_.dir / "payload.xml";
        std::ofstream(file) << payload;
        std::ostringstream out, err;
        const int rc = polctl::cmd_load({}, file.string(), daemon_.port(), out, err);
        return {rc, out.str(), err.str()};
    }
    run_result show_data(bool json = false)
    {
        std::ostringstream out, err;
        const int rc = polctl::cmd_show_data({json, 0, {}}, daemon_.port(), out, err);
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

    zen_test::test_daemon daemon_;
};

// Each example edge: the payload published is what the running
// configuration and the show data hold afterwards, nothing more (the show
// data of the edge before is gone). Then a payload the daemon refuses
// leaves the running configuration as it was; an element the daemon's
// schema does not know is pruned and reported, and the rest loads.
TEST_F(PolctlPublish, RoundTripGivesBackWhatWasPublishedAndRefusedPayloadsChangeNothing)
{
    run_result published;
    for (const char *edge : {"branch-1", "branch-2"}) {
        SCOPED_TRACE(edge);
        published = publish(edge);
        ASSERT_EQ(published.rc, 0) << published.err;
        const std::vector<std::string> content = leaves(published.out, 0);
        ASSERT_GT(content.size(), 20u);

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

    const std::string before = running();
    struct row {
        const char *what;
        std::string payload;
        int rc;
        const char *reported;  // in the output (rc 0) or the errors
    } rows[] = {
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

}  // namespace
