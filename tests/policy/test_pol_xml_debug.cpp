// Policy documents on the command line: the value renderers of the
// statistics, the summary and top-five tables over a filled model, the
// per-kind document dumps, and the sample generator's documents, each
// checked against the edge router's schema.
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

    const std::string border = "+----------------------+---------+---------+--------------+--------------+";
    const std::string expect =
        "\n " + border +
        "\n | XML type             | Objects | Valid   | Total Time   | Total Bytes  |\n " + border + "\n"
        " | data-policy          | 0       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " | app-route-policy     | 0       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " | cflowd-template      | 0       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " | policer              | 1       | 1       | 0.00 sec     | 100.00 b     |\n"
        " | sla-class            | 0       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " | app-probe-class      | 0       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " | data-prefix-list     | 1       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " | data-ipv6-prefix-list | 0       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        // 2 x 4000000000 bytes wrap in the 32-bit sum to 3705032704
        " | vpn-list             | 2       | 2       | 2.00 msec    | 3.71 Gb      |\n"
        " | tloc-list            | 1       | 1       | 999.00 nsec  | 2.50 Kb      |\n"
        " | app-list             | 1       | 0       | 0.00 sec     | 0.00 Gb      |\n"
        " " + border + "\n\n Total time spent      : 2.00 msec\n Total space allocated : 3.71 Gb\n\n";
    EXPECT_EQ(run(pol_dump_xml_summary), expect);
}

TEST_F(PolXmlDebugTest, StatisticsShowTheApproximateTopFive)
{
    const std::string border = "+--------------------------+--------------+--------------+";
    const std::string head = "\n " + border + "\n | Object name              | Total Time   | Total Bytes  |\n " +
                             border + "\n";
    const std::string tail = " " + border + "\n\n";
    EXPECT_EQ(run(pol_dump_xml_statistics, "policer"), "") << "a kind without objects prints nothing";
    EXPECT_EQ(run(pol_dump_xml_statistics, "all"), "");

    policer("P1-a-name-longer-than-twenty-four", 1000);
    policer("P2", 2000);
    EXPECT_EQ(run(pol_dump_xml_statistics, "pol"), head +
                                                       " | P2                       | 2.00 usec    | 100.00 b     |\n"
                                                       " | P1-a-name-longer-than-tw | 1.00 usec    | 100.00 b     |\n" +
                                                       tail);
    // In name order 20, 10, 40, 50, 60 fill the table; 30 then replaces
    // the first cheaper slot (20), not the cheapest (10).
    for (auto [name, us] : {std::pair{"P1-a-name-longer-than-twenty-four", 20}, {"P2", 10}, {"P3", 40},
                            {"P4", 50}, {"P5", 60}, {"P6", 30}}) {
        policer(name, us * 1000);
    }
    const std::string top = head +
                            " | P5                       | 60.00 usec   | 100.00 b     |\n"
                            " | P4                       | 50.00 usec   | 100.00 b     |\n"
                            " | P3                       | 40.00 usec   | 100.00 b     |\n"
                            " | P6                       | 30.00 usec   | 100.00 b     |\n"
                            " | P2                       | 10.00 usec   | 100.00 b     |\n" +
                            tail;
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
// kind's name around the document.
TEST_F(PolXmlDebugTest, GeneratorSamplesPassTheSchema)
{
    const std::string out = run(pol_dump_test_xml_gen);
    EXPECT_TRUE(pol_vpn_list_find(ctx_, "test-vpn-list") == nullptr) << "samples are not kept";

    const std::string rule = "================================";
    ASSERT_EQ(out.rfind(rule + "\n    XML unit test\n" + rule, 0), 0u) << out;
    const std::regex frame("\n\n" + rule + "\n    ([a-z0-9-]+)\n([^]*?)\n " + rule);
    struct Sample {
        const char *kind;
        Place place;
        const char *expect;
    };
    const Sample samples[] = {
        {"cflowd-template", Place::top,
         "cflowd-template{name=test-cflowd flow-active-timeout=60 flow-inactive-timeout=60 template-refresh=30 "
         "flow-sampling-interval=100 collector{vpn=0 address=10.0.1.100 port=4739 transport=transport_tcp "
         "source-interface=ge1/0}}"},
        {"policer", Place::top, "policer{name=test-policer rate=1000000 burst=10000 exceed=drop}"},
        {"sla-class", Place::top,
         "sla-class{name=test-sla-class loss=0 latency=1000 jitter=1000 app-probe-class}"},
        {"app-probe-class", Place::lists,
         "app-probe-class{name=test-app_probe-class forwarding-class=test-forwarding-class "
         "color{color-name=gold dscp=30}}"},
        {"data-prefix-list", Place::lists, "data-prefix-list{name=test-data-prefix-list ip-prefix{ip=10.0.1.100/32}}"},
        {"data-ipv6-prefix-list", Place::lists,
         "data-ipv6-prefix-list{name=test-data-prefix-list ipv6-prefix{ipv6=102:304:506:708:90a:b0c:d0e:f10/128}}"},
        {"vpn-list", Place::lists, "vpn-list{name=test-vpn-list vpn{id=100}}"},
        {"tloc-list", Place::lists, "tloc-list{name=test-tloc-list tloc{ip=10.0.1.100 color=default encap=ipsec preference=0}}"},
        {"app-list", Place::lists, "app-list{name=test-app-list app=gmail}"},
    };
    std::size_t n = 0;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), frame); it != std::sregex_iterator(); ++it, ++n) {
        ASSERT_LT(n, std::size(samples)) << out;
        const Sample &s = samples[n];
        const std::string doc = (*it)[2];
        SCOPED_TRACE(s.kind);
        EXPECT_EQ((*it)[1], s.kind);
        EXPECT_EQ(doc.find("<?xml"), std::string::npos);
        EXPECT_EQ(compact(doc), s.expect);
        EXPECT_EQ(schema_round_trip(doc, s.place), compact(doc, true));
    }
    EXPECT_EQ(n, std::size(samples));
}

}  // namespace
