// polctl's host side: the subscription table against the library (the
// model a commit leaves behind), the labels it hands out and the routes
// file reader.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "polctl_host.hpp"
#include "polctl_json.hpp"
#include "polctl_routes.hpp"

#ifndef POLCTL_TEST_EXAMPLES
#error "POLCTL_TEST_EXAMPLES names the examples directory"
#endif

namespace {

const std::string kExamples = POLCTL_TEST_EXAMPLES;

t_tloc_id tloc(const char *text)
{
    t_tloc_id t;
    EXPECT_TRUE(polctl::parse_tloc(text, &t)) << text;
    return t;
}

// Everything the library's whole dump prints, without the addresses of
// the records.
std::string dump_all()
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    maapi_cli_bind_stream(11, out);
    struct mgmtd_cli_user_info cli = {-1, 11, "test"};
    pol_dump_all(&cli, 0, nullptr);
    maapi_cli_unbind_stream(11);
    std::fclose(out);
    const std::string dump(text, size);
    std::free(text);
    return std::regex_replace(dump, std::regex("0x[0-9a-f]+"), "ADDR");
}

class HostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(host_.start(&error)) << error;
    }

    void commit(const std::string &file)
    {
        std::string error;
        ASSERT_EQ(host_.commit_file(kExamples + "/" + file, &error), MGMTD_DS_OK) << error;
    }

    t_pfx_entry *dc_entry()
    {
        const t_pfx_list_key key = {POL_AF_IPV4, "dc-prefixes"};
        t_pfx_list *list = pol_pfx_list_find(host_.ctx(), &key);
        return list != nullptr ? list->pfx_entry_head.tqh_first : nullptr;
    }

    t_pol_entry *sequence(const char *policy, uint32_t num)
    {
        t_pol_block *block = pol_block_find(host_.ctx(), policy, POL_TYPE_ROUTE, nullptr);
        return block != nullptr ? pol_entry_find(host_.ctx(), block, num, nullptr) : nullptr;
    }

    polctl::host host_;
};

TEST_F(HostTest, ExampleCommitsBuildTheModelTheConfigurationDescribes)
{
    commit("policy.xml");
    t_pfx_entry *dc = dc_entry();
    ASSERT_NE(dc, nullptr);
    EXPECT_EQ(dc->pfx_op, PFX_OP_RANGE);
    EXPECT_EQ(dc->preflen_min, 16);
    EXPECT_EQ(dc->preflen_max, 24);
    t_pol_entry *seq10 = sequence("hub-and-spoke", 10);
    ASSERT_NE(seq10, nullptr);
    EXPECT_EQ(seq10->match_entry.match_type, POL_MATCH_VROUTE);
    EXPECT_EQ(seq10->entry_set_flags, POL_SET_FLAG_TLOC_LIST);
    t_tloc_id west = tloc("10.0.0.2:mpls:ipsec");
    t_tloc_entry *west_entry = pol_tloc_list_find_entry(host_.ctx(), "hub-tlocs", &west);
    ASSERT_NE(west_entry, nullptr);
    EXPECT_EQ(west_entry->route_preference, 100u);
    t_pol_entry *seq40 = sequence("hub-and-spoke", 40);
    ASSERT_NE(seq40, nullptr);
    EXPECT_NE(seq40->entry_match_flags & POL_MATCH_FLAG_COMMUNITY_LIST, 0u);
    EXPECT_NE(seq40->entry_set_flags & POL_SET_FLAG_COMMUNITY_ADDITIVE, 0u);
    const std::string first = dump_all();

    commit("policy-v2.xml");
    // A modified prefix-list entry keeps the bound that did not change.
    dc = dc_entry();
    ASSERT_NE(dc, nullptr);
    EXPECT_EQ(dc->pfx_op, PFX_OP_RANGE);
    EXPECT_EQ(dc->preflen_min, 16);
    EXPECT_EQ(dc->preflen_max, 28);
    EXPECT_EQ(west_entry->route_preference, 120u);
    t_tloc_id west_inet = tloc("10.0.0.2:business-internet:ipsec");
    EXPECT_EQ(pol_tloc_list_find_entry(host_.ctx(), "hub-tlocs", &west_inet), nullptr);
    seq10 = sequence("hub-and-spoke", 10);
    ASSERT_NE(seq10, nullptr);
    EXPECT_EQ(seq10->entry_set_flags, POL_SET_FLAG_TLOC);
    EXPECT_EQ(TLOC_CMP(&seq10->set_entry.set_tloc, &west), 0);
    EXPECT_EQ(sequence("hub-and-spoke", 60), nullptr);
    EXPECT_EQ(pol_color_list_find(host_.ctx(), "private-transports"), nullptr);
    seq40 = sequence("hub-and-spoke", 40);
    EXPECT_EQ(seq40->entry_set_flags & POL_SET_FLAG_COMMUNITY_ADDITIVE, 0u);
    ASSERT_NE(seq40->set_entry.set_community, nullptr);
    EXPECT_EQ(seq40->set_entry.set_community->n_communities, 2u);
    t_pol_block *export_block = pol_block_find(host_.ctx(), "vpn-export", POL_TYPE_ROUTE, nullptr);
    ASSERT_NE(export_block, nullptr);
    EXPECT_EQ(export_block->default_action_entry.entry_action, POL_ACTION_REJECT);

    // And back: the model is what the first commit made.
    commit("policy.xml");
    EXPECT_EQ(dump_all(), first);
}

TEST_F(HostTest, UsersHearOfTheirPolicyOnce)
{
    commit("policy.xml");
    host_.register_user("spokes", "hub-and-spoke", POL_TYPE_ROUTE, POL_DIR_OUT);
    host_.register_user("members", "vpn-membership", POL_TYPE_MEMBERSHIP, POL_DIR_IN);
    host_.take_notifications();
    commit("policy-v2.xml");
    std::map<std::string, int> heard;
    for (const polctl::notification &n : host_.take_notifications()) {
        heard[n.user]++;
    }
    EXPECT_GT(heard["spokes"], 0);
    EXPECT_EQ(heard["members"], 1);  // one change to its policy: one callback
    commit("policy-v2.xml");
    EXPECT_TRUE(host_.take_notifications().empty());
}

TEST(LabelTable, RuleExplicitLabelsAndUnreachableTlocs)
{
    polctl::label_table labels;
    uint32_t label = 0;
    ASSERT_TRUE(labels.resolve(tloc("10.0.0.2:mpls:ipsec"), 10, 0, &label));
    EXPECT_EQ(label, 2022u);
    ASSERT_TRUE(labels.resolve(tloc("10.0.0.2:mpls:ipsec"), 40, 1, &label));
    EXPECT_EQ(label, 102022u);
    labels.set_label(tloc("10.0.0.2:mpls:ipsec"), 7002);
    labels.set_unreachable(tloc("10.0.0.9:lte:gre"));
    ASSERT_TRUE(labels.resolve(tloc("10.0.0.2:mpls:ipsec"), 10, 3, &label));
    EXPECT_EQ(label, 7002u);
    EXPECT_FALSE(labels.resolve(tloc("10.0.0.9:lte:gre"), 10, 0, &label));
    EXPECT_EQ(labels.handed_out().size(), 3u);
}

class RoutesFileTest : public ::testing::Test {
protected:
    void TearDown() override { std::remove(path_.c_str()); }

    polctl::routes_file read(const std::string &text)
    {
        std::ofstream(path_) << text;
        polctl::routes_file rf;
        EXPECT_TRUE(polctl::read_routes_file(path_, &rf));
        return rf;
    }

    std::string path_ = "/tmp/polctl_routes_test_" + std::to_string(getpid()) + ".txt";
};

TEST_F(RoutesFileTest, RoutesCarryEveryAttributeTheyName)
{
    const polctl::routes_file rf = read(
        "device edge   # an edge router\n"
        "user u policy p dir in type membership\n"
        "route u vroute 10.1.0.0/16 vpn 7 site 12 tloc 10.0.0.1:gold:gre preference 5 tag 6 "
        "domain 3 origin ospf-external2 metric 9 originator 192.0.2.1 carrier carrier3 "
        "group 1,2 community 65000:1,no-export label 44\n"
        "route u tloc 2001:db8::1:private6:ipsec\n"
        "route u service vpn 20 origin 4/6\n");
    ASSERT_TRUE(rf.errors.empty()) << rf.errors.front().text();
    EXPECT_EQ(rf.device, ZEN_DEVICE_RIMBA);
    ASSERT_EQ(rf.users.size(), 1u);
    EXPECT_EQ(rf.users[0].type, POL_TYPE_MEMBERSHIP);
    EXPECT_EQ(rf.users[0].dir, POL_DIR_IN);
    ASSERT_EQ(rf.routes.size(), 3u);

    const polctl::route_decl &v = rf.routes[0];
    EXPECT_EQ(v.line, 3);
    EXPECT_EQ(v.safi, POL_SAFI_VROUTE);
    EXPECT_EQ(v.vpn, 7u);
    EXPECT_EQ(v.prefix.prefixlen, 16);
    EXPECT_EQ(v.prefix.addr.u.addr4.s_addr, htonl(0x0a010000));
    const t_zen_attr &a = v.attr;
    EXPECT_EQ(a.attr_flags, ZEN_ATTR_FLAG_SITE_ID | ZEN_ATTR_FLAG_TLOC | ZEN_ATTR_FLAG_PREFERENCE |
                                ZEN_ATTR_FLAG_TAG | ZEN_ATTR_FLAG_DOMAIN_ID |
                                ZEN_ATTR_FLAG_ORIGIN | ZEN_ATTR_FLAG_ORIGIN_METRIC |
                                ZEN_ATTR_FLAG_ORIGINATOR | ZEN_ATTR_FLAG_CARRIER |
                                ZEN_ATTR_FLAG_GROUP);
    EXPECT_EQ(a.site_id, 12u);
    EXPECT_EQ(a.tloc.color, 11);
    EXPECT_EQ(a.tloc.encap, ZEN_TLOC_ENCAP_GRE);
    EXPECT_EQ(a.origin.proto, 4);
    EXPECT_EQ(a.origin.proto_sub_type, 4);
    EXPECT_EQ(a.origin.proto_metric, 9u);
    EXPECT_EQ(a.originator, htonl(0xc0000201));
    EXPECT_EQ(a.carrier, 3);
    ASSERT_EQ(a.group_count, 2);
    EXPECT_EQ(a.group_list[1], 2u);
    EXPECT_EQ(v.communities, std::vector<uint32_t>({(65000u << 16) | 1u, 0xFFFFFF01u}));
    EXPECT_EQ(v.in_label, 44u);

    EXPECT_EQ(rf.routes[1].safi, POL_SAFI_TLOC);
    EXPECT_EQ(rf.routes[1].afi, 2);
    EXPECT_EQ(rf.routes[1].route_tloc.color, 22);
    EXPECT_EQ(rf.routes[2].safi, POL_SAFI_SERVICE);
    EXPECT_EQ(rf.routes[2].attr.origin.proto_sub_type, 6);
}

TEST_F(RoutesFileTest, EveryBadLineIsReportedAndTheRestIsKept)
{
    const polctl::routes_file rf = read(
        "user u policy p dir out\n"
        "user u policy q dir out\n"
        "user w policy p dir sideways\n"
        "route u vroute 10.0.0.0/33 vpn 1\n"
        "route u vroute 10.0.0.0/8 vpn 1 tloc 10.0.0.1:mpls\n"
        "route u vroute 10.0.0.0/8 vpn 1 group 1,x\n"
        "route u vroute 10.0.0.0/8 vpn 99999999999\n"
        "route u vroute 10.0.0.0/8 vpn 1 community 65000:1:2\n"
        "route u bogus\n"
        "label 10.0.0.1:mpls:ipsec\n"
        "route u vroute 10.0.0.0/8 vpn 1 group 1,2,3,4,5,6,7,8,9,10 group 11,12,13,14,15,16,17\n"
        "route u vroute 10.0.0.0/8 vpn 1 community 65536:1\n"
        "route u vroute 10.0.0.0/8 vpn 1 community 99999999999:1\n" +
        std::string("user u\0x policy p dir in\n", 25) +
        "route u vroute 10.0.0.0/8 vpn 1 tag " + std::string(5000, '1') + "\n"
        "route u vroute 10.0.0.0/8 vpn 1 group 1,2,3,4,5,6,7,8 group 9,10,11,12,13,14,15,16\n");
    ASSERT_EQ(rf.errors.size(), 14u);
    for (size_t i = 0; i < rf.errors.size(); i++) {
        EXPECT_EQ(rf.errors[i].line, static_cast<int>(i) + 2);
        EXPECT_EQ(rf.errors[i].file, path_);
    }
    EXPECT_EQ(rf.errors[0].message, "user \"u\" is declared twice (line 1)");
    EXPECT_EQ(rf.errors[2].message, "bad prefix \"10.0.0.0/33\"");
    EXPECT_EQ(rf.errors[8].message, "missing label");
    EXPECT_EQ(rf.errors[9].message, "more than 16 groups");
    EXPECT_EQ(rf.errors[10].message, "bad community \"65536:1\"");
    EXPECT_EQ(rf.errors[12].message, "NUL byte in the line");
    EXPECT_EQ(rf.errors[13].message, "line longer than 4096 characters");
    // The line after an overlong one is read as usual.
    ASSERT_EQ(rf.routes.size(), 1u);
    EXPECT_EQ(rf.routes[0].line, 16);
    EXPECT_EQ(rf.routes[0].attr.group_count, 16);
    EXPECT_EQ(rf.users.size(), 1u);

    // A file that does not end (here: a long one without newlines) is read
    // only so far; a directory is no routes file.
    const polctl::routes_file endless = read(std::string(5u << 20, 'x'));
    ASSERT_EQ(endless.errors.size(), 1u);
    EXPECT_EQ(endless.errors[0].text(),
              path_ + ":1: file longer than 4194304 bytes; the rest is not read");
    polctl::routes_file dir;
    EXPECT_FALSE(polctl::read_routes_file("/tmp", &dir));
    ASSERT_EQ(dir.errors.size(), 1u);
    EXPECT_EQ(dir.errors[0].text(), "/tmp: is a directory, not a routes file");
}

// Users the library would take for one (same type and direction, names
// equal up to a NUL byte or the library's 127-character field) get one
// handle, held once, so it is unregistered once at the end.
TEST_F(HostTest, OneHandlePerLibraryUser)
{
    commit("policy.xml");
    const std::string long_name(127, 'n');
    struct {
        std::string first;
        std::string second;
        e_pol_dir second_dir;
        bool both;
    } const cases[] = {
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
    const struct {
        std::string text;
        std::string json;
    } cases[] = {
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
