// Policy documents: every object of a configuration that between its
// objects uses every element rule (tests/data/xml/documents.xml, committed
// through the command-line host) rendered as the golden documents of
// tests/golden/pol-xml-documents.txt, each also parsed strictly by the
// edge router's schema (zen-policy-edge), validated and printed back to the
// same content, as every document of the examples is; the value namers;
// the failure path (nothing half-written) and the table's checks.
#include <libxml/parser.h>

#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "pol_test_support.hpp"
#include "pol_xml.hpp"
#include "polctl_host.hpp"
#include "polctl_labels.hpp"
#include "xml_test_support.hpp"

namespace {

using namespace poltest;

const std::string kData = POL_TEST_SOURCE "/tests/data/xml/";
const std::string kExamples = POL_TEST_SOURCE "/examples/";
// The longest list name (63 characters) of documents.xml.
const std::string kLongName(63, 'n');

// The library under the command-line host, given a configuration and the
// labels its label callback answers.
class PolXmlConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        host_.set_label_callback(polctl::label_callback_from(&labels_));
        ASSERT_TRUE(host_.start(&error)) << error;
    }

    void commit(const std::string &config, const std::string &labels)
    {
        std::string error;
        labels_ = {};
        ASSERT_TRUE(polctl::read_labels_file(labels, &labels_) && labels_.errors.empty()) << labels;
        ASSERT_EQ(host_.commit_file(config, &error), MGMTD_DS_OK) << error;
        polctl::report_service_answers(host_.ctx(), labels_);
    }

    // Every object of the document kinds from first to last, in the order
    // the dumps walk them.
    static std::vector<pol::xml::kind_object> objects(e_pol_xml_type first = POL_XML_TYPE_DATA_POLICY,
                                                      e_pol_xml_type last = POL_XML_TYPE_APPLIST)
    {
        std::vector<pol::xml::kind_object> all;
        for (uint32_t type = first; type <= last; type++) {
            pol::xml::for_each_object(static_cast<e_pol_xml_type>(type),
                                      [&](const pol::xml::kind_object &object) { all.push_back(object); });
        }
        return all;
    }

    // The object's document rendered into a record of its own, with the
    // record's checks; empty when none was made.
    static std::string render(const pol::xml::kind_object &object)
    {
        pol_xml_t out{};
        const char *text = pol_xml_convert(object.record, &out, object.type);
        if (text == nullptr || text != out.buf) {
            ADD_FAILURE() << "no document in the record of " << object.name;
            return "";
        }
        EXPECT_EQ(out.buf_siz, std::strlen(text));
        EXPECT_GT(out.time_spent, 0);
        const std::string doc = text;
        pol_xml_free_buf(&out);
        return doc;
    }

    // The schema parses the document strictly, validates it and prints it
    // back to the same content. Duplication under the FEC element makes
    // mixed content, which no schema leaf holds: it is left out here, as
    // the compatibility filter prunes it when the document is published.
    static void expect_schema_takes(std::string doc)
    {
        const std::string mixed = "<packet-duplication/></forward-error-correction>";
        for (std::size_t at = doc.find(mixed); at != std::string::npos; at = doc.find(mixed)) {
            doc.replace(at, mixed.size(), "</forward-error-correction>");
        }
        EXPECT_EQ(schema_round_trip(doc), compact(doc, true));
    }

    polctl::labels_file labels_;  // outlives the host, whose callback reads it
    polctl::host host_;
};

// Each document as its golden section "KIND NAME" and through the schema.
TEST_F(PolXmlConfigTest, EveryDocumentOfTheConfiguration)
{
    ASSERT_NO_FATAL_FAILURE(commit(kData + "documents.xml", kData + "labels.txt"));
    // States no configuration makes: a VPN without its default sequence
    // (given back before teardown), a sequence with a label and nothing set,
    // a second cloud-SaaS list (rendered in the held order, not by name).
    t_pol_fwd_vpn_entry *vpn = pol_fwd_vpn_find_or_create(host_.ctx(), "E", POL_TYPE_DATA, kLongName.c_str());
    t_pol_entry *const default_entry = std::exchange(vpn->default_pol_entry, nullptr);
    t_pol_block *block = nullptr;
    pol_fwd_pol_entry_get(host_.ctx(), "E", POL_TYPE_DATA, "VL", 2, &block)->set_entry.set_fwd_label = 77;
    pol_fwd_entry_saas_app_list_upd(host_.ctx(), "DP", POL_TYPE_DATA, "VL", 10, "A");

    const std::vector<pol::xml::kind_object> all = objects();
    EXPECT_EQ(all.size(), 20u);
    for (const pol::xml::kind_object &object : all) {
        const std::string key = std::string(pol_xml_type_str(object.type)) + " " + object.name;
        SCOPED_TRACE(key);
        const std::string doc = render(object);
        EXPECT_EQ(doc, "<?xml version=\"1.0\"?>\n" + golden("pol-xml-documents.txt", key));
        expect_schema_takes(doc);
    }
    vpn->default_pol_entry = default_entry;
}

// The examples, before and after their change window, with their labels.
TEST_F(PolXmlConfigTest, ExampleDocumentsPassTheSchema)
{
    for (auto [config, count] : {std::pair{"data-policy.xml", 15u}, {"data-policy-v2.xml", 16u}}) {
        SCOPED_TRACE(config);
        ASSERT_NO_FATAL_FAILURE(commit(kExamples + config, kExamples + "labels.txt"));
        const std::vector<pol::xml::kind_object> all = objects();
        EXPECT_EQ(all.size(), count);
        for (const pol::xml::kind_object &object : all) {
            SCOPED_TRACE(object.name);
            expect_schema_takes(render(object));
        }
    }
}

// Makes the nth allocation of the XML library (and every later one) fail
// while alive, without the library's complaints on standard error.
class XmlAllocFailure {
public:
    explicit XmlAllocFailure(int nth)
    {
        xmlMemGet(&free_, &malloc_, &realloc_, &strdup_);
        countdown_ = nth;
        xmlMemSetup(std::free, fail_malloc, fail_realloc, fail_strdup);
        xmlSetGenericErrorFunc(nullptr, quiet);
    }
    ~XmlAllocFailure()
    {
        xmlSetGenericErrorFunc(nullptr, nullptr);
        xmlMemSetup(free_, malloc_, realloc_, strdup_);
    }
    bool fired() const { return countdown_ <= 0; }

private:
    static void quiet(void *, const char *, ...) {}
    static bool fail() { return --countdown_ <= 0; }
    static void *fail_malloc(size_t n) { return fail() ? nullptr : std::malloc(n); }
    static void *fail_realloc(void *p, size_t n) { return fail() ? nullptr : std::realloc(p, n); }
    static char *fail_strdup(const char *text) { return fail() ? nullptr : strdup(text); }

    static inline int countdown_ = 0;
    xmlFreeFunc free_ = nullptr;
    xmlMallocFunc malloc_ = nullptr;
    xmlReallocFunc realloc_ = nullptr;
    xmlStrdupFunc strdup_ = nullptr;
};

// Whichever element of a policy document cannot be made, the result is
// none and the object's previous document stays as it was; each part names
// itself in the log.
TEST_F(PolXmlConfigTest, FailedElementLeavesThePreviousDocument)
{
    ASSERT_NO_FATAL_FAILURE(commit(kData + "documents.xml", kData + "labels.txt"));
    std::set<std::string> messages;
    for (const pol::xml::kind_object &object : objects(POL_XML_TYPE_DATA_POLICY, POL_XML_TYPE_PFR_POLICY)) {
        pol_xml_t out{};
        ASSERT_NE(pol_xml_convert(object.record, &out, object.type), nullptr);
        const pol_xml_t before = out;
        for (int nth = 1;; nth++) {
            LogCapture log;
            XmlAllocFailure failure(nth);
            char *text = pol_xml_convert(object.record, &out, object.type);
            if (!failure.fired()) {
                ASSERT_NE(text, nullptr);
                pol_xml_free_buf(&out);
                break;
            }
            ASSERT_EQ(text, nullptr) << object.name << ", allocation " << nth;
            ASSERT_TRUE(out.buf == before.buf && out.buf_siz == before.buf_siz &&
                        out.time_spent == before.time_spent);
            for (const std::string &line : log.lines) {
                messages.insert(line.substr(line.find("[POL] ") + 6));
            }
        }
        out = before;
        pol_xml_free_buf(&out);
    }
    EXPECT_EQ(messages, (std::set<std::string>{"vpn-list XML generation failed", "Match XML generation failed",
                                               "Action XML generation failed", "Set XML generation failed",
                                               "tloc XML generation failed", "sla-class XML generation failed"}));
}

// Beyond the names the documents above show: unknown codes of a known type,
// the any-code rows, types without such a row, values out of range.
TEST(PolXmlNamers, IcmpAndLossProtect)
{
    for (auto [value, name] : {std::pair<uint32_t, const char *>{3 * 256 + 10, "invalid"},
                               {3 * 256 + 15, "precedence-unreachable"}, {5 * 256 + 2, "invalid"},
                               {5 * 256 + 255, "redirect"}, {11 * 256 + 1, "reassembly-timeout"},
                               {43 * 256 + 4, "multiple-interface-match"}, {43 * 256 + 255, "extended-echo-reply"},
                               {8 * 256 + 255, "invalid"}, {0x10000, "invalid"}, {255, "invalid"}}) {
        EXPECT_STREQ(pol_xml_icmp_msg_val_to_str(value), name) << value;
    }
    for (auto [value, name] : {std::pair<uint32_t, const char *>{1 * 256 + 255, "unreachable"},
                               {1 * 256 + 7, "source-route-header"}, {1 * 256 + 8, "invalid"},
                               {138 * 256 + 15, "router-renumbering"}, {138 * 256 + 2, "invalid"},
                               {150 * 256, "invalid"}, {155 * 256, "rpl-control"}, {3 * 256 + 255, "time-exceeded"}}) {
        EXPECT_STREQ(pol_xml_icmp6_msg_val_to_str(value), name) << value;
    }
    const char *loss[] = {"unknown", "fec-adaptive", "fec-always", "pkt-dup", "unknown"};
    for (uint32_t v = 0; v < 5; v++) {
        EXPECT_STREQ(pol_xml_loss_protect_str(v), loss[v]);
    }
}

using PolXmlTest = PolContextTest;

TEST_F(PolXmlTest, TypeOutsideTheTableStopsTheProcess)
{
    pol_vpn_list_add_entry(ctx_, "V", 1, 1);
    const void *list = pol_vpn_list_find(ctx_, "V");
    pol_xml_t out{};
    EXPECT_DEATH({ dup2(2, 1); pol_xml_convert(list, &out, POL_XML_TYPE_INVALID); },
                 "(^|\n)pol_xml:[0-9]+: failed assertion `xml_type > POL_XML_TYPE_INVALID'");
    EXPECT_DEATH({ dup2(2, 1); pol_xml_convert(list, &out, POL_XML_TYPE_MAX); },
                 "(^|\n)pol_xml:[0-9]+: failed assertion `xml_type < POL_XML_TYPE_MAX'");
}

}  // namespace
