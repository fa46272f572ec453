// The configuration datastore's commit engine, driven with the policy
// module and a recording subscription table: the same paths, key depths,
// extra arguments and flags as the library's table, with callbacks that
// write down exactly what they are handed.
#include <unistd.h>

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

// "name:type=value" per value, "name{" and "}" around containers.
std::string render_value(const mgmtd_ds_t *ds, const mgmtd_tag_value_t &tv)
{
    const char *name = mgmtd_ds_tag_name(ds, tv.tag.tag);
    std::string out = name != nullptr ? name : "?";
    if (tv.v.type == C_XMLBEGIN) {
        return out + "{";
    }
    if (tv.v.type == C_XMLEND) {
        return "}";
    }
    if (tv.v.type == C_NOEXISTS) {
        return out + "=-";
    }
    static const std::pair<mgmtd_vtype, const char *> kShort[] = {
        {C_BUF, "buf"},   {C_UINT8, "u8"},      {C_UINT16, "u16"},     {C_UINT32, "u32"},
        {C_BOOL, "bool"}, {C_ENUM_VALUE, "enum"}, {C_IPV4, "ip4"},     {C_IPV6, "ip6"},
        {C_LIST, "list"}, {C_IPV4PREFIX, "pfx4"}, {C_IPV6PREFIX, "pfx6"},
    };
    for (const auto &s : kShort) {
        if (s.first == tv.v.type) {
            out += std::string(":") + s.second;
        }
    }
    char text[512];
    return out + "=" + mgmtd_value_print(&tv.v, text, sizeof(text));
}

class Recorder {
public:
    mgmtd_ds_t *ds = nullptr;
    std::vector<std::string> calls;
    std::string fail_on;  // a subscription name whose next call fails
    int32_t fail_status = 1;

    static int32_t record(t_vmgmtd_context *, void *host, mgmtd_iter_op oper, uint8_t num_keys,
                          mgmtd_value_t *keys, uint16_t num_values, mgmtd_tag_value_t *values,
                          int32_t arg)
    {
        auto *self = static_cast<Recorder *>(host);
        std::string line = oper == MOP_CREATED   ? "create"
                           : oper == MOP_DELETED ? "delete"
                                                 : "modify";
        line += " [";
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

    // The trace names the subscription; a chosen one fails here, after
    // the callback recorded what it was handed.
    static void trace(void *ctx, const char *, const mgmtd_ds_sub_t *sub, mgmtd_iter_op,
                      uint8_t, const mgmtd_value_t *, uint32_t, const mgmtd_tag_value_t *,
                      int32_t)
    {
        auto *self = static_cast<Recorder *>(ctx);
        self->calls.back() = std::string(sub->name) + " " + self->calls.back();
    }
};

// Fails the call of one subscription: status from the recorder's setting.
int32_t failing(t_vmgmtd_context *v, void *host, mgmtd_iter_op oper, uint8_t num_keys,
                mgmtd_value_t *keys, uint16_t num_values, mgmtd_tag_value_t *values, int32_t arg)
{
    Recorder::record(v, host, oper, num_keys, keys, num_values, values, arg);
    return static_cast<Recorder *>(host)->fail_status;
}

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

constexpr const char *kHead = "<policy xmlns=\"urn:zen:params:xml:ns:yang:zen-policy\">\n";
constexpr const char *kTail = "</policy>\n";

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
        char dir[] = "/tmp/mgmtd_ds_testXXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }

    void TearDown() override
    {
        mgmtd_ds_close(ds_);
        for (const std::string &f : files_) {
            std::remove(f.c_str());
        }
        rmdir(dir_.c_str());
    }

    // The library's table with recording callbacks; the named rows fail.
    void subscribe(const std::set<std::string> &failing_rows)
    {
        size_t num_subs = 0;
        const mgmtd_ds_sub_t *subs = pol_config_subscriptions(&num_subs);
        table_.assign(subs, subs + num_subs);
        for (mgmtd_ds_sub_t &row : table_) {
            row.cb = failing_rows.count(row.name) != 0 ? failing : Recorder::record;
        }
        ASSERT_EQ(mgmtd_ds_subscribe(ds_, table_.data(), table_.size(), &rec_), MGMTD_DS_OK)
            << mgmtd_ds_error(ds_);
    }

    std::string write(const std::string &body, const std::string &name = "c.xml")
    {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << body;
        files_.insert(path);
        return path;
    }

    // Commits a configuration body and returns what was delivered.
    std::vector<std::string> commit(const std::string &body, int expect = MGMTD_DS_OK)
    {
        rec_.calls.clear();
        EXPECT_EQ(mgmtd_ds_commit_file(ds_, write(kHead + body + kTail).c_str()), expect)
            << mgmtd_ds_error(ds_);
        return rec_.calls;
    }

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
    std::string dir_;
    std::set<std::string> files_;
};

using Calls = std::vector<std::string>;

const std::string kSites = R"(<lists><site-list><name>spokes</name>
  <site><range>100-199</range></site></site-list></lists>
)";

// A control policy with one sequence: match, community-list match, set.
std::string policy(const std::string &set_body, const std::string &match_extra = "",
                   const std::string &lists = "")
{
    std::string sites = kSites;
    sites.insert(sites.find("</lists>"), lists);
    return sites + R"(<control-policy><name>hs</name><sequence><seq>10</seq>
  <match><kind>route</kind><site-list>spokes</site-list>)" +
           match_extra + R"(</match>
  <action>accept</action><set>)" +
           set_body + "</set></sequence></control-policy>\n";
}

TEST_F(DatastoreTest, CreationComesParentsFirstWithEveryLeafInSchemaOrder)
{
    const Calls calls = commit(policy(
        "<community>100:1</community><preference>200</preference>"
        "<tloc><color>mpls</color><address>10.0.0.1</address></tloc>"));
    const Calls want = {
        "site-list create [spokes]",
        "site-list-entry create [spokes 100-199]",
        "control-policy create [hs] default-action:enum=1",
        "control-sequence create [hs 10] action:enum=0 set{ preference:u32=200 tloc{ "
        "address:ip4=10.0.0.1 color:enum=2 encap:enum=2 } community:list=[100:1] "
        "additive:bool=false }",
        "control-match create [hs 10 0] site-list:buf=spokes",
    };
    EXPECT_EQ(calls, want);
}

TEST_F(DatastoreTest, ModificationCarriesOnlyWhatChanged)
{
    commit(policy("<preference>200</preference><omp-tag>7</omp-tag>"));
    // one leaf changes, one goes (handed over first), a container comes
    EXPECT_EQ(commit(policy("<preference>300</preference>"
                            "<service><type>ids</type><vpn>40</vpn></service>")),
              Calls({"control-sequence modify [hs 10] set{ omp-tag=- preference:u32=300 "
                     "service{ type:enum=2 vpn:u32=40 } }"}));
    // a container goes: every leaf it held is removed, within its brackets
    EXPECT_EQ(commit(policy("<preference>300</preference>")),
              Calls({"control-sequence modify [hs 10] set{ service{ type=- vpn=- } }"}));
    // back to the default value: the default is the new value
    commit(policy("<preference>300</preference><additive>true</additive>"));
    EXPECT_EQ(commit(policy("<preference>300</preference>")),
              Calls({"control-sequence modify [hs 10] set{ additive:bool=false }"}));
    EXPECT_EQ(commit(policy("<preference>300</preference>")), Calls());
}

TEST_F(DatastoreTest, DeletionReachesOnlyTheTopmostNodeAndComesFirst)
{
    commit(policy("<preference>1</preference>") +
           "<route-policy><name>rp</name><sequence><seq>1</seq><action>accept</action>"
           "</sequence></route-policy>");
    // the control policy goes, the route policy stays and changes
    const Calls calls = commit(kSites +
                               "<route-policy><name>rp</name><sequence><seq>1</seq>"
                               "<action>reject</action></sequence></route-policy>");
    EXPECT_EQ(calls, Calls({"control-policy delete [hs]",
                            "route-sequence modify [rp 1] action:enum=1"}));
    // an entry is replaced: the old one goes before the new one comes
    EXPECT_EQ(commit("<lists><site-list><name>spokes</name><site><range>7</range></site>"
                     "</site-list></lists>"),
              Calls({"site-list-entry delete [spokes 100-199]", "route-policy delete [rp]",
                     "site-list-entry create [spokes 7]"}));
}

TEST_F(DatastoreTest, NestedListsHandTheirKeysOutermostFirst)
{
    const Calls calls = commit(R"(<lists>
      <tloc-list><name>hubs</name>
        <tloc><address>2001:db8::1</address><color>gold</color><encap>gre</encap>
          <preference>5</preference></tloc></tloc-list>
      <prefix-list><name>p4</name><entry><prefix>10.1.0.0/16</prefix></entry></prefix-list>
      <ipv6-prefix-list><name>p6</name><entry><prefix>2001:db8::/32</prefix><eq>48</eq>
      </entry></ipv6-prefix-list>
      <community-list><name>std</name><entry><community>no-export</community></entry>
      </community-list>
      <expanded-community-list><name>exp</name><entry><pattern>^65000:.*</pattern></entry>
      </expanded-community-list></lists>
    <control-policy><name>hs</name><sequence><seq>5</seq>
      <match><kind>tloc</kind><community-list><name>std</name></community-list></match>
      <action>reject</action></sequence><sequence><seq>6</seq>
      <match><kind>tloc</kind><expanded-community-list><name>exp</name></expanded-community-list>
      </match><action>reject</action></sequence></control-policy>)");
    const Calls want = {
        "tloc-list create [hubs]",
        "tloc-list-entry create [hubs 2001:db8::1 11 1] preference:u32=5",
        "prefix-list create [p4] arg=1",
        "prefix-list-entry create [p4 10.1.0.0/16]",
        "ipv6-prefix-list create [p6]",
        "ipv6-prefix-list-entry create [p6 2001:db8::/32] eq:u8=48",
        "community-list create [std] arg=1",
        "community-list-entry create [std no-export] arg=1",
        "expanded-community-list create [exp] arg=2",
        "expanded-community-list-entry create [exp ^65000:.*] arg=2",
        "control-policy create [hs] default-action:enum=1",
        "control-sequence create [hs 5] action:enum=1 set{ additive:bool=false }",
        "control-match create [hs 5 1]",
        "control-match-community-list create [hs 5 1] name:buf=std arg=1",
        "control-sequence create [hs 6] action:enum=1 set{ additive:bool=false }",
        "control-match create [hs 6 1]",
        "control-match-expanded-community-list create [hs 6 1] name:buf=exp arg=2",
    };
    EXPECT_EQ(calls, want);
}

TEST_F(DatastoreTest, InvalidInputChangesAndDeliversNothing)
{
    commit(policy("<preference>1</preference>"));
    const std::string before = running();
    struct bad_case {
        const char *body;
        const char *message;  // part of the message, after "FILE"
    };
    const bad_case cases[] = {
        {"<lists><site-list><name>x</name><site><range>1</range></site><colour/></site-list>"
         "</lists>",
         ":2: Node \"colour\" not found"},
        {"<lists><site-list><name>x</name><site><range>1a</range></site></site-list></lists>",
         ":2: an id is a number from 0 to 4294967295 without leading zeros"},
        {"<lists><site-list><name>x</name><site><range>1</range></site></site-list>\n"
         "<site-list><name>x</name><site><range>2</range></site></site-list></lists>",
         ":3: Duplicate instance of \"site-list\""},
        {"<lists><site-list><site><range>1</range></site></site-list></lists>",
         ":2: List instance is missing its key \"name\""},
        {"<lists><site-list><name>x</name>", ":2: Opening (\"site-list\") and closing"},
        {"<control-policy><name>p</name><sequence><seq>1</seq><action>accept</action><match>"
         "<kind>route</kind><site-list>nope</site-list></match></sequence></control-policy>",
         ": Invalid leafref value \"nope\""},
    };
    for (const bad_case &c : cases) {
        const std::string path = write(kHead + std::string(c.body) + kTail, "bad.xml");
        rec_.calls.clear();
        EXPECT_EQ(mgmtd_ds_commit_file(ds_, path.c_str()), MGMTD_DS_INVALID) << c.body;
        const std::string msg = mgmtd_ds_error(ds_);
        EXPECT_EQ(msg.rfind(path + c.message, 0), 0u) << msg;
        EXPECT_TRUE(rec_.calls.empty());
        EXPECT_EQ(mgmtd_ds_delivered(ds_), 0u);
        EXPECT_EQ(running(), before);
    }
    // a leafref error names the data path
    EXPECT_NE(std::string(mgmtd_ds_error(ds_)).find("(at /zen-policy:policy/control-policy"),
              std::string::npos);
    EXPECT_EQ(mgmtd_ds_commit_file(ds_, (dir_ + "/missing.xml").c_str()), MGMTD_DS_INVALID);
    EXPECT_NE(std::string(mgmtd_ds_error(ds_)).find("missing.xml: cannot open"), std::string::npos);
}

TEST_F(DatastoreTest, JsonIsParsedAsStrictly)
{
    const std::string good = write(R"({"zen-policy:policy": {"lists": {"vpn-list": [
        {"name": "v", "vpn": [{"range": "10-20"}]}]}}})", "c.json");
    rec_.calls.clear();
    ASSERT_EQ(mgmtd_ds_commit_file(ds_, good.c_str()), MGMTD_DS_OK) << mgmtd_ds_error(ds_);
    EXPECT_EQ(rec_.calls, Calls({"vpn-list create [v]", "vpn-list-entry create [v 10-20]"}));
    const std::string bad = write("{\"zen-policy:policy\": {\"lists\": {\"vpn-list\": [\n"
                                  "  {\"name\": \"v\", \"bogus\": 1}]}}}",
                                  "bad.json");
    EXPECT_EQ(mgmtd_ds_commit_file(ds_, bad.c_str()), MGMTD_DS_INVALID);
    EXPECT_EQ(std::string(mgmtd_ds_error(ds_)).rfind(bad + ":2: ", 0), 0u) << mgmtd_ds_error(ds_);
}

TEST_F(DatastoreTest, FailedCallbackStopsTheCommitAndRunningKeepsWhatWasDelivered)
{
    subscribe({"control-match"});
    rec_.fail_status = 2;
    const std::string body = policy("<preference>1</preference>") +
                             "<membership-policy><name>m</name></membership-policy>";
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
}

TEST_F(DatastoreTest, FailedModificationLeavesTheOldValuesRunning)
{
    commit(policy("<preference>1</preference>"));
    subscribe({"control-sequence"});
    commit(policy("<preference>2</preference>"), MGMTD_DS_STOPPED);
    EXPECT_EQ(mgmtd_ds_running_count(ds_, "//set[preference=1]"), 1);
    subscribe({});
    EXPECT_EQ(commit(policy("<preference>2</preference>")),
              Calls({"control-sequence modify [hs 10] set{ preference:u32=2 }"}));
}

TEST_F(DatastoreTest, TableAndSchemaAreChecked)
{
    const mgmtd_ds_sub_t not_a_node[] = {
        {"/zen-policy:policy/lists/nothing", Recorder::record, 0, 0, "x", 0}};
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

// A module whose container "top" holds `leaves` leaves and a tree of
// presence containers `depth` levels deep (an "l" and an "r" in each), and
// a configuration that fills it: top hands over leaves + 2 x (2^(depth+1)
// - 2) values.
struct wide_module {
    wide_module(int depth, int leaves)
    {
        std::string tree;
        std::string data;
        fill(depth, &tree, &data);
        module = "module wide { yang-version 1.1; namespace \"urn:wide\"; prefix w;\n"
                 "container top {\n";
        config = "<top xmlns=\"urn:wide\">";
        for (int i = 0; i < leaves; i++) {
            const std::string name = "v" + std::to_string(i);
            module += "leaf " + name + " { type string; }\n";
            config += "<" + name + ">x</" + name + ">";
        }
        module += tree + "}\n}\n";
        config += data + "</top>\n";
    }

    static void fill(int depth, std::string *tree, std::string *data)
    {
        for (const char *name : {"l", "r"}) {
            if (depth == 0) {
                return;
            }
            *tree += std::string("container ") + name + " { presence \"p\";\n";
            *data += std::string("<") + name + ">";
            fill(depth - 1, tree, data);
            *tree += "}\n";
            *data += std::string("</") + name + ">";
        }
    }

    std::string module;
    std::string config;
};

int32_t count_values(t_vmgmtd_context *, void *host, mgmtd_iter_op, uint8_t, mgmtd_value_t *,
                     uint16_t num_values, mgmtd_tag_value_t *, int32_t)
{
    *static_cast<long *>(host) = num_values;
    return 0;
}

// What a node hands over is bounded by its schema: a filled small module
// hands over exactly its bound, and a subscription whose node could hand
// over more than one call counts is refused before anything is delivered.
TEST(DatastoreValueCount, NodesBeyondTheCountOfOneCallAreRefused)
{
    static const mgmtd_ds_tag_t kTags[] = {{"top", 1}, {"l", 2}, {"r", 3}, {"v0", 4},
                                           {"v1", 5},  {"v2", 6}, {"v3", 7}};
    const mgmtd_ds_sub_t top[] = {{"/wide:top", count_values, 0, 0, "top", 0}};
    struct count_case {
        int depth, leaves;
        long values;  // handed over by a commit of the filled module; -1: not committed
        int status;
    };
    const count_case cases[] = {
        {3, 2, 2 + 2 * 14, MGMTD_DS_OK},
        {14, 3, -1, MGMTD_DS_OK},  // 65535
        {14, 4, -1, MGMTD_DS_FAILED},
    };
    for (const count_case &c : cases) {
        const wide_module wide(c.depth, c.leaves);
        const mgmtd_ds_schema_t schema = {"wide", wide.module.c_str(), kTags, std::size(kTags)};
        char err[256] = "";
        mgmtd_ds_t *ds = mgmtd_ds_open(&schema, err, sizeof(err));
        ASSERT_NE(ds, nullptr) << err;
        long handed = -1;
        EXPECT_EQ(mgmtd_ds_subscribe(ds, top, 1, &handed), c.status) << mgmtd_ds_error(ds);
        if (c.values >= 0) {
            const std::string path = ::testing::TempDir() + "mgmtd_ds_wide_" + std::to_string(getpid()) + ".xml";
            std::ofstream(path) << wide.config;
            EXPECT_EQ(mgmtd_ds_commit_file(ds, path.c_str()), MGMTD_DS_OK) << mgmtd_ds_error(ds);
            std::remove(path.c_str());
            EXPECT_EQ(handed, c.values);
        }
        if (c.status != MGMTD_DS_OK) {
            EXPECT_EQ(std::string(mgmtd_ds_error(ds)),
                      "subscription 0: \"/wide:top\" can hand over 65536 values, more than the "
                      "65535 of one call");
        }
        mgmtd_ds_close(ds);
    }
}

// The leaves of one node of each subscribed kind: a configuration that
// holds every kind, so that two of them differ in one node only.
struct node_leaves {
    std::string tloc_entry;     // TLOC-list entry [t 10.0.0.1 red ipsec]
    std::string prefix_entry;   // prefix-list entry [p 10.0.0.0/8]
    std::string prefix6_entry;  // ipv6-prefix-list entry [p6 2001:db8::/32]
    std::string match;          // control match [hs 10 route]
    std::string set;            // set of control sequence [hs 10]
    std::string route_seq;      // route sequence [rp 1], besides its action
    std::string member_seq;     // membership sequence [m 1], besides its action
};

std::string every_kind(const node_leaves &n)
{
    return "<lists><site-list><name>spokes</name><site><range>1</range></site></site-list>"
           "<vpn-list><name>v</name><vpn><range>1</range></vpn></vpn-list>"
           "<tloc-list><name>t</name><tloc><address>10.0.0.1</address><color>red</color>"
           "<encap>ipsec</encap>" +
           n.tloc_entry +
           "</tloc></tloc-list>"
           "<color-list><name>c</name><entry><color>red</color></entry></color-list>"
           "<prefix-list><name>p</name><entry><prefix>10.0.0.0/8</prefix>" +
           n.prefix_entry +
           "</entry></prefix-list><ipv6-prefix-list><name>p6</name><entry>"
           "<prefix>2001:db8::/32</prefix>" +
           n.prefix6_entry +
           "</entry></ipv6-prefix-list></lists>"
           "<control-policy><name>hs</name><sequence><seq>10</seq><match><kind>route</kind>" +
           n.match + "</match><action>accept</action><set>" + n.set +
           "</set></sequence></control-policy>"
           "<route-policy><name>rp</name><sequence><seq>1</seq><action>accept</action>" +
           n.route_seq +
           "</sequence></route-policy>"
           "<membership-policy><name>m</name><sequence><seq>1</seq><action>accept</action>" +
           n.member_seq + "</sequence></membership-policy>\n";
}

// One node's leaves change: it gets one modification, even when all its
// leaves went away (a whole subscription then gets no values at all), and
// the leaves that went away come before the ones that are set, at every
// container level, so that a reader that turns two leaves into one
// condition sees the removal first.
TEST_F(DatastoreTest, ModifiedNodeGetsOneCallWithItsRemovalsFirst)
{
    struct leaf_change {
        std::string node_leaves::*part;
        const char *before;
        const char *after;
        const char *want;
    };
    const leaf_change cases[] = {
        // every non-key leaf goes
        {&node_leaves::tloc_entry, "<preference>5</preference>", "",
         "tloc-list-entry modify [t 10.0.0.1 8 2] preference=-"},
        {&node_leaves::prefix_entry, "<le>32</le>", "", "prefix-list-entry modify [p 10.0.0.0/8]"},
        {&node_leaves::prefix_entry, "<ge>16</ge><le>24</le>", "",
         "prefix-list-entry modify [p 10.0.0.0/8]"},
        {&node_leaves::prefix6_entry, "<eq>48</eq>", "",
         "ipv6-prefix-list-entry modify [p6 2001:db8::/32]"},
        {&node_leaves::match, "<site-list>spokes</site-list>", "",
         "control-match modify [hs 10 0] site-list=-"},
        {&node_leaves::match, "<tloc><address>10.0.0.9</address><color>gold</color></tloc>", "",
         "control-match modify [hs 10 0] tloc{ address=- color=- encap=- }"},
        {&node_leaves::set, "<preference>1</preference><community>1:1</community>", "",
         "control-sequence modify [hs 10] set{ preference=- community=- }"},
        {&node_leaves::route_seq, "<omp-tag>5</omp-tag><metric>9</metric>", "",
         "route-sequence modify [rp 1] omp-tag=- metric=-"},
        {&node_leaves::member_seq, "<vpn>5</vpn>", "", "membership-sequence modify [m 1] vpn=-"},
        // one leaf gives way to another: the removal first
        {&node_leaves::route_seq, "<ospf-tag>5</ospf-tag>", "<omp-tag>5</omp-tag>",
         "route-sequence modify [rp 1] ospf-tag=- omp-tag:u32=5"},
        {&node_leaves::match, "<color-list>c</color-list>", "<color>red</color>",
         "control-match modify [hs 10 0] color-list=- color:enum=8"},
        {&node_leaves::member_seq, "<vpn-list>v</vpn-list>", "<vpn>5</vpn>",
         "membership-sequence modify [m 1] vpn-list=- vpn:u32=5"},
        {&node_leaves::set, "<tloc-list>t</tloc-list>",
         "<tloc><address>10.0.0.2</address><color>mpls</color></tloc>",
         "control-sequence modify [hs 10] set{ tloc-list=- tloc{ address:ip4=10.0.0.2 "
         "color:enum=2 encap:enum=2 } }"},
        {&node_leaves::set, "<service><type>ids</type><vpn>40</vpn></service>",
         "<service><type>ips</type></service>",
         "control-sequence modify [hs 10] set{ service{ vpn=- type:enum=3 } }"},
        {&node_leaves::prefix_entry, "<eq>24</eq>", "<ge>16</ge>",
         "prefix-list-entry modify [p 10.0.0.0/8] ge:u8=16"},
        // a leaf changes: a whole subscription gets every value, a leaf-list comes whole
        {&node_leaves::prefix_entry, "<ge>16</ge><le>24</le>", "<ge>16</ge><le>28</le>",
         "prefix-list-entry modify [p 10.0.0.0/8] ge:u8=16 le:u8=28"},
        {&node_leaves::set, "<community>1:1</community><additive>true</additive>",
         "<community>1:1</community><community>1:2</community>",
         "control-sequence modify [hs 10] set{ community:list=[1:1 1:2] additive:bool=false }"},
        {&node_leaves::set, "<tloc><address>10.0.0.1</address><color>mpls</color></tloc>",
         "<tloc><address>10.0.0.1</address><color>gold</color></tloc>",
         "control-sequence modify [hs 10] set{ tloc{ color:enum=11 } }"},
    };
    for (const leaf_change &c : cases) {
        node_leaves before;
        before.*c.part = c.before;
        node_leaves after;
        after.*c.part = c.after;
        commit(every_kind(before));
        EXPECT_EQ(commit(every_kind(after)), Calls({c.want})) << c.before << " -> " << c.after;
        EXPECT_EQ(commit(every_kind(after)), Calls());
    }
}

}  // namespace
