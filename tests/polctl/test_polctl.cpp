// polctl's host side: the subscription table against the library (the
// model a commit leaves behind), the labels it hands out and the routes
// file reader.
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

// What the routes reader makes of a file holding text (the attributes it
// reads are pinned by the polctl_run_every_attribute golden).
polctl::routes_file read_routes(const std::string &text)
{
    std::ofstream(kRoutesPath, std::ios::binary) << text;
    polctl::routes_file rf;
    polctl::read_routes_file(kRoutesPath, &rf);
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

// A question no line fits gets label 0 whatever the label held before; the
// answers of the lines are pinned by the polctl_render_labels_questions golden.
TEST(LabelsFile, UnansweredQuestionGetsLabelZero)
{
    const polctl::labels_file none;
    uint32_t label = 99;
    polctl::label_callback_from(&none)(1, 0, 0, 0, 0, 0, false, &label, nullptr, nullptr, 0);
    EXPECT_EQ(label, 0u);
    polctl::label_callback_from(nullptr);
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
