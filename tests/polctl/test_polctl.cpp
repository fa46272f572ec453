// polctl's host side: the subscription table against the library (the
// model a commit leaves behind), the labels it hands out and the routes
// file reader.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "polctl_cmd_internal.hpp"
#include "polctl_labels.hpp"

#ifndef POLCTL_TEST_EXAMPLES
#error "POLCTL_TEST_EXAMPLES names the examples directory"
#endif

namespace {

const std::string kExamples = POLCTL_TEST_EXAMPLES;

const std::string kRoutesPath = ::testing::TempDir() + "polctl_routes_" + std::to_string(getpid()) + ".txt";

// What the routes reader makes of a file holding text; ok: what it must return.
polctl::routes_file read_routes(const std::string &text, bool ok = false)
{
    std::ofstream(kRoutesPath, std::ios::binary) << text;
    polctl::routes_file rf;
    EXPECT_TRUE(polctl::read_routes_file(kRoutesPath, &rf) || !ok);
    std::remove(kRoutesPath.c_str());
    return rf;
}

// The rule's service part; explicit labels, unreachable TLOCs and the rest
// of the rule are pinned by the golden text of polctl run.
TEST(LabelTable, RuleCountsTheService)
{
    polctl::label_table labels;
    t_tloc_id tloc;
    uint32_t label = 0;
    ASSERT_TRUE(polctl::parse_tloc("10.0.0.2:mpls:ipsec", &tloc) && labels.resolve(tloc, 40, 1, &label));
    EXPECT_EQ(label, 102022u);
}

// The callback of a labels file answers each question from the first line
// that fits it, and with label 0 and no TE entry when none does, whatever
// the label held before.
TEST(LabelsFile, CallbackAnswersFromTheFirstFittingLine)
{
    const std::string path = kRoutesPath + ".labels";
    std::ofstream(path) << "tloc 10.0.0.1:mpls:ipsec label 11 vpn 12\n"
                           "tloc 10.0.0.1:mpls:ipsec label 10\n"
                           "tloc 10.0.0.2:mpls:ipsec label 20 service firewall\n"
                           "service firewall vpn 40 label 5\n"
                           "service firewall vpn 40 originator 10.0.0.5:mpls te 10.0.0.6:mpls:ipsec 6 60 "
                           "te 10.0.0.7:lte:gre 7 70\n";
    polctl::labels_file file;
    ASSERT_TRUE(polctl::read_labels_file(path, &file));
    std::remove(path.c_str());
    ASSERT_TRUE(file.errors.empty()) << file.errors[0].text();
    const t_pol_label_cb_f cb = polctl::label_callback_from(&file);
    auto tloc = [](const char *text) {
        t_tloc_id t{};
        EXPECT_TRUE(polctl::parse_tloc(text, &t)) << text;
        return t;
    };
    struct Case {
        const char *tloc;  // asked for a TLOC; null: for a service
        const char *originator;  // service: null for none
        uint64_t vpn;
        uint16_t service;
        std::string answer;  // "label" or "label:te-label/preference,..."
    };
    const Case cases[] = {
        {"10.0.0.1:mpls:ipsec", nullptr, 12, 0, "11"},
        {"10.0.0.1:mpls:ipsec", nullptr, 13, 0, "10"},
        {"10.0.0.1:mpls:gre", nullptr, 12, 0, "0"},
        {"10.0.0.2:mpls:ipsec", nullptr, 12, 0, "0"},
        {"10.0.0.2:mpls:ipsec", nullptr, 12, 1, "20"},
        {nullptr, nullptr, 40, 1, "5:"},
        {nullptr, "10.0.0.5:mpls:gre", 40, 1, "0:6/60,7/70,"},
        {nullptr, "10.0.0.5:lte:gre", 40, 1, "0:"},
        {nullptr, "10.0.0.5:mpls:gre", 41, 1, "0:"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.answer);
        uint32_t label = 99;
        if (c.tloc != nullptr) {
            const t_tloc_id t = tloc(c.tloc);
            cb(1, t.addr.u.addr4.s_addr, t.color, t.encap, c.vpn, c.service, false, &label, nullptr, nullptr, 0);
            EXPECT_EQ(std::to_string(label), c.answer);
            continue;
        }
        t_tloc_id originator{};
        if (c.originator != nullptr) {
            originator = tloc(c.originator);
            originator.encap = 0;  // the library asks without one
        }
        t_pol_te_info te{};
        cb(1, 0, 0, 0, c.vpn, c.service, true, &label, &originator, &te, 0);
        std::string answer = std::to_string(label) + ":";
        for (uint32_t i = 0; i < te.num_entries; i++) {
            answer += std::to_string(te.entries[i].label) + "/" + std::to_string(te.entries[i].preference) + ",";
        }
        EXPECT_EQ(answer, c.answer);
    }
    polctl::label_callback_from(nullptr);
}

TEST(RoutesFile, RoutesCarryEveryAttributeTheyName)
{
    const polctl::routes_file rf =
        read_routes("device edge   # an edge router\n"
                    "user u policy p dir in type membership\n"
                    "route u vroute 10.1.0.0/16 vpn 7 site 12 tloc 10.0.0.1:gold:gre preference 5 tag 6 "
                    "domain 3 origin ospf-external2 metric 9 originator 192.0.2.1 carrier carrier3 "
                    "group 1,2 community 65000:1,no-export label 44\n"
                    "route u tloc 2001:db8::1:private6:ipsec\n"
                    "route u service vpn 20 origin 4/6\n",
                    true);
    ASSERT_TRUE(rf.errors.empty()) << rf.errors.front().text();
    ASSERT_TRUE(rf.users.size() == 1u && rf.routes.size() == 3u);
    EXPECT_EQ(std::tuple(rf.device, rf.users[0].type, rf.users[0].dir),
              std::tuple(ZEN_DEVICE_RIMBA, POL_TYPE_MEMBERSHIP, POL_DIR_IN));

    const polctl::route_decl &v = rf.routes[0];
    const t_zen_attr &a = v.attr;
    EXPECT_EQ(std::tuple(v.line, v.safi, v.vpn, v.prefix.prefixlen, v.prefix.addr.u.addr4.s_addr, v.in_label),
              std::tuple(3, POL_SAFI_VROUTE, 7u, uint8_t{16}, htonl(0x0a010000), 44u));
    EXPECT_EQ(a.attr_flags, ZEN_ATTR_FLAG_SITE_ID | ZEN_ATTR_FLAG_TLOC | ZEN_ATTR_FLAG_PREFERENCE | ZEN_ATTR_FLAG_TAG |
                                ZEN_ATTR_FLAG_DOMAIN_ID | ZEN_ATTR_FLAG_ORIGIN | ZEN_ATTR_FLAG_ORIGIN_METRIC |
                                ZEN_ATTR_FLAG_ORIGINATOR | ZEN_ATTR_FLAG_CARRIER | ZEN_ATTR_FLAG_GROUP);
    EXPECT_EQ(std::tuple(a.site_id, int(a.tloc.color), int(a.tloc.encap), int(a.origin.proto),
                         int(a.origin.proto_sub_type), a.origin.proto_metric, a.originator, int(a.carrier)),
              std::tuple(12u, 11, int(ZEN_TLOC_ENCAP_GRE), 4, 4, 9u, htonl(0xc0000201), 3));
    ASSERT_EQ(a.group_count, 2);
    EXPECT_EQ(a.group_list[1], 2u);
    EXPECT_EQ(v.communities, std::vector<uint32_t>({(65000u << 16) | 1u, 0xFFFFFF01u}));

    EXPECT_EQ(std::tuple(rf.routes[1].safi, int(rf.routes[1].afi), int(rf.routes[1].route_tloc.color)),
              std::tuple(POL_SAFI_TLOC, 2, 22));
    EXPECT_EQ(std::tuple(rf.routes[2].safi, int(rf.routes[2].attr.origin.proto_sub_type)),
              std::tuple(POL_SAFI_SERVICE, 6));
}

// Lines a text editor would not show: a NUL byte, an overlong line, a file
// without an end. Each is reported with its place; the rest of the file is
// read as usual, up to 16 groups a route.
TEST(RoutesFile, UnreadableInputIsBoundedAndReported)
{
    const polctl::routes_file rf =
        read_routes("user u policy p dir in\n" + std::string("user u\0x policy p dir in\n", 25) +
                    "route u vroute 10.0.0.0/8 vpn 1 tag " + std::string(5000, '1') + "\n"
                    "route u vroute 10.0.0.0/8 vpn 1 group 1,2,3,4,5,6,7,8 group 9,10,11,12,13,14,15,16\n");
    ASSERT_EQ(rf.errors.size(), 2u);
    EXPECT_EQ(rf.errors[0].text(), kRoutesPath + ":2: NUL byte in the line");
    EXPECT_EQ(rf.errors[1].text(), kRoutesPath + ":3: line longer than 4096 characters");
    ASSERT_EQ(rf.routes.size(), 1u);
    EXPECT_EQ(std::tuple(rf.routes[0].line, rf.routes[0].attr.group_count), std::tuple(4, 16));

    const polctl::routes_file endless = read_routes(std::string(5u << 20, 'x'));
    ASSERT_EQ(endless.errors.size(), 1u);
    EXPECT_EQ(endless.errors[0].text(), kRoutesPath + ":1: file longer than 4194304 bytes; the rest is not read");
}

// Users the library would take for one (same type and direction, names
// equal up to a NUL byte or the library's 127-character field) get one
// handle, held once, so it is unregistered once at the end.
TEST(Host, OneHandlePerLibraryUser)
{
    polctl::host host_;
    std::string error;
    ASSERT_TRUE(host_.start(&error) && host_.commit_file(kExamples + "/policy.xml", &error) == MGMTD_DS_OK) << error;
    const std::string long_name(127, 'n');
    struct { std::string first, second; e_pol_dir second_dir; bool both; } const cases[] = {
        {std::string("a\0x", 3), std::string("a\0y", 3), POL_DIR_OUT, false},
        {long_name + "1", long_name + "2", POL_DIR_OUT, false},
        {"b", "b", POL_DIR_IN, true},
        {"c", "c2", POL_DIR_OUT, true},
    };
    size_t expected = 0;
    for (const auto &c : cases) {
        ASSERT_NE(host_.register_user(c.first, "hub-and-spoke", POL_TYPE_ROUTE, POL_DIR_OUT),
                  nullptr);
        polctl::user_record *second =
            host_.register_user(c.second, "hub-and-spoke", POL_TYPE_ROUTE, c.second_dir);
        EXPECT_EQ(second != nullptr, c.both) << c.second;
        expected += c.both ? 2 : 1;
    }
    EXPECT_EQ(host_.users().size(), expected);
    EXPECT_EQ(avl_numnodes(&host_.ctx()->pol_users), expected);
}

// JSON strings stay valid whatever bytes the input files hold.
TEST(JsonWriter, StringsAreEscapedAndValidUtf8)
{
    const struct { std::string text, json; } cases[] = {
        {"plain \"q\" \\ \n\t", "\"plain \\\"q\\\" \\\\ \\n\\t\""},
        {std::string("a\0\x01\x1f\x7f", 5), "\"a\\u0000\\u0001\\u001f\x7f\""},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        {"\xff\xfe", "\"\\ufffd\\ufffd\""},
        {"\xc0\x80", "\"\\ufffd\\ufffd\""},                  // overlong NUL
        {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},          // surrogate
        {"\xf4\x90\x80\x80", "\"\\ufffd\\ufffd\\ufffd\\ufffd\""},  // past U+10FFFF
        {"\xe2\x82x", "\"\\ufffd\\ufffdx\""},                   // cut short
    };
    for (const auto &c : cases) {
        polctl::json_writer j;
        EXPECT_EQ(j.value(c.text).str(), c.json + "\n") << c.text;
    }
}

}  // namespace
