// The configuration datastore's commit engine, driven with the policy
// module and a recording subscription table: the same paths, key depths,
// extra arguments and flags as the library's table, with callbacks that
// write down exactly what they are handed.
// The delivery of every subscribed kind over the example configurations
// (order, keys, extra arguments) is pinned by polctl's diff golden texts;
// the cases here pin what those examples do not reach.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <policy/pol_config.h>
#include <zen/mgmtd_ds.h>

namespace {

// "name:type=value" per value ("uint32" for C_UINT32, "enum" for
// C_ENUM_VALUE), "name{" and "}" around containers.
std::string render_value(const mgmtd_ds_t *ds, const mgmtd_tag_value_t &tv)
{
    const char *name = mgmtd_ds_tag_name(ds, tv.tag.tag);
    std::string out = name != nullptr ? name : "?";
    if (tv.v.type == C_XMLBEGIN || tv.v.type == C_XMLEND || tv.v.type == C_NOEXISTS) {
        return tv.v.type == C_XMLEND ? "}" : out + (tv.v.type == C_XMLBEGIN ? "{" : "=-");
    }
    std::string type = mgmtd_value_type_name(tv.v.type) + 2;
    type.resize(std::min(type.size(), type.find('_')));
    std::transform(type.begin(), type.end(), type.begin(), [](char c) { return char(std::tolower(c)); });
    char text[512];
    return out + ":" + type + "=" + mgmtd_value_print(&tv.v, text, sizeof(text));
}

// Writes down each call as "<op> [<keys>] <values> arg=<arg>"; the trace
// then puts the subscription's name in front.
class Recorder {
public:
    mgmtd_ds_t *ds = nullptr;
    std::vector<std::string> calls;

    static int32_t record(t_vmgmtd_context *, void *host, mgmtd_iter_op oper, uint8_t num_keys,
                          mgmtd_value_t *keys, uint16_t num_values, mgmtd_tag_value_t *values, int32_t arg)
    {
        auto *self = static_cast<Recorder *>(host);
        std::string line = mgmtd_iter_op_name(oper) + std::string(" [");
        for (uint8_t i = 0; i < num_keys; i++) {
            char text[128];
            line += (i == 0 ? "" : " ");
            line += mgmtd_value_print(&keys[i], text, sizeof(text));
        }
        line += "]";
        for (uint16_t i = 0; i < num_values; i++) {
            line += " " + render_value(self->ds, values[i]);
        }
        if (arg != 0) {
            line += " arg=" + std::to_string(arg);
        }
        self->calls.push_back(line);
        return 0;
    }

    // Records the call, then fails it with a status other than 1, which the
    // commit's error has to pass on as it is.
    static int32_t failing(t_vmgmtd_context *v, void *host, mgmtd_iter_op oper, uint8_t num_keys,
                           mgmtd_value_t *keys, uint16_t num_values, mgmtd_tag_value_t *values, int32_t arg)
    {
        record(v, host, oper, num_keys, keys, num_values, values, arg);
        return 2;
    }

    static void trace(void *ctx, const char *, const mgmtd_ds_sub_t *sub, mgmtd_iter_op, uint8_t,
                      const mgmtd_value_t *, uint32_t, const mgmtd_tag_value_t *, int32_t)
    {
        auto *self = static_cast<Recorder *>(ctx);
        self->calls.back() = std::string(sub->name) + " " + self->calls.back();
    }
};

// The names of the data nodes a YANG module's text declares.
std::set<std::string> yang_node_names(const std::string &text)
{
    static const std::regex node(R"(\b(?:container|list|leaf|leaf-list)\s+([\w.-]+)\s*\{)");
    std::set<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), node), end; it != end; ++it) {
        names.insert((*it)[1]);
    }
    return names;
}

std::string xml(const std::string &body)
{
    return "<policy xmlns=\"urn:zen:params:xml:ns:yang:zen-policy\">\n" + body + "</policy>\n";
}

const std::string &scratch_path()
{
    static const std::string path = ::testing::TempDir() + "mgmtd_ds_" + std::to_string(getpid()) + ".xml";
    return path;
}

// Writes text to the test's scratch file and returns its path.
std::string scratch(const std::string &text)
{
    std::ofstream(scratch_path()) << text;
    return scratch_path();
}

using Calls = std::vector<std::string>;

class DatastoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char err[256] = "";
        ds_ = mgmtd_ds_open(mgmtd_ds_policy_schema(), err, sizeof(err));
        ASSERT_NE(ds_, nullptr) << err;
        rec_.ds = ds_;
        subscribe({});
        mgmtd_ds_set_trace(ds_, Recorder::trace, &rec_);
    }

    void TearDown() override
    {
        mgmtd_ds_close(ds_);
        std::remove(scratch_path().c_str());
    }

    // The library's table with recording callbacks; the named rows fail.
    void subscribe(const std::set<std::string> &failing_rows)
    {
        size_t num_subs = 0;
        const mgmtd_ds_sub_t *subs = pol_config_subscriptions(&num_subs);
        table_.assign(subs, subs + num_subs);
        for (mgmtd_ds_sub_t &row : table_) {
            row.cb = failing_rows.count(row.name) != 0 ? Recorder::failing : Recorder::record;
        }
        ASSERT_EQ(mgmtd_ds_subscribe(ds_, table_.data(), table_.size(), &rec_), MGMTD_DS_OK) << mgmtd_ds_error(ds_);
    }

    // Commits a file and returns what was delivered.
    Calls commit_path(const std::string &path, int expect = MGMTD_DS_OK)
    {
        rec_.calls.clear();
        EXPECT_EQ(mgmtd_ds_commit_file(ds_, path.c_str()), expect) << mgmtd_ds_error(ds_);
        return rec_.calls;
    }

    Calls commit(const std::string &body, int expect = MGMTD_DS_OK) { return commit_path(scratch(xml(body)), expect); }

    std::string running()
    {
        char *text = mgmtd_ds_running_text(ds_);
        std::string out = text != nullptr ? text : "(null)";
        std::free(text);
        return out;
    }

    mgmtd_ds_t *ds_ = nullptr;
    Recorder rec_;
    std::vector<mgmtd_ds_sub_t> table_;
};

// A control policy with one sequence: a site-list match and a set.
std::string policy(const std::string &set_body)
{
    return "<lists><site-list><name>spokes</name>\n  <site><range>100-199</range></site></site-list></lists>\n"
           "<control-policy><name>hs</name><sequence><seq>10</seq>\n"
           "  <match><kind>route</kind><site-list>spokes</site-list></match>\n"
           "  <action>accept</action><set>" +
           set_body + "</set></sequence></control-policy>\n";
}

// A file refused at each stage it goes through (opened, parsed as XML or
// JSON, validated) changes and delivers nothing. (polctl's bad-input cases
// pin the message of each kind of mistake.)
TEST_F(DatastoreTest, InvalidInputChangesAndDeliversNothing)
{
    commit(policy("<preference>1</preference>"));
    const std::string before = running();
    for (const char *file : {"no-such-file.xml", "malformed.xml", "wrong-type.json", "dangling-ref.xml"}) {
        SCOPED_TRACE(file);
        const std::string path = std::string(POL_TEST_BAD_INPUT) + "/" + file;
        EXPECT_TRUE(commit_path(path, MGMTD_DS_INVALID).empty());
        EXPECT_EQ(std::string(mgmtd_ds_error(ds_)).rfind(path + ":", 0), 0u) << mgmtd_ds_error(ds_);
        EXPECT_EQ(mgmtd_ds_delivered(ds_), 0u);
        EXPECT_EQ(running(), before);
    }
}

// A failed call stops the commit: running holds what was delivered before
// it, and the old values of a node whose modification failed.
TEST_F(DatastoreTest, FailedCallbackStopsTheCommitAndRunningKeepsWhatWasDelivered)
{
    subscribe({"control-match"});
    const std::string body =
        policy("<preference>1</preference>") + "<membership-policy><name>m</name></membership-policy>";
    const Calls first = commit(body, MGMTD_DS_STOPPED);
    ASSERT_EQ(first.size(), 5u);
    EXPECT_EQ(first.back(), "control-match create [hs 10 0] site-list:buf=spokes");
    EXPECT_EQ(std::string(mgmtd_ds_error(ds_)),
              "commit stopped at /zen-policy:policy/control-policy[name='hs']/sequence[seq='10']/"
              "match[kind='route']: create callback control-match returned status 2");
    EXPECT_EQ(mgmtd_ds_running_count(ds_, "/zen-policy:policy/control-policy/sequence"), 1);
    EXPECT_EQ(mgmtd_ds_running_count(ds_, "/zen-policy:policy/control-policy/sequence/match"), 0);
    EXPECT_EQ(mgmtd_ds_running_count(ds_, "/zen-policy:policy/membership-policy"), 0);
    EXPECT_EQ(mgmtd_ds_running_count(ds_, "//set/preference"), 1);

    // Once the callback works, the next commit delivers what is missing.
    subscribe({});
    EXPECT_EQ(commit(body), Calls({"control-match create [hs 10 0] site-list:buf=spokes",
                                   "membership-policy create [m] default-action:enum=1"}));
    EXPECT_EQ(commit(body), Calls());

    subscribe({"control-sequence"});
    commit(policy("<preference>2</preference>"), MGMTD_DS_STOPPED);
    EXPECT_EQ(mgmtd_ds_running_count(ds_, "//set[preference=1]"), 1);
    subscribe({});
    EXPECT_EQ(commit(policy("<preference>2</preference>")),
              Calls({"control-sequence modify [hs 10] set{ preference:uint32=2 }"}));
}

TEST_F(DatastoreTest, TableAndSchemaAreChecked)
{
    const mgmtd_ds_sub_t not_a_node[] = {{"/zen-policy:policy/lists/nothing", Recorder::record, 0, 0, "x", 0}};
    EXPECT_EQ(mgmtd_ds_subscribe(ds_, not_a_node, 1, &rec_), MGMTD_DS_FAILED);
    const mgmtd_ds_sub_t too_many_keys[] = {
        {"/zen-policy:policy/lists/site-list/site", Recorder::record, 3, 0, "x", 0}};
    EXPECT_EQ(mgmtd_ds_subscribe(ds_, too_many_keys, 1, &rec_), MGMTD_DS_FAILED);
    EXPECT_NE(std::string(mgmtd_ds_error(ds_)).find("has 2 keys, not 3"), std::string::npos);

    // Every node name of the module has exactly one tag, and no two names
    // share one.
    const mgmtd_ds_schema_t *schema = mgmtd_ds_policy_schema();
    std::set<std::string> names;
    std::set<uint32_t> tags;
    for (size_t i = 0; i < schema->num_tags; i++) {
        EXPECT_TRUE(names.insert(schema->tags[i].name).second) << schema->tags[i].name;
        EXPECT_TRUE(tags.insert(schema->tags[i].tag).second) << schema->tags[i].name;
    }
    EXPECT_EQ(names, yang_node_names(schema->module_text));
    // A module with a node the table does not know is refused.
    mgmtd_ds_schema_t partial = *schema;
    partial.num_tags -= 1;
    char err[256] = "";
    EXPECT_EQ(mgmtd_ds_open(&partial, err, sizeof(err)), nullptr);
    EXPECT_NE(std::string(err).find("has no tag"), std::string::npos) << err;
}

std::string presence_tree(int depth, bool module)
{
    std::string out;
    for (const std::string name : {"l", "r"}) {
        if (depth > 0) {
            out += module ? "container " + name + " { presence \"p\";\n" + presence_tree(depth - 1, true) + "}\n"
                          : "<" + name + ">" + presence_tree(depth - 1, false) + "</" + name + ">";
        }
    }
    return out;
}

// A module whose container "top" holds `leaves` leaves and a tree of
// presence containers `depth` levels deep (an "l" and an "r" in each), or
// the configuration that fills it: top hands over leaves + 2 x (2^(depth+1)
// - 2) values.
std::string wide(int depth, int leaves, bool module)
{
    std::string out = module ? "module wide { yang-version 1.1; namespace \"urn:wide\"; prefix w;\ncontainer top {\n"
                             : "<top xmlns=\"urn:wide\">";
    for (int i = 0; i < leaves; i++) {
        const std::string name = "v" + std::to_string(i);
        out += module ? "leaf " + name + " { type string; }\n" : "<" + name + ">x</" + name + ">";
    }
    return out + presence_tree(depth, module) + (module ? "}\n}\n" : "</top>\n");
}

int32_t count_values(t_vmgmtd_context *, void *host, mgmtd_iter_op, uint8_t, mgmtd_value_t *, uint16_t num_values,
                     mgmtd_tag_value_t *, int32_t)
{
    *static_cast<long *>(host) = num_values;
    return 0;
}

// What a node hands over is bounded by its schema: a filled small module
// hands over exactly its bound, and a subscription whose node could hand
// over more than one call counts is refused before anything is delivered.
TEST(DatastoreValueCount, NodesBeyondTheCountOfOneCallAreRefused)
{
    static const mgmtd_ds_tag_t kTags[] = {{"top", 1}, {"l", 2},  {"r", 3},  {"v0", 4},
                                           {"v1", 5},  {"v2", 6}, {"v3", 7}};
    const mgmtd_ds_sub_t top[] = {{"/wide:top", count_values, 0, 0, "top", 0}};
    // values: handed over by a commit of the filled module; -1: not committed
    struct count_case { int depth, leaves; long values; int status; };
    const count_case cases[] = {
        {3, 2, 2 + 2 * 14, MGMTD_DS_OK},
        {14, 3, -1, MGMTD_DS_OK},  // 65535
        {14, 4, -1, MGMTD_DS_FAILED},
    };
    for (const count_case &c : cases) {
        const std::string module = wide(c.depth, c.leaves, true);
        const mgmtd_ds_schema_t schema = {"wide", module.c_str(), kTags, std::size(kTags)};
        char err[256] = "";
        mgmtd_ds_t *ds = mgmtd_ds_open(&schema, err, sizeof(err));
        ASSERT_NE(ds, nullptr) << err;
        long handed = -1;
        EXPECT_EQ(mgmtd_ds_subscribe(ds, top, 1, &handed), c.status) << mgmtd_ds_error(ds);
        if (c.values >= 0) {
            const std::string path = scratch(wide(c.depth, c.leaves, false));
            EXPECT_EQ(mgmtd_ds_commit_file(ds, path.c_str()), MGMTD_DS_OK) << mgmtd_ds_error(ds);
            std::remove(path.c_str());
            EXPECT_EQ(handed, c.values);
        }
        if (c.status != MGMTD_DS_OK) {
            EXPECT_EQ(std::string(mgmtd_ds_error(ds)),
                      "subscription 0: \"/wide:top\" can hand over 65536 values, more than the 65535 of one call");
        }
        mgmtd_ds_close(ds);
    }
}

// A configuration with a node of every subscribed kind; the leaves given
// go to the node marked "@<slot>", the other marks are left empty, so that
// two such configurations differ in that one node.
std::string every_kind(char slot, const std::string &leaves)
{
    std::string text =
        "<lists><site-list><name>spokes</name><site><range>1</range></site></site-list>\n"
        "<vpn-list><name>v</name><vpn><range>1</range></vpn></vpn-list>\n"
        "<tloc-list><name>t</name><tloc><address>2001:db8::1</address><color>gold</color><encap>gre</encap>@T"
        "</tloc></tloc-list>\n<color-list><name>c</name><entry><color>red</color></entry></color-list>\n"
        "<prefix-list><name>p</name><entry><prefix>10.0.0.0/8</prefix>@P</entry></prefix-list>\n"
        "<ipv6-prefix-list><name>p6</name><entry><prefix>2001:db8::/32</prefix>@6</entry></ipv6-prefix-list>"
        "</lists>\n<control-policy><name>hs</name><sequence><seq>10</seq><match><kind>route</kind>@M</match>"
        "<action>accept</action><set>@S</set></sequence></control-policy>\n"
        "<route-policy><name>rp</name><sequence><seq>1</seq><action>accept</action>@R</sequence></route-policy>\n"
        "<membership-policy><name>m</name><sequence><seq>1</seq><action>accept</action>@B</sequence>"
        "</membership-policy>\n";
    for (size_t at; (at = text.find('@')) != std::string::npos;) {
        text.replace(at, 2, text[at + 1] == slot ? leaves : "");
    }
    return text;
}

// One node's leaves change: it gets one modification, even when all its
// leaves went away (a whole subscription then gets no values at all), and
// the leaves that went away come before the ones that are set, at every
// container level, so that a reader that turns two leaves into one
// condition sees the removal first. A value back to its default is handed
// over as the default.
TEST_F(DatastoreTest, ModifiedNodeGetsOneCallWithItsRemovalsFirst)
{
    // slot: the mark in every_kind() of the node that changes (want names it and its keys)
    struct leaf_change { char slot; const char *before, *after, *want; };
    const leaf_change cases[] = {
        // every non-key leaf goes
        {'T', "<preference>5</preference>", "", "tloc-list-entry modify [t 2001:db8::1 11 1] preference=-"},
        {'P', "<ge>16</ge><le>24</le>", "", "prefix-list-entry modify [p 10.0.0.0/8]"},
        {'6', "<eq>48</eq>", "", "ipv6-prefix-list-entry modify [p6 2001:db8::/32]"},
        {'M', "<tloc><address>10.0.0.9</address><color>gold</color></tloc>", "",
         "control-match modify [hs 10 0] tloc{ address=- color=- encap=- }"},
        {'S', "<preference>1</preference><community>1:1</community>", "",
         "control-sequence modify [hs 10] set{ preference=- community=- }"},
        {'S', "<service><type>ids</type><vpn>40</vpn></service>", "",
         "control-sequence modify [hs 10] set{ service{ type=- vpn=- } }"},
        {'R', "<omp-tag>5</omp-tag><metric>9</metric>", "", "route-sequence modify [rp 1] omp-tag=- metric=-"},
        // one leaf gives way to another: the removal first
        {'R', "<ospf-tag>5</ospf-tag>", "<omp-tag>5</omp-tag>",
         "route-sequence modify [rp 1] ospf-tag=- omp-tag:uint32=5"},
        {'M', "<color-list>c</color-list>", "<color>red</color>",
         "control-match modify [hs 10 0] color-list=- color:enum=8"},
        {'B', "<vpn-list>v</vpn-list>", "<vpn>5</vpn>", "membership-sequence modify [m 1] vpn-list=- vpn:uint32=5"},
        {'S', "<tloc-list>t</tloc-list>", "<tloc><address>10.0.0.2</address><color>mpls</color></tloc>",
         "control-sequence modify [hs 10] set{ tloc-list=- tloc{ address:ipv4=10.0.0.2 color:enum=2 encap:enum=2 } }"},
        {'S', "<service><type>ids</type><vpn>40</vpn></service>", "<service><type>ips</type></service>",
         "control-sequence modify [hs 10] set{ service{ vpn=- type:enum=3 } }"},
        {'S', "<preference>200</preference><omp-tag>7</omp-tag>",
         "<preference>300</preference><service><type>ids</type><vpn>40</vpn></service>",
         "control-sequence modify [hs 10] set{ omp-tag=- preference:uint32=300 service{ type:enum=2 vpn:uint32=40 } }"},
        {'P', "<eq>24</eq>", "<ge>16</ge>", "prefix-list-entry modify [p 10.0.0.0/8] ge:uint8=16"},
        // a leaf changes: a whole subscription gets every value, a leaf-list comes whole
        {'P', "<ge>16</ge><le>24</le>", "<ge>16</ge><le>28</le>",
         "prefix-list-entry modify [p 10.0.0.0/8] ge:uint8=16 le:uint8=28"},
        {'S', "<community>1:1</community><additive>true</additive>",
         "<community>1:1</community><community>1:2</community>",
         "control-sequence modify [hs 10] set{ community:list=[1:1 1:2] additive:bool=false }"},
        {'S', "<tloc><address>10.0.0.1</address><color>mpls</color></tloc>",
         "<tloc><address>10.0.0.1</address><color>gold</color></tloc>",
         "control-sequence modify [hs 10] set{ tloc{ color:enum=11 } }"},
        {'S', "<additive>true</additive>", "", "control-sequence modify [hs 10] set{ additive:bool=false }"},
    };
    for (const leaf_change &c : cases) {
        SCOPED_TRACE(std::string(c.before) + " -> " + c.after);
        commit(every_kind(c.slot, c.before));
        EXPECT_EQ(commit(every_kind(c.slot, c.after)), Calls({c.want}));
        EXPECT_EQ(commit(every_kind(c.slot, c.after)), Calls());
    }
}

}  // namespace
