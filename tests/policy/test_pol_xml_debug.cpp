// Policy documents on the command line: the value renderers of the
// statistics, the summary and top-five tables over a filled model, the
// per-kind document dumps, and the sample generator's documents, each
// checked against the edge router's schema; the long goldens are in
// tests/golden/pol-xml-debug.txt.
#include <regex>

#include "pol_test_support.hpp"
#include "pol_xml.hpp"
#include "xml_test_support.hpp"

namespace {

using namespace poltest;

// Both sides of each unit's bounds; the tables below show the rest.
TEST(PolXmlStatText, UnitsAndBoundaries)
{
    for (auto [render, value, text] : {
             std::tuple{&nsec_to_str, int64_t{0}, "0.00 sec"},  // zero and negative values print in seconds
             {nsec_to_str, -2500000000, "-2.50 sec"}, {nsec_to_str, 999, "999.00 nsec"},
             {nsec_to_str, 1000, "1.00 usec"}, {nsec_to_str, 1500, "1.50 usec"}, {nsec_to_str, 999999, "1000.00 usec"},
             {nsec_to_str, 1000000, "1.00 msec"}, {nsec_to_str, 999999999, "1000.00 msec"},  // single precision
             {nsec_to_str, 1000000000, "1.00 sec"}, {nsec_to_str, 125000000000, "125.00 sec"},
             {bytes_to_str, 999, "999.00 b"}, {bytes_to_str, 1000, "1.00 Kb"}, {bytes_to_str, 2500000, "2.50 Mb"}}) {
        EXPECT_STREQ(render(value), text) << value;
    }
    // One shared buffer: a result is overwritten by the next.
    const char *first = nsec_to_str(1);
    bytes_to_str(1);
    EXPECT_STREQ(first, "1.00 b");
    for (auto [type, name] : {std::pair{POL_XML_TYPE_DATA_POLICY, "data-policy"}, {POL_XML_TYPE_APPLIST, "app-list"},
                              {POL_XML_TYPE_INVALID, "UNKNOWN"}, {POL_XML_TYPE_MAX, "UNKNOWN"}}) {
        EXPECT_STREQ(pol_xml_type_str(type), name);
    }
}

class PolXmlDebugTest : public PolContextTest {
protected:
    // A document rendered into the object's own record (its previous one
    // released first, as the publisher does); its cost and size then set to
    // chosen values (the tables read nothing else).
    void render(const void *object, pol_xml_t *doc, e_pol_xml_type type, time_t nsecs, uint32_t bytes = 0)
    {
        pol_xml_free_buf(doc);
        ASSERT_NE(pol_xml_convert(object, doc, type), nullptr);
        doc->time_spent = nsecs;
        if (bytes != 0) {
            doc->buf_siz = bytes;
        }
    }

    t_fwd_policer *policer(const char *name, time_t nsecs)
    {
        t_fwd_policer *p = pol_fwd_policer_find_or_create(ctx_, name, nullptr);
        render(p, &p->fwd_policer_xml, POL_XML_TYPE_POLICER, nsecs, 100);
        return p;
    }

    std::string run(int (*handler)(mgmtd_cli_user_info *, int, char **), const char *arg = nullptr)
    {
        char cmd[] = "show";
        std::string word = arg != nullptr ? arg : "";
        char *argv[] = {cmd, word.data(), nullptr};
        return dump([&](mgmtd_cli_user_info *s) { EXPECT_EQ(handler(s, arg != nullptr ? 2 : 1, argv), 0); });
    }
};

TEST_F(PolXmlDebugTest, SummaryCountsObjectsAndRenderedDocuments)
{
    for (auto [name, nsecs] : {std::pair{"VL", 1500}, {"VM", 2000000}}) {
        pol_vpn_list_add_entry(ctx_, name, 1, 5);
        t_vpn_list *vpn = pol_vpn_list_find(ctx_, name);
        render(vpn, &vpn->vpn_list_xml, POL_XML_TYPE_VPNLIST, nsecs, 4000000000u);
    }
    const t_tloc_id tloc{{IP_ADDR_V4, {}}, 1, 2};
    pol_tloc_list_add_entry(ctx_, "TL", &tloc, 10);
    t_tloc_list *tl = pol_tloc_list_find(ctx_, "TL");
    render(tl, &tl->tloc_list_xml, POL_XML_TYPE_TLOCLIST, 999, 2500);
    const t_ipprefix pfx{{IP_ADDR_V4, {}}, 8};
    pol_fwd_pfx_list_add_prefix(ctx_, "P4", &pfx);  // never rendered
    pol_app_list_entry_add_app(ctx_, "A", "zoom", POL_APP_LIST_TYPE_APP);
    policer("POL", 0);

    // 2 x 4000000000 bytes of the VPN lists wrap in the 32-bit sum to 3705032704.
    EXPECT_EQ(run(pol_dump_xml_summary), golden("pol-xml-debug.txt", "summary"));
}

TEST_F(PolXmlDebugTest, StatisticsShowTheApproximateTopFive)
{
    EXPECT_EQ(run(pol_dump_xml_statistics, "policer"), "") << "a kind without objects prints nothing";
    EXPECT_EQ(run(pol_dump_xml_statistics, "all"), "");

    policer("P1-a-name-longer-than-twenty-four", 1000);
    policer("P2", 2000);
    EXPECT_EQ(run(pol_dump_xml_statistics, "pol"), golden("pol-xml-debug.txt", "two policers, the long name cut"));
    // In name order 20, 10, 40, 50, 60 fill the table; 30 then replaces
    // the first cheaper slot (20), not the cheapest (10).
    for (auto [name, us] : {std::pair{"P1-a-name-longer-than-twenty-four", 20}, {"P2", 10}, {"P3", 40},
                            {"P4", 50}, {"P5", 60}, {"P6", 30}}) {
        policer(name, us * 1000);
    }
    const std::string top = golden("pol-xml-debug.txt", "top five policers");
    EXPECT_EQ(run(pol_dump_xml_statistics, "policer"), top);
    EXPECT_EQ(run(pol_dump_xml_statistics, "all"), "\n policer ==>" + top) << "empty kinds are left out";
    EXPECT_EQ(run(pol_dump_xml_statistics, "bogus"), "Unknown choice bogus\n");
}

TEST_F(PolXmlDebugTest, DocumentDumpsLeaveOutTheDeclaration)
{
    pol_vpn_list_add_entry(ctx_, "VL", 1, 5);
    pol_vpn_list_add_entry(ctx_, "VA", 7, 7);
    pol_vpn_list_add_entry(ctx_, "VN", 8, 8);  // never rendered
    t_vpn_list *vl = pol_vpn_list_find(ctx_, "VL");
    t_vpn_list *va = pol_vpn_list_find(ctx_, "VA");
    render(vl, &vl->vpn_list_xml, POL_XML_TYPE_VPNLIST, 1);
    render(va, &va->vpn_list_xml, POL_XML_TYPE_VPNLIST, 1);
    const std::string vl_body = "<vpn-list>\n  <name>VL</name>\n  <vpn>\n    <id>1-5</id>\n  </vpn>\n</vpn-list>\n";
    const std::string va_body = "<vpn-list>\n  <name>VA</name>\n  <vpn>\n    <id>7</id>\n  </vpn>\n</vpn-list>\n";

    EXPECT_EQ(run(pol_dump_xml_vpn_list, "VL"), vl_body);
    EXPECT_EQ(run(pol_dump_xml_vpn_list, "VN"), "");
    EXPECT_EQ(run(pol_dump_xml_vpn_list, "nope"), "");
    EXPECT_EQ(run(pol_dump_xml_vpn_list), "") << "no name given";
    EXPECT_EQ(run(pol_dump_xml_tloc_list, "VL"), "") << "each kind looks in its own tree";
    EXPECT_EQ(dump([](mgmtd_cli_user_info *s) { pol_dump_xml_vpn_list_all(s); }), va_body + vl_body);

    t_fwd_policer *p = policer("POL", 1);
    const std::string policer_doc = run(pol_dump_xml_policer, "POL");
    EXPECT_EQ(policer_doc, std::string(p->fwd_policer_xml.buf + 22));
    EXPECT_EQ(dump([](mgmtd_cli_user_info *s) { pol_dump_xml_policer_all(s); }), policer_doc);
}

// The generator's output: a heading, then per sample kind a frame with the
// kind's name around the document, which passes the schema.
TEST_F(PolXmlDebugTest, GeneratorSamplesPassTheSchema)
{
    const std::string out = run(pol_dump_test_xml_gen);
    EXPECT_TRUE(pol_vpn_list_find(ctx_, "test-vpn-list") == nullptr) << "samples are not kept";
    EXPECT_EQ(out, golden("pol-xml-debug.txt", "generator samples"));
    const std::string rule = "================================";
    const std::regex frame("\n\n" + rule + "\n    ([a-z0-9-]+)\n([^]*?)\n " + rule);
    std::size_t n = 0;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), frame); it != std::sregex_iterator(); ++it, ++n) {
        const std::string doc = (*it)[2];
        EXPECT_EQ(schema_round_trip(doc), compact(doc, true)) << (*it)[1];
    }
    EXPECT_EQ(n, 9u);
}

}  // namespace
