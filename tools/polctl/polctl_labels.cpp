// Reader of the labels file and the label callback that answers from it.
#include "polctl_labels.hpp"

#include <set>

#include <policy/pol_fwd.h>
#include <zen/zen_util.h>

namespace polctl {

namespace {

constexpr uint16_t kMaxService = 8;  // the service codes zen_util_svc_name names

bool parse_service(const std::string &text, uint16_t *service)
{
    for (uint16_t code = 1; code <= kMaxService; code++) {
        if (text == zen_util_svc_name(code)) {
            *service = code;
            return true;
        }
    }
    return false;
}

bool same_addr(const t_ipaddr &a, const t_ipaddr &b)
{
    return IPADDR_CMP(&a, &b) == 0;
}

// Without an originator the library asks with a cleared TLOC (when the
// service is configured), which has no address family to compare.
bool same_originator(const t_tloc_id &a, const t_tloc_id &b)
{
    const bool a_has = IPADDR_IS_V4(&a.addr), b_has = IPADDR_IS_V4(&b.addr);
    return a_has == b_has && (!a_has || same_addr(a.addr, b.addr)) && a.color == b.color;
}

// The keyword of the next pair; a keyword other than te given twice, or
// one not in allowed, is a problem.
bool next_keyword(line_reader &in, const std::set<std::string> &allowed, const char *list,
                  std::set<std::string> *seen, std::string *key)
{
    in.next("keyword", key);
    if (allowed.count(*key) == 0) {
        return in.fail("unknown keyword \"" + *key + "\" (" + list + ")");
    }
    if (*key != "te" && !seen->insert(*key).second) {
        return in.fail(*key + " is given twice");
    }
    return true;
}

bool next_number(line_reader &in, const std::string &what, uint64_t max, uint64_t *value)
{
    std::string word;
    if (!in.next(what.c_str(), &word)) {
        return false;
    }
    return parse_number(word, max, value) || in.fail("bad " + what + " \"" + word + "\"");
}

bool next_tloc(line_reader &in, t_tloc_id *tloc)
{
    std::string word;
    if (!in.next("TLOC (address:color:encap)", &word)) {
        return false;
    }
    return parse_tloc(word, tloc) || in.fail("bad TLOC \"" + word + "\" (address:color:encap)");
}

bool next_label(line_reader &in, uint32_t *label)
{
    uint64_t value = 0;
    if (!next_number(in, "label", UINT32_MAX, &value)) {
        return false;
    }
    *label = static_cast<uint32_t>(value);
    return true;
}

bool next_service(line_reader &in, uint16_t *service)
{
    std::string word;
    if (!in.next("service", &word)) {
        return false;
    }
    return parse_service(word, service) ||
           in.fail("unknown service \"" + word + "\" (firewall, ids, ips, netsvc1 to netsvc5)");
}

// "ADDRESS:COLOUR", an IPv4 address: what pol_fwd_eval_label takes.
bool next_originator(line_reader &in, t_tloc_id *originator)
{
    std::string word;
    if (!in.next("originator (address:color)", &word)) {
        return false;
    }
    const size_t colon = word.rfind(':');
    if (colon == std::string::npos || !parse_address(word.substr(0, colon), &originator->addr) ||
        !IPADDR_IS_V4(&originator->addr) || !parse_color(word.substr(colon + 1), &originator->color)) {
        return in.fail("bad originator \"" + word + "\" (IPv4 address:color)");
    }
    return true;
}

// "tloc TLOC label N [vpn ID] [service NAME]"
void read_tloc_answer(line_reader &in, labels_file *out, int line)
{
    tloc_answer a;
    a.line = line;
    if (!next_tloc(in, &a.tloc)) {
        return;
    }
    if (!IPADDR_IS_V4(&a.tloc.addr)) {
        in.fail("the label callback is asked for IPv4 TLOCs only");
        return;
    }
    std::set<std::string> seen;
    std::string key;
    uint64_t vpn = 0;
    while (!in.done() && next_keyword(in, {"label", "vpn", "service"}, "label, vpn, service", &seen, &key)) {
        const bool ok = key == "label" ? next_label(in, &a.label)
                        : key == "vpn" ? next_number(in, "VPN id", UINT32_MAX, &vpn)
                                       : next_service(in, &a.service);
        if (!ok) {
            return;
        }
    }
    if (!in.error().empty()) {
        return;
    }
    if (seen.count("label") == 0) {
        in.fail("a TLOC answer needs a label");
        return;
    }
    a.any_vpn = seen.count("vpn") == 0;
    a.vpn = vpn;
    a.any_service = seen.count("service") == 0;
    for (const tloc_answer &b : out->tlocs) {
        if (same_addr(a.tloc.addr, b.tloc.addr) && a.tloc.color == b.tloc.color && a.tloc.encap == b.tloc.encap &&
            a.any_vpn == b.any_vpn && a.vpn == b.vpn && a.any_service == b.any_service && a.service == b.service) {
            in.fail("answers the same question as line " + std::to_string(b.line));
            return;
        }
    }
    out->tlocs.push_back(a);
}

// "service NAME vpn ID [originator ADDRESS:COLOUR] (label N | te TLOC LABEL PREFERENCE...)"
void read_service_answer(line_reader &in, labels_file *out, int line)
{
    service_answer a;
    a.line = line;
    if (!next_service(in, &a.service)) {
        return;
    }
    std::set<std::string> seen;
    std::string key;
    while (!in.done() &&
           next_keyword(in, {"vpn", "originator", "label", "te"}, "vpn, originator, label, te", &seen, &key)) {
        bool ok = true;
        if (key == "vpn") {
            ok = next_number(in, "VPN id", UINT32_MAX, &a.vpn);
        } else if (key == "originator") {
            ok = next_originator(in, &a.originator);
        } else if (key == "label") {
            ok = next_label(in, &a.label);
        } else {
            t_pol_te te{};
            uint64_t preference = 0;
            ok = next_tloc(in, &te.tloc) && next_label(in, &te.label) &&
                 next_number(in, "preference", UINT32_MAX, &preference);
            te.preference = static_cast<uint32_t>(preference);
            a.te.push_back(te);
        }
        if (!ok) {
            return;
        }
    }
    if (!in.error().empty()) {
        return;
    }
    if (seen.count("vpn") == 0) {
        in.fail("a service answer needs a vpn");
    } else if (seen.count("label") == 0 && a.te.empty()) {
        in.fail("a service answer needs a label or TE entries (te)");
    } else if (seen.count("label") != 0 && !a.te.empty()) {
        in.fail("a service answer is one label or TE entries (te), not both");
    } else if (a.te.size() > POL_MAX_TE_ENTRIES) {
        in.fail("at most " + std::to_string(POL_MAX_TE_ENTRIES) + " TE entries");
    } else if (const service_answer *b = out->answer(a.service, a.vpn, a.originator)) {
        in.fail("answers the same question as line " + std::to_string(b->line));
    } else {
        out->services.push_back(a);
    }
}

const labels_file *g_answers = nullptr;

void answer_from_file(uint16_t, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id, uint16_t service,
                      bool, uint32_t *label_p, t_tloc_id *tloc_p, t_pol_te_info *te_info_p, uint32_t)
{
    *label_p = 0;
    if (g_answers == nullptr) {
        return;
    }
    if (tloc_p != nullptr && te_info_p != nullptr) {  // a service, for the originator in *tloc_p
        if (const service_answer *a = g_answers->answer(service, vpn_id, *tloc_p)) {
            *label_p = a->label;
            for (const t_pol_te &te : a->te) {
                te_info_p->entries[te_info_p->num_entries++] = te;
            }
        }
        return;
    }
    t_tloc_id tloc{};
    IPADDR_SET_V4(&tloc.addr, addr);
    tloc.color = color;
    tloc.encap = encap;
    if (const tloc_answer *a = g_answers->answer(tloc, vpn_id, service)) {
        *label_p = a->label;
    }
}

}  // namespace

const tloc_answer *labels_file::answer(const t_tloc_id &tloc, uint64_t vpn, uint16_t service) const
{
    for (const tloc_answer &a : tlocs) {
        if (same_addr(a.tloc.addr, tloc.addr) && a.tloc.color == tloc.color && a.tloc.encap == tloc.encap &&
            (a.any_vpn || a.vpn == vpn) && (a.any_service || a.service == service)) {
            return &a;
        }
    }
    return nullptr;
}

const service_answer *labels_file::answer(uint16_t service, uint64_t vpn, const t_tloc_id &originator) const
{
    for (const service_answer &a : services) {
        if (a.service == service && a.vpn == vpn && same_originator(a.originator, originator)) {
            return &a;
        }
    }
    return nullptr;
}

bool read_labels_file(const std::string &path, labels_file *out)
{
    out->path = path;
    return read_statements(path, "labels file", &out->errors, [&](int line, line_reader &in) {
        std::string statement;
        in.next("statement", &statement);
        if (statement == "tloc") {
            read_tloc_answer(in, out, line);
        } else if (statement == "service") {
            read_service_answer(in, out, line);
        } else {
            in.fail("unknown statement \"" + statement + "\" (tloc or service)");
        }
    });
}

t_pol_label_cb_f label_callback_from(const labels_file *file)
{
    g_answers = file;
    return answer_from_file;
}

void report_service_answers(t_pol_ctx *ctx, const labels_file &file)
{
    for (const service_answer &a : file.services) {
        if (!IPADDR_IS_V4(&a.originator.addr)) {
            continue;  // answered when the service was configured
        }
        pol_fwd_eval_label(ctx, nullptr, a.originator.addr.u.addr4.s_addr, a.originator.color, a.vpn, a.service,
                           false);
    }
}

}  // namespace polctl
