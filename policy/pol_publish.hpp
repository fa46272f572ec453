// Publishing the edge router's policy documents into the management
// daemon: the compatibility filter (pol_xml_filter.cpp), which drops the
// elements the daemon's schema does not know, and the payload assembly and
// load (pol_fwd_publish.cpp). The exported entry points are declared in
// policy/pol_api.h; this header holds what the two share with the tests.
#ifndef POLICY_POL_PUBLISH_HPP
#define POLICY_POL_PUBLISH_HPP

#include <libxml/tree.h>

#include <cstddef>

#include "pol_internal.h"

extern "C" {

// Prefix under which the policy namespace is written in the schema paths
// the filter asks about and in its XPath expressions; the edge document
// module (zen-policy-edge) has it as its prefix.
#define POL_XML_NS_PREFIX "zentrak-policy"
// Namespace of the edge router's policy documents.
#define POL_XML_POLICY_NS "urn:zen:params:xml:ns:yang:zen-policy-edge"

#define POL_XML_MAX_INCOMPAT 32
#define POL_XML_XPATH_SIZE 512

// One incompatible path: an owned copy of its text and its length.
typedef struct _t_pol_xpath {
    char *xpath;
    size_t len;
} t_pol_xpath;

// One filtering run, on the caller's stack, zeroed.
typedef struct _t_pol_xml_ctx {
    const char *xml_namespace;  // registered for XPath under POL_XML_NS_PREFIX
    t_pol_xpath incompat[POL_XML_MAX_INCOMPAT];
    ssize_t nincompat;
    char xpath[POL_XML_XPATH_SIZE];  // path of the element being visited
} t_pol_xml_ctx;

// The document with every element the schema does not know removed, as a
// new buffer (free with xmlFree) of *xml_compat_siz bytes, starting with
// the XML declaration; null when it does not parse, has no root, nothing
// was removed or the removal failed (the caller keeps the original text).
char *pol_xml_fetch_compat_config(const char *ns, const char *xml_buf, size_t xml_buf_siz,
                                  size_t *xml_compat_siz);
// ERR_OK when incompatible nodes were found and removed, ERR_IGNORE when
// there were none, ERR_FAIL when removing them failed.
int pol_xml_remove_incompat_nodes(const char *ns, xmlDocPtr doc, xmlNodePtr root);
void pol_xml_dfs(t_pol_xml_ctx *ctx, xmlNodePtr node, size_t needle);
void pol_xml_check_xpath_compat(t_pol_xml_ctx *ctx, char *xpath);
int pol_xml_remove_nodes(t_pol_xml_ctx *ctx, xmlDocPtr doc);
// The rightmost occurrence of needle in str; str for a null needle.
char *strstr_reverse(char *str, const char *needle);

}  // extern "C"

namespace pol::publish {

// Where and how the load calls reach the daemon. The shipped values are the
// daemon's port (MGMTD_PORT), 32 retries 5 s apart of a locked database and
// the show data file under /etc/zentrak; tests point them at their own
// daemon and directory and shorten the wait.
struct settings {
    int port;
    unsigned lock_retries;
    unsigned lock_retry_delay_ms;
    const char *show_data_file;
};

const settings &current_settings();
void set_settings(const settings &s);
settings default_settings();

}  // namespace pol::publish

#endif  // POLICY_POL_PUBLISH_HPP
