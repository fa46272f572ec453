// Policy documents: every data-plane object (data and app-route policies,
// cflowd templates, policers, SLA and app-probe classes, the data-plane
// lists) rendered as one XML document that the forwarding side is handed
// whole. The converters and value namers have C linkage; the builder below
// is what the two rooms of the converters (pol_xml.cpp for the table, the
// documents of objects and lists, and pol_xml_policy.cpp for the policy
// documents) share.
#ifndef POLICY_POL_XML_HPP
#define POLICY_POL_XML_HPP

#include <libxml/tree.h>

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>

#include "pol_internal.h"

extern "C" {

typedef enum _e_pol_xml_type {
    POL_XML_TYPE_INVALID = 0,
    POL_XML_TYPE_DATA_POLICY = 1,
    POL_XML_TYPE_PFR_POLICY = 2,
    POL_XML_TYPE_CFLOWD = 3,
    POL_XML_TYPE_POLICER = 4,
    POL_XML_TYPE_SLA_CLASS = 5,
    POL_XML_TYPE_APP_PROBE_CLASS = 6,
    POL_XML_TYPE_FWD_PFXLIST = 7,
    POL_XML_TYPE_FWD_PFX6LIST = 8,
    POL_XML_TYPE_VPNLIST = 9,
    POL_XML_TYPE_TLOCLIST = 10,
    POL_XML_TYPE_APPLIST = 11,
    POL_XML_TYPE_MAX = 12,
} e_pol_xml_type;

// A converter renders the object (of the record type its document type
// names) into out and returns out's text; null when an element could not
// be made, and then out is left as it was.
typedef char *(*t_pol_xml_convert_f)(const void *object, pol_xml_t *out, e_pol_xml_type type);

extern const t_pol_xml_convert_f pol_xml_convert_vector[POL_XML_TYPE_MAX];

// Renders with the table's converter; a type outside the table stops the
// process.
char *pol_xml_convert(const void *object, pol_xml_t *out, e_pol_xml_type xml_type);

char *pol_xml_convert_data_policy(const void *block, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_pfr_policy(const void *block, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_cflowd(const void *block, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_policer(const void *policer, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_sla_class(const void *sla_class, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_app_probe_class(const void *probe_class, pol_xml_t *out, e_pol_xml_type type);
/* IPv4 (POL_XML_TYPE_FWD_PFXLIST) or IPv6 (POL_XML_TYPE_FWD_PFX6LIST) by type. */
char *pol_xml_convert_fwd_pfx_list(const void *list, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_vpn_list(const void *list, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_tloc_list(const void *list, pol_xml_t *out, e_pol_xml_type type);
char *pol_xml_convert_app_list(const void *list, pol_xml_t *out, e_pol_xml_type type);

/* Parts of a policy document; each adds under parent and returns false
 * when an element could not be made. type is POL_XML_TYPE_DATA_POLICY or
 * POL_XML_TYPE_PFR_POLICY. */
bool pol_xml_convert_dp_vpn_list(xmlNodePtr vpn_list, const t_pol_fwd_vpn_entry *vpn,
                                 e_pol_xml_type type);
bool pol_xml_convert_fwd_match(xmlNodePtr sequence, const t_pol_entry *entry);
bool pol_xml_convert_fwd_action(xmlNodePtr sequence, const t_pol_entry *entry, e_pol_xml_type type);
bool pol_xml_convert_fwd_action_set(xmlNodePtr action, const t_pol_entry *entry);
bool pol_xml_convert_tloc(xmlNodePtr parent, const t_tloc_id *tloc);
bool pol_xml_convert_sla_class_node(xmlNodePtr parent, const t_pol_set_entry *set);

/* Value namers: constant texts. An ICMP value is type * 256 + code, code
 * 255 standing for any code of the type; unknown values name "invalid". */
const char *pol_xml_icmp_msg_val_to_str(uint32_t value);
const char *pol_xml_icmp6_msg_val_to_str(uint32_t value);
/* 1 "fec-adaptive", 2 "fec-always", 3 "pkt-dup", other "unknown". */
const char *pol_xml_loss_protect_str(uint32_t value);
/* The configuration's transport codes: 1 "transport_udp", 0 (and any
 * other code) "transport_tcp". */
const char *pol_cflowd_transport_type(uint32_t type);

/* ---- documents and their cost on the command line ---- */

/* The kind name of a document type ("data-policy" ... "app-list"), the
 * words the statistics command takes; "UNKNOWN" outside the table. */
const char *pol_xml_type_str(uint32_t type);
/* A duration in nanoseconds, or a size in bytes, in the largest unit that
 * keeps it at least 1 ("%3.2f usec", "%3.2f Kb"); zero and negative values
 * print in seconds (gigabytes). Both render into one shared static buffer:
 * print a result before asking for the next. */
const char *nsec_to_str(int64_t nsecs);
const char *bytes_to_str(int64_t bytes);

/* Every document of one kind, each without its XML declaration (the
 * single-object handlers are in pol_api.h). */
void pol_dump_xml_data_policy_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_pfr_policy_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_cflowd_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_policer_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_sla_class_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_app_probe_class_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_fwd_prefix_list_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_fwd_prefix_ipv6_list_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_vpn_list_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_tloc_list_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_xml_app_list_all(struct mgmtd_cli_user_info *uinfo);
/* The (approximately) five most expensive documents of one kind; nothing
 * when the kind has no object. */
void pol_dump_obj_xml_statistics(struct mgmtd_cli_user_info *uinfo, e_pol_xml_type type);

/* The sample generator: one sample object per document type, rendered and
 * printed (the policy types have no sample). */
typedef void (*t_pol_xml_test_f)(struct mgmtd_cli_user_info *uinfo);
extern const t_pol_xml_test_f pol_xml_gen_test_vector[POL_XML_TYPE_MAX];
void pol_xml_gen_test(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_stub(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_cflowd(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_policer(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_sla_class(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_app_probe_class(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_fwd_prefix_list(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_fwd_prefix_ipv6_list(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_vpn_list(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_tloc_list(struct mgmtd_cli_user_info *uinfo);
void pol_xml_test_app_list(struct mgmtd_cli_user_info *uinfo);

}  // extern "C"

namespace pol::xml {

// One object of a document kind: its name, the record the kind's converter
// renders and the document the record keeps (rendered or not).
struct kind_object {
    e_pol_xml_type type;
    const char *name;
    const void *record;
    pol_xml_t *doc;
};

// Visits every object of the document type in the running context, in the
// order the dumps and statistics walk them; nothing for a type outside
// the table or without a context. visit may render the document anew, not
// add or remove objects.
void for_each_object(e_pol_xml_type type, const std::function<void(const kind_object &)> &visit);

// Formatted values (numbers, addresses, prefixes) are rendered into a
// buffer of this size; names are copied whole.
constexpr std::size_t kTextSize = 54;

// Every document text starts with the declaration "<?xml version="1.0"?>"
// and a newline; what is shown to the operator leaves it out.
constexpr uint32_t kXmlDeclSize = 22;

// Colour codes a document names, and encapsulation codes.
constexpr bool is_color(uint32_t c) { return c >= 1 && c <= ZEN_TLOC_COLOR_MAX; }
constexpr bool is_encap(uint32_t e) { return e == ZEN_TLOC_ENCAP_GRE || e == ZEN_TLOC_ENCAP_IPSEC_TUNNEL; }

using namer_f = const char *(*)(uint32_t);

// Adds children under one element. Failure is shared by every builder
// derived from one flag: once an element cannot be made, the flag drops and
// every later add (on any builder of that flag) makes nothing.
class builder {
public:
    builder(xmlNodePtr node, bool *ok) : node_(node), ok_(ok)
    {
        if (node == nullptr) {
            *ok_ = false;
        }
    }

    xmlNodePtr node() const { return node_; }
    bool ok() const { return *ok_; }
    bool has_children() const { return node_ != nullptr && node_->children != nullptr; }

    // A child element holding text (copied whole; XML-special characters
    // are escaped on output).
    builder text(const char *name, const char *value) const;
    // A child element holding printf-formatted text of at most kTextSize - 1.
    builder fmt(const char *name, const char *format, ...) const __attribute__((format(printf, 3, 4)));
    builder empty(const char *name) const { return text(name, nullptr); }
    // One child per set bit b (0 to 31) of mask, holding namer(b).
    void per_bit(const char *name, uint32_t mask, namer_f namer) const;
    // An address or prefix as the host prints it.
    builder addr(const char *name, const t_ipaddr &addr) const;
    builder prefix(const char *name, const t_ipprefix &pfx) const;
    // A colour or encapsulation by name, only when the code is one.
    void color(const char *name, uint32_t color) const;
    void encap(const char *name, uint32_t encap) const;
    // Unlinks and frees the element when it got no child.
    void drop_if_empty() const;

private:
    xmlNodePtr node_;
    bool *ok_;
};

// Process CPU time since construction, in nanoseconds.
class cpu_timer {
public:
    cpu_timer();
    time_t elapsed_ns() const;

private:
    timespec start_{};
};

struct doc_deleter {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};

// The document of one object while it is built: version "1.0" with its
// root element. Freed with the wrapper whatever happens. libxml2's global
// state is left alone: the library runs inside daemons whose other parts
// may be using libxml2 at the same time.
class document {
public:
    explicit document(const char *root_name);
    document(const document &) = delete;
    document &operator=(const document &) = delete;

    xmlNodePtr root() const { return root_; }
    // Dumps the document formatted into out (text, length, the CPU time
    // since timer started); null, out untouched, when it cannot.
    char *dump(pol_xml_t *out, const cpu_timer &timer) const;

private:
    std::unique_ptr<xmlDoc, doc_deleter> doc_;
    xmlNodePtr root_ = nullptr;
};

// The frame of every converter: times the rendering, builds the document
// with root root_name, lets fill add the children (fill returns false when
// the document must not be dumped) and dumps it into out.
template <typename Fill>
char *render(const char *root_name, pol_xml_t *out, Fill &&fill)
{
    cpu_timer timer;
    document doc(root_name);
    bool ok = true;
    builder root(doc.root(), &ok);
    if (!ok || !fill(root) || !ok) {
        return nullptr;
    }
    return doc.dump(out, timer);
}

}  // namespace pol::xml

#endif  // POLICY_POL_XML_HPP
