// Commit series from input bytes: a small generator keeps a configuration
// (lists of every family, two control policies, a route policy and a
// membership policy), changes it two to four times as the bytes say and
// writes each state as a configuration file the schema accepts. The files
// are committed one after another into one datastore and library, and
// every step must equal a fresh commit of it (tests/polctl/commit_series);
// a difference aborts. A step the datastore still refuses is skipped.
//
// Entries of a list come in any order: the library keeps them in identity
// order. Unless POL_FUZZ_KNOWN_FAULTS is set, the generator keeps away from
// the fault the series tests keep as reproducers: a policy, once
// configured, is never deleted.
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commit_series.hpp"
#include "fuzz_support.hpp"

namespace {

// The input bytes as choices; 0 once they run out.
class byte_source {
public:
    byte_source(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint32_t below(uint32_t n)
    {
        if (size_ == 0 || n == 0) {
            return 0;
        }
        size_--;
        return *data_++ % n;
    }
    bool percent(uint32_t p) { return below(100) < p; }
    template <size_t N>
    const char *pick(const char *const (&options)[N])
    {
        return options[below(N)];
    }

private:
    const uint8_t *data_;
    size_t size_;
};

const char *const kRanges[] = {"1", "5", "100", "100-199", "150", "250", "1-5",
                               "300-4294967295", "10", "20-29", "25", "50", "60", "0"};
const char *const kColors[] = {"mpls", "business-internet", "lte", "gold", "default"};
const char *const kPrefixes4[] = {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24", "172.16.0.0/12",
                                  "192.168.1.0/24", "0.0.0.0/0", "10.200.0.0/30"};
const char *const kPrefixes6[] = {"2001:db8::/32", "2001:db8:1::/48", "fd00::/8",
                                  "2001:db8:1:2::/64"};
const char *const kCommunities[] = {"65000:1", "65000:10", "65000:100", "65001:5",
                                    "no-export", "65535:666", "internet"};
const char *const kPatterns[] = {"^65000:", "65001:5", "(^| )65535:666( |$)", "no-export|65535",
                                 "^65000:1$", "[0-9]+:100"};
const char *const kNumbers[] = {"1", "2", "5", "7", "9", "10", "20", "25", "50", "100", "150", "200", "800"};
const char *const kAddresses[] = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.9", "2001:db8::1"};

enum family { SITE, VPN, TLOC, COLOR, PFX4, PFX6, COMMUNITY, EXPANDED, FAMILIES };
const char *const kFamilyElement[] = {"site-list",      "vpn-list",         "tloc-list",
                                      "color-list",     "prefix-list",      "ipv6-prefix-list",
                                      "community-list", "expanded-community-list"};
const char *const kListNames[] = {"a", "b"};

// One entry: its key text (what makes it unique) and its XML.
struct entry {
    std::string key;
    std::string xml;
};

std::string element(const std::string &name, const std::string &value)
{
    return "<" + name + ">" + value + "</" + name + ">";
}

std::string tloc_xml(const char *address, const char *color, const char *encap)
{
    return element("address", address) + element("color", color) +
           (encap != nullptr ? element("encap", encap) : "");
}

// Prefix-list entry lengths the schema accepts: none, ge, le, both or eq,
// from the prefix's own length to the family's width.
std::string lengths_xml(byte_source &b, unsigned length, unsigned width)
{
    const unsigned low = std::max(length, 1u);
    auto len = [&] { return low + b.below(width - low + 1); };
    switch (b.below(5)) {
    case 1:
        return element("le", std::to_string(len()));
    case 2:
        return element("ge", std::to_string(len()));
    case 3: {
        unsigned ge = len(), le = len();
        return element("ge", std::to_string(std::min(ge, le))) +
               element("le", std::to_string(std::max(ge, le)));
    }
    case 4:
        return element("eq", std::to_string(len()));
    default:
        return "";
    }
}

entry new_entry(byte_source &b, family f, unsigned tloc_index)
{
    switch (f) {
    case SITE:
    case VPN: {
        const std::string range = b.pick(kRanges);
        return {range, (f == SITE ? "<site>" : "<vpn>") + element("range", range) +
                           (f == SITE ? "</site>" : "</vpn>")};
    }
    case TLOC: {
        const std::string address = "10.0.0." + std::to_string(tloc_index);
        const char *color = b.pick(kColors);
        const char *encap = b.percent(70) ? "ipsec" : "gre";
        const std::string pref =
            b.percent(60) ? element("preference", std::to_string(b.below(300))) : "";
        return {address + color + encap, "<tloc>" + tloc_xml(address.c_str(), color, encap) + pref + "</tloc>"};
    }
    case COLOR: {
        const char *color = b.pick(kColors);
        return {color, "<entry>" + element("color", color) + "</entry>"};
    }
    case PFX4:
    case PFX6: {
        const std::string prefix = f == PFX4 ? b.pick(kPrefixes4) : b.pick(kPrefixes6);
        const unsigned length = static_cast<unsigned>(std::stoul(prefix.substr(prefix.find('/') + 1)));
        return {prefix, "<entry>" + element("prefix", prefix) +
                            lengths_xml(b, length, f == PFX4 ? 32 : 128) + "</entry>"};
    }
    case COMMUNITY: {
        const char *c = b.pick(kCommunities);
        return {c, "<entry>" + element("community", c) + "</entry>"};
    }
    default: {
        const char *p = b.pick(kPatterns);
        return {p, "<entry>" + element("pattern", p) + "</entry>"};
    }
    }
}

// A named list as the series keeps it: its entries in file order.
struct list_state {
    bool present = false;
    std::vector<entry> entries;
};

class generator {
public:
    explicit generator(bool avoid_known_faults) : avoid_(avoid_known_faults) {}

    // The next state of the configuration, as a file.
    std::string next(byte_source &b)
    {
        for (unsigned f = 0; f < FAMILIES; f++) {
            for (list_state &l : lists_[f]) {
                change_list(b, static_cast<family>(f), l);
            }
        }
        std::string xml = "<policy xmlns=\"urn:zen:params:xml:ns:yang:zen-policy\">\n<lists>\n";
        for (unsigned f = 0; f < FAMILIES; f++) {
            for (size_t n = 0; n < 2; n++) {
                xml += list_xml(static_cast<family>(f), n);
            }
        }
        xml += "</lists>\n";
        for (const char *name : {"c1", "c2"}) {
            xml += policy_xml(b, "control-policy", name, [&] { return control_sequence(b); });
        }
        xml += policy_xml(b, "route-policy", "r1", [&] { return route_sequence(b); });
        xml += policy_xml(b, "membership-policy", "m1", [&] { return membership_sequence(b); });
        return xml + "</policy>\n";
    }

    static std::vector<commit_series::user_spec> users()
    {
        return {{"route:c1", "c1", POL_TYPE_ROUTE, POL_DIR_OUT},
                {"route:c2", "c2", POL_TYPE_ROUTE, POL_DIR_IN},
                {"route:r1", "r1", POL_TYPE_ROUTE, POL_DIR_OUT},
                {"membership:m1", "m1", POL_TYPE_MEMBERSHIP, POL_DIR_IN}};
    }

private:
    void change_list(byte_source &b, family f, list_state &l)
    {
        if (l.present && b.percent(15)) {
            l = list_state();
            return;
        }
        if (!l.present && !b.percent(60)) {
            return;
        }
        l.present = true;
        auto &e = l.entries;
        for (size_t i = 0; i < e.size();) {  // drop some, rewrite some in place
            const uint32_t what = b.below(8);
            if (what == 0) {
                e.erase(e.begin() + static_cast<long>(i));
                continue;
            }
            if (what == 1 && (f == TLOC || f == PFX4 || f == PFX6)) {
                const entry fresh = new_entry(b, f, 1 + static_cast<unsigned>(i % 6));
                if (fresh.key == e[i].key || f != TLOC) {
                    e[i].xml = f == TLOC ? fresh.xml : rewrite_lengths(b, f, e[i].key);
                }
            }
            i++;
        }
        const bool big = f == TLOC && b.percent(10);
        const uint32_t additions = big ? 70 : b.below(e.empty() ? 3 : 2) + (e.empty() ? 1 : 0);
        for (uint32_t n = 0; n < additions || (e.empty() && n < 64); n++) {
            const entry fresh = new_entry(b, f, big ? 1 + n : 1 + b.below(6));
            if (std::none_of(e.begin(), e.end(), [&](const entry &x) { return x.key == fresh.key; })) {
                e.push_back(fresh);
            }
        }
        if (b.percent(30)) {
            // Lists keep their entries in identity order: any file order is the same list.
            std::reverse(e.begin(), e.end());
        }
    }

    std::string rewrite_lengths(byte_source &b, family f, const std::string &prefix)
    {
        const unsigned length = static_cast<unsigned>(std::stoul(prefix.substr(prefix.find('/') + 1)));
        return "<entry>" + element("prefix", prefix) + lengths_xml(b, length, f == PFX4 ? 32 : 128) +
               "</entry>";
    }

    std::string list_xml(family f, size_t n) const
    {
        const list_state &l = lists_[f][n];
        if (!l.present) {
            return "";
        }
        std::string xml = std::string("<") + kFamilyElement[f] + ">" + element("name", kListNames[n]);
        for (const entry &e : l.entries) {
            xml += e.xml;
        }
        return xml + "</" + kFamilyElement[f] + ">\n";
    }

    // The name of a present list of the family, or null.
    const char *some_list(byte_source &b, family f) const
    {
        const size_t n = b.below(2);
        for (size_t k = 0; k < 2; k++) {
            if (lists_[f][(n + k) % 2].present) {
                return kListNames[(n + k) % 2];
            }
        }
        return nullptr;
    }

    template <typename Sequence>
    std::string policy_xml(byte_source &b, const char *kind, const std::string &name, Sequence sequence)
    {
        bool &configured = configured_[name];
        if (!b.percent(configured ? 90 : 70) && !(avoid_ && configured)) {
            configured = false;
            return "";
        }
        configured = true;
        std::string xml = std::string("<") + kind + ">" + element("name", name);
        if (b.percent(50)) {
            xml += element("default-action", b.percent(50) ? "accept" : "reject");
        }
        std::set<uint32_t> seqs;
        for (uint32_t n = b.below(4); n > 0; n--) {
            seqs.insert(10 * (1 + b.below(4)));
        }
        for (uint32_t seq : seqs) {
            xml += "<sequence>" + element("seq", std::to_string(seq)) + sequence() + "</sequence>\n";
        }
        return xml + "</" + kind + ">\n";
    }

    std::string optional(byte_source &b, const char *name, const std::string &value, uint32_t p = 30)
    {
        return b.percent(p) ? element(name, value) : "";
    }

    std::string optional_list(byte_source &b, const char *name, family f, uint32_t p = 30)
    {
        const char *list = b.percent(p) ? some_list(b, f) : nullptr;
        return list != nullptr ? element(name, list) : "";
    }

    std::string control_match(byte_source &b)
    {
        static const char *const kKinds[] = {"route", "tloc", "service"};
        const std::string kind = b.pick(kKinds);
        std::string xml = "<match>" + element("kind", kind);
        static const char *const kCarriers[] = {"default", "carrier1", "carrier2"};
        static const char *const kOrigins[] = {"static", "connected", "bgp-external", "ospf-intra-area"};
        xml += optional(b, "carrier", b.pick(kCarriers)) + optional(b, "color", b.pick(kColors)) +
               optional_list(b, "color-list", COLOR) + optional(b, "domain-id", b.pick(kNumbers)) +
               optional(b, "group-id", b.pick(kNumbers)) + optional(b, "omp-tag", b.pick(kNumbers)) +
               optional(b, "origin", b.pick(kOrigins)) + optional(b, "originator", b.pick(kAddresses)) +
               optional(b, "preference", b.pick(kNumbers));
        if (kind == "route" && b.percent(40)) {
            xml += b.percent(50) ? optional_list(b, "prefix-list", PFX4, 100)
                                 : optional_list(b, "ipv6-prefix-list", PFX6, 100);
        }
        xml += optional(b, "site-id", b.pick(kNumbers)) +
               optional_list(b, "site-list", SITE);
        if (b.percent(20)) {
            xml += "<tloc>" + tloc_xml(b.pick(kAddresses), b.pick(kColors), b.percent(50) ? "gre" : nullptr) +
                   "</tloc>";
        }
        xml += optional_list(b, "tloc-list", TLOC);
        if (kind != "tloc") {
            xml += optional(b, "vpn", b.pick(kNumbers)) + optional_list(b, "vpn-list", VPN);
        }
        if (b.percent(30)) {
            const bool standard = b.percent(50);
            if (const char *list = some_list(b, standard ? COMMUNITY : EXPANDED)) {
                const char *container = standard ? "community-list" : "expanded-community-list";
                xml += std::string("<") + container + ">" + element("name", list) + "</" + container + ">";
            }
        }
        return xml + "</match>";
    }

    std::string control_set(byte_source &b)
    {
        std::string xml = "<set>" + optional(b, "preference", b.pick(kNumbers)) +
                          optional(b, "omp-tag", b.pick(kNumbers)) + optional(b, "vpn", b.pick(kNumbers)) +
                          optional_list(b, "vpn-list", VPN);
        switch (b.below(4)) {
        case 1:
            xml += "<tloc>" + tloc_xml(b.pick(kAddresses), b.pick(kColors), b.percent(50) ? "gre" : nullptr) +
                   "</tloc>";
            break;
        case 2:
            xml += optional_list(b, "tloc-list", TLOC, 100);
            break;
        case 3: {
            static const char *const kServices[] = {"firewall", "ids", "netsvc1"};
            xml += "<service>" + element("type", b.pick(kServices)) + optional(b, "vpn", b.pick(kNumbers), 50);
            if (b.percent(50)) {
                xml += "<tloc>" + tloc_xml(b.pick(kAddresses), b.pick(kColors), nullptr) + "</tloc>";
            }
            xml += "</service>";
            break;
        }
        default:
            break;
        }
        static const char *const kUltimate[] = {"strict", "fallback", "fallback-ecmp", "fallback-backup"};
        xml += optional(b, "ultimate-tloc-action", b.pick(kUltimate), 20);
        std::set<std::string> communities;
        for (uint32_t n = b.percent(40) ? 1 + b.below(3) : 0; n > 0; n--) {
            communities.insert(b.pick(kCommunities));
        }
        for (const std::string &c : communities) {
            xml += element("community", c);
        }
        return xml + optional(b, "additive", b.percent(50) ? "true" : "false") + "</set>";
    }

    std::string action(byte_source &b) { return element("action", b.percent(50) ? "accept" : "reject"); }

    std::string control_sequence(byte_source &b)
    {
        std::string xml = b.percent(90) ? control_match(b) : "";
        xml += action(b);
        return xml + (b.percent(60) ? control_set(b) : "");
    }

    std::string route_sequence(byte_source &b)
    {
        std::string xml = action(b);
        if (b.percent(50)) {
            xml += element(b.percent(50) ? "omp-tag" : "ospf-tag", b.pick(kNumbers));
        }
        return xml + optional(b, "metric", b.pick(kNumbers), 40) +
               optional_list(b, "ip-prefix-list", PFX4, 40);
    }

    std::string membership_sequence(byte_source &b)
    {
        return action(b) + optional(b, "vpn", b.pick(kNumbers), 50) + optional_list(b, "vpn-list", VPN, 50);
    }

    bool avoid_;
    list_state lists_[FAMILIES][2];
    std::map<std::string, bool> configured_;
};

struct scratch {
    std::unique_ptr<fuzzsup::scratch_file> steps[4];
};
scratch *g_scratch;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzsup::quiet_library_log();
    static scratch files;
    for (size_t i = 0; i < std::size(files.steps); i++) {
        files.steps[i] = std::make_unique<fuzzsup::scratch_file>(("-series-" + std::to_string(i) + ".xml").c_str());
    }
    g_scratch = &files;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    byte_source b(data, size);
    generator gen(fuzzsup::avoid_known_faults());
    const size_t num_steps = 2 + b.below(3);
    std::vector<std::string> files;
    for (size_t i = 0; i < num_steps; i++) {
        const std::string xml = gen.next(b);
        g_scratch->steps[i]->write(reinterpret_cast<const uint8_t *>(xml.data()), xml.size());
        files.push_back(g_scratch->steps[i]->path());
    }
    for (const commit_series::step_report &r : commit_series::check_series(files, generator::users())) {
        if (r.committed && !r.difference.empty()) {
            std::string texts;
            for (const std::string &file : files) {
                FILE *fp = std::fopen(file.c_str(), "r");
                char buf[4096];
                texts += "\n--- " + file + "\n";
                for (size_t n; fp != nullptr && (n = std::fread(buf, 1, sizeof(buf), fp)) > 0;) {
                    texts.append(buf, n);
                }
                if (fp != nullptr) {
                    std::fclose(fp);
                }
            }
            fuzzsup::fail("step " + std::to_string(r.step) + " differs from a fresh commit of it:\n" +
                          r.difference + "\nthe series:" + texts);
        }
    }
    return 0;
}
