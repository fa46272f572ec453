// Compatibility filter: a document from a newer controller may carry
// elements the device's management schema does not know. Each leaf
// position's schema path is asked of the daemon's schema; the first unknown
// element on the way down is recorded once, and every recorded path is
// removed with its subtree through XPath, so the rest of the document
// still loads.
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <zen/maapi.h>
#include <zen/zen_err.h>

#include "pol_publish.hpp"

namespace {

bool schema_knows(const char *xpath)
{
    return mgmtd_cs_node_cd(nullptr, "%s", xpath) != nullptr;
}

// The path or one of its ancestors is recorded: a recorded path that
// matches over its length and ends where a component of this one ends
// ("/p:unknown1" is no ancestor of "/p:unknown10").
bool recorded(const t_pol_xml_ctx *ctx, const char *xpath)
{
    for (ssize_t i = 0; i < ctx->nincompat; i++) {
        const t_pol_xpath &r = ctx->incompat[i];
        if (strncmp(r.xpath, xpath, r.len) == 0 && (xpath[r.len] == '\0' || xpath[r.len] == '/')) {
            return true;
        }
    }
    return false;
}

void free_incompat(t_pol_xml_ctx *ctx)
{
    for (ssize_t i = 0; i < ctx->nincompat; i++) {
        free(ctx->incompat[i].xpath);
        ctx->incompat[i] = {};
    }
    ctx->nincompat = 0;
}

void unlink_result(const xmlNodeSet *nodes, const char *xpath)
{
    POL_LOG("Unlinking %u nodes for xpath: %s", static_cast<unsigned>(nodes->nodeNr), xpath);
    for (int j = 0; j < nodes->nodeNr; j++) {
        POL_ASSERT(nodes->nodeTab[j]);
        xmlUnlinkNode(nodes->nodeTab[j]);
        xmlFreeNode(nodes->nodeTab[j]);
        nodes->nodeTab[j] = nullptr;
    }
}

}  // namespace

extern "C" {

char *strstr_reverse(char *str, const char *needle)
{
    if (needle == nullptr) {
        return str;
    }
    const size_t str_len = strlen(str);
    const size_t needle_len = strlen(needle);
    if (needle_len > str_len) {
        return nullptr;
    }
    for (size_t pos = str_len - needle_len + 1; pos-- > 0;) {
        if (strncmp(str + pos, needle, needle_len) == 0) {
            return str + pos;
        }
    }
    return nullptr;
}

void pol_xml_check_xpath_compat(t_pol_xml_ctx *ctx, char *xpath)
{
    if (schema_knows(xpath)) {
        return;
    }
    // Cut one component at a time until the schema knows what is left.
    char *cut = nullptr;
    do {
        char *component = strstr_reverse(xpath, POL_XML_NS_PREFIX);
        if (component == nullptr || component == xpath || component[-1] != '/') {
            break;
        }
        cut = component - 1;
        *cut = '\0';
    } while (!schema_knows(xpath));
    if (cut == nullptr) {
        return;
    }
    *cut = '/';  // the known prefix and the first unknown element
    if (recorded(ctx, xpath)) {
        return;
    }
    if (ctx->nincompat >= POL_XML_MAX_INCOMPAT) {
        // The table is full: this kind stays in the document, whose load
        // then fails whole on it rather than writing past the table.
        POL_LOG("Incompat xpath table full, kept: %s", xpath);
        return;
    }
    POL_LOG("Incompat xpath: %s", xpath);
    t_pol_xpath &slot = ctx->incompat[ctx->nincompat++];
    slot.xpath = strdup(xpath);
    slot.len = slot.xpath != nullptr ? strlen(slot.xpath) : 0;
}

void pol_xml_dfs(t_pol_xml_ctx *ctx, xmlNodePtr node, size_t needle)
{
    bool has_element = false;
    for (xmlNodePtr n = node; n != nullptr; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) {
            continue;
        }
        has_element = true;
        const size_t left = sizeof(ctx->xpath) - needle;
        int written = snprintf(ctx->xpath + needle, left, "/%s:%s", POL_XML_NS_PREFIX,
                               reinterpret_cast<const char *>(n->name));
        if (written < 0) {
            continue;
        }
        const size_t advance = static_cast<size_t>(written) < left ? static_cast<size_t>(written) : left - 1;
        pol_xml_dfs(ctx, n->children, needle + advance);
    }
    if (!has_element && needle > 0) {
        // A leaf position: the check cuts the path, so it gets a copy.
        char path[POL_XML_XPATH_SIZE];
        memcpy(path, ctx->xpath, needle);
        path[needle] = '\0';
        pol_xml_check_xpath_compat(ctx, path);
    }
}

int pol_xml_remove_nodes(t_pol_xml_ctx *ctx, xmlDocPtr doc)
{
    xmlXPathContextPtr xctx = xmlXPathNewContext(doc);
    if (xctx == nullptr) {
        POL_LOG("Error creating xpath context");
        return -1;
    }
    if (xmlXPathRegisterNs(xctx, BAD_CAST POL_XML_NS_PREFIX, BAD_CAST ctx->xml_namespace) != 0) {
        POL_LOG("Error registering namespace");
        xmlXPathFreeContext(xctx);
        return -1;
    }
    for (ssize_t i = 0; i < ctx->nincompat; i++) {
        const char *xpath = ctx->incompat[i].xpath;
        xmlXPathObjectPtr result = xmlXPathEvalExpression(BAD_CAST xpath, xctx);
        if (result == nullptr) {
            POL_LOG("Error evaluating xpath: %s", xpath);
            continue;
        }
        if (xmlXPathNodeSetIsEmpty(result->nodesetval)) {
            POL_LOG("No nodes found for xpath: %s", xpath);
        } else {
            unlink_result(result->nodesetval, xpath);
        }
        xmlXPathFreeObject(result);
    }
    xmlXPathFreeContext(xctx);
    return 0;
}

int pol_xml_remove_incompat_nodes(const char *ns, xmlDocPtr doc, xmlNodePtr root)
{
    t_pol_xml_ctx ctx{};
    ctx.xml_namespace = ns;
    pol_xml_dfs(&ctx, root, 0);
    int rc = ERR_OK;
    if (ctx.nincompat == 0) {
        POL_LOG("No incompatible nodes found");
        rc = ERR_IGNORE;
    } else if (pol_xml_remove_nodes(&ctx, doc) != 0) {
        POL_LOG("Error removing incompat nodes");
        rc = ERR_FAIL;
    }
    free_incompat(&ctx);
    return rc;
}

char *pol_xml_fetch_compat_config(const char *ns, const char *xml_buf, size_t xml_buf_siz,
                                  size_t *xml_compat_siz)
{
    *xml_compat_siz = 0;
    xmlDocPtr doc = xmlReadMemory(xml_buf, static_cast<int>(xml_buf_siz), nullptr, nullptr, XML_PARSE_NONET);
    if (doc == nullptr) {
        POL_LOG("Error parsing XML");
        return nullptr;
    }
    char *out = nullptr;
    xmlNodePtr root = xmlDocGetRootElement(doc);
    if (root == nullptr) {
        POL_LOG("Error getting root element");
    } else if (pol_xml_remove_incompat_nodes(ns, doc, root) == ERR_OK) {
        xmlChar *dump = nullptr;
        int len = 0;
        xmlDocDumpMemory(doc, &dump, &len);
        if (dump == nullptr || len <= 0) {
            POL_LOG("Error dumping XML document to buffer");
            xmlFree(dump);
        } else {
            out = reinterpret_cast<char *>(dump);
            *xml_compat_siz = static_cast<size_t>(len);
        }
    }
    xmlFreeDoc(doc);
    return out;
}

}  // extern "C"
