// Publishing the edge router's policy documents: render the documents that
// changed, assemble the payload of one peer (its data, app-route and cflowd
// policies and every list they name, each once), wrap it as configuration
// or show data (through the compatibility filter), and load it into the
// management daemon. The host runs these steps in that order; nothing in
// the library calls them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <libxml/xmlmemory.h>

#include <zen/maapi.h>
#include <zen/zen_err.h>

#include "pol_fwd_label.h"
#include "pol_publish.hpp"
#include "pol_util.hpp"
#include "pol_xml.hpp"

namespace pol::publish {

settings default_settings()
{
    return {MGMTD_PORT, 32, 5000, "/etc/zentrak/show_fwd_pol_data.xml"};
}

namespace {

settings g_settings = default_settings();

}  // namespace

const settings &current_settings()
{
    return g_settings;
}

void set_settings(const settings &s)
{
    g_settings = s;
}

}  // namespace pol::publish

namespace {

using pol::publish::current_settings;
using pol::xml::kXmlDeclSize;

constexpr uint32_t kWorkBufSize = 2048;
// "</data-policy>" and its newline: replaced by the direction footer.
constexpr uint32_t kDataPolicyCloseSize = 15;

/* ---- rendering ---- */

// Renders one object's document again, keeping the old one when it fails.
template <typename T>
void render(T *obj, uint8_t T::*flag, pol_xml_t T::*doc, e_pol_xml_type type, bool force)
{
    if (!force && obj->*flag != 1) {
        return;
    }
    pol_xml_t fresh{};
    if (pol_xml_convert(obj, &fresh, type) != nullptr) {
        pol_xml_free_buf(&(obj->*doc));
        obj->*doc = fresh;
    }
    obj->*flag = 0;
}

template <typename T>
void render_all(avl_tree_t *tree, uint8_t T::*flag, pol_xml_t T::*doc, e_pol_xml_type type, bool force)
{
    pol::tree<T>(tree).for_each([&](T *obj) { render(obj, flag, doc, type, force); });
}

void render_blocks(avl_tree_t *tree, e_pol_xml_type type, bool force)
{
    render_all(tree, &t_pol_block::fetch_xml, &t_pol_block::pol_xml, type, force);
}

/* ---- names already in the payload (pol_fwd_list_exists keeps them) ---- */

void names_clear()
{
    for (t_list_name_head &head : g_pol_list_head) {
        pol_fwd_list_clear(&head);
    }
}

/* ---- appending documents ---- */

struct work_buf {
    char **text;
    uint32_t *left;
};

// The document text without its declaration line; empty when never rendered.
std::pair<const char *, uint32_t> body_of(const pol_xml_t &doc)
{
    if (doc.buf == nullptr || doc.buf_siz < kXmlDeclSize) {
        return {"", 0};
    }
    return {doc.buf + kXmlDeclSize, doc.buf_siz - kXmlDeclSize};
}

int append_doc(const pol_xml_t &doc, const work_buf &out)
{
    auto [text, len] = body_of(doc);
    return pol_fwd_policy_append(text, len, out.text, out.left);
}

// Appends a list's document the first time its name is met.
int append_list_once(e_pol_fwd_pol_type kind, const char *what, const char *name, const pol_xml_t &doc,
                     const work_buf &out)
{
    POL_DBG(2, "Get %s '%s'config", what, name);
    if (pol_fwd_list_exists(&g_pol_list_head[kind], name) != 0) {
        return ERR_OK;
    }
    int rc = append_doc(doc, out);
    if (rc != ERR_OK) {
        POL_LOG("Error getting list xml string (error:%d)", rc);
    }
    return rc;
}

int append_app_list(const t_app_list *list, const char *what, const work_buf &out)
{
    return list == nullptr ? ERR_OK
                           : append_list_once(POL_FWD_POL_TYPE_APPLIST, what, list->app_list_name,
                                              list->app_list_xml, out);
}

int append_pfx_list(const t_fwd_pfx_list *list, e_pol_fwd_pol_type kind, const char *what, const work_buf &out)
{
    return list == nullptr ? ERR_OK
                           : append_list_once(kind, what, list->fwd_pfx_list_name, list->fwd_pfx_list_xml, out);
}

int append_saas_lists(const t_dll &lists, const work_buf &out)
{
    for (const t_dlnode *n = lists.p_head; n != nullptr; n = n->p_next) {
        const auto *node = reinterpret_cast<const t_app_list_dll_node *>(
            reinterpret_cast<const char *>(n) - offsetof(t_app_list_dll_node, app_list_node));
        const t_app_list *app_list_p = node->match_app_list_p;
        POL_ASSERT(app_list_p != NULL);
        if (int rc = append_app_list(app_list_p, "saas-app-list", out); rc != ERR_OK) {
            return rc;
        }
    }
    return ERR_OK;
}

int append_sla_class(const t_fwd_sla_class *sla, const work_buf &out)
{
    if (sla == nullptr) {
        return ERR_OK;
    }
    int rc = append_list_once(POL_FWD_POL_TYPE_SLA_CLASS, "sla-class", sla->sla_class_name, sla->sla_class_xml, out);
    const t_app_probe_class *probe = sla->pol_app_probe_class_p;
    if (rc == ERR_OK && probe != nullptr) {
        rc = append_list_once(POL_FWD_POL_TYPE_APP_PROBE_CLASS, "app-probe-class", probe->app_probe_class_name,
                              probe->app_probe_class_xml, out);
    }
    return rc;
}

// The lists one sequence names.
int append_sequence_lists(const t_pol_entry &entry, const work_buf &out)
{
    const t_pol_match_entry &m = entry.match_entry;
    const t_pol_set_entry &s = entry.set_entry;
    int rc = append_sla_class(s.set_sla_class_p, out);
    rc = rc != ERR_OK ? rc : append_app_list(m.match_app_list_p, "app-list", out);
    rc = rc != ERR_OK ? rc : append_app_list(m.match_dns_app_list_p, "dns-app-list", out);
    rc = rc != ERR_OK ? rc : append_saas_lists(m.match_saas_app_list, out);
    rc = rc != ERR_OK ? rc : append_pfx_list(m.match_src_list_p, POL_FWD_POL_TYPE_PFXLIST, "pfx-list", out);
    rc = rc != ERR_OK ? rc : append_pfx_list(m.match_dst_list_p, POL_FWD_POL_TYPE_PFXLIST, "pfx-list", out);
    rc = rc != ERR_OK ? rc : append_pfx_list(m.match_src6_list_p, POL_FWD_POL_TYPE_PFX6LIST, "pfx6-list", out);
    rc = rc != ERR_OK ? rc : append_pfx_list(m.match_dst6_list_p, POL_FWD_POL_TYPE_PFX6LIST, "pfx6-list", out);
    if (rc == ERR_OK && s.set_fwd_policer_p != nullptr) {
        rc = append_list_once(POL_FWD_POL_TYPE_POLICER, "policer", s.set_fwd_policer_p->fwd_policer_name,
                              s.set_fwd_policer_p->fwd_policer_xml, out);
    }
    if (rc == ERR_OK && s.set_fwd_tloc_list_p != nullptr) {
        rc = append_list_once(POL_FWD_POL_TYPE_TLOCLIST, "tloc-list", s.set_fwd_tloc_list_p->tloc_list_name,
                              s.set_fwd_tloc_list_p->tloc_list_xml, out);
    }
    return rc;
}

int append_vpn_lists(t_pol_fwd_vpn_entry *vpn, const work_buf &out)
{
    const t_vpn_list *vpn_list_p = vpn->vpn_list_p;
    POL_ASSERT(vpn_list_p != NULL);
    int rc = append_list_once(POL_FWD_POL_TYPE_VPNLIST, "vpn-list", vpn_list_p->vpn_list_name,
                              vpn_list_p->vpn_list_xml, out);
    pol::tree<t_pol_entry> entries(&vpn->pol_entries);
    for (t_pol_entry *e = entries.first(); rc == ERR_OK && e != nullptr; e = entries.next(e)) {
        rc = append_sequence_lists(*e, out);
    }
    if (rc == ERR_OK && vpn->default_pol_entry != nullptr) {
        rc = append_sequence_lists(*vpn->default_pol_entry, out);
    }
    return rc;
}

const char *direction_footer(uint32_t dir)
{
    switch (dir) {
    case POL_DIR_IN:
        return "<direction>from-service</direction></data-policy>";
    case POL_DIR_OUT:
        return "<direction>from-tunnel</direction></data-policy>";
    default:
        return "<direction>all</direction></data-policy>";
    }
}

// A data policy's document with the direction in place of its closing tag.
int append_data_policy(const t_pol_block &block, uint32_t dir, const work_buf &out)
{
    auto [text, len] = body_of(block.pol_xml);
    if (len < kDataPolicyCloseSize) {
        POL_LOG("Error adding footer to data policy (error:%d)", ERR_NOT_FOUND);
        return ERR_NOT_FOUND;
    }
    int rc = pol_fwd_policy_append(text, len - kDataPolicyCloseSize, out.text, out.left);
    POL_LOG("Add footer for data-policy in direction %d", static_cast<int>(dir));
    const char *footer = direction_footer(dir);
    rc = rc != ERR_OK ? rc : pol_fwd_policy_append(footer, static_cast<uint32_t>(strlen(footer)), out.text, out.left);
    if (rc != ERR_OK) {
        POL_LOG("Error adding footer to data policy (error:%d)", rc);
    }
    return rc;
}

t_pol_block *block_of(t_pol_handle handle)
{
    return handle != nullptr ? handle->pol_block_p : nullptr;
}

bool same_policy_name(t_pol_handle a, t_pol_handle b)
{
    const t_pol_block *ba = block_of(a);
    const t_pol_block *bb = block_of(b);
    return ba != nullptr && bb != nullptr && strncmp(ba->pol_name, bb->pol_name, POL_NAME_SIZE) == 0;
}

int fetch_policies(t_pol_handle in, t_pol_handle out, t_pol_handle pfr, t_pol_handle cflowd,
                   const work_buf &pols, const work_buf &lists)
{
    auto get = [&](t_pol_handle h, e_pol_fwd_pol_type type, uint32_t dir) {
        return block_of(h) == nullptr ? ERR_OK
                                      : pol_fwd_policy_xml_get(h, type, dir, pols.left, pols.text, lists.left,
                                                               lists.text);
    };
    int rc = ERR_OK;
    if (same_policy_name(in, out)) {
        rc = get(in, POL_FWD_POL_TYPE_DATA_POLICY, POL_DIR_NONE);
    } else {
        rc = get(in, POL_FWD_POL_TYPE_DATA_POLICY, POL_DIR_IN);
        rc = rc != ERR_OK ? rc : get(out, POL_FWD_POL_TYPE_DATA_POLICY, POL_DIR_OUT);
    }
    rc = rc != ERR_OK ? rc : get(pfr, POL_FWD_POL_TYPE_PFR_POLICY, POL_DIR_NONE);
    return rc != ERR_OK ? rc : get(cflowd, POL_FWD_POL_TYPE_CFLOWD, POL_DIR_NONE);
}

// The policies, then the lists inside one "lists" element when there are any.
char *join_payload(const char *pols, const char *lists, uint32_t *size_p)
{
    static constexpr const char kOpen[] = "<lists>";
    static constexpr const char kClose[] = "</lists>";
    const size_t pols_len = strlen(pols);
    const size_t lists_len = strlen(lists);
    const size_t size = pols_len + (lists_len != 0 ? lists_len + sizeof(kOpen) - 1 + sizeof(kClose) - 1 : 0);
    char *out = static_cast<char *>(pol_malloc(size + 1, POL_MEM_XML_1));
    if (out == nullptr) {
        POL_LOG("Error allocating memory for policy XML config of %d bytes", static_cast<int>(size));
        return nullptr;
    }
    if (lists_len != 0) {
        snprintf(out, size + 1, "%s%s%s%s", pols, kOpen, lists, kClose);
    } else {
        memcpy(out, pols, pols_len + 1);
    }
    *size_p = static_cast<uint32_t>(size);
    return out;
}

/* ---- wrapping ---- */

// The element text, filtered when the filter removed something: the
// filter's dump starts with the XML declaration, which is left out.
std::string filtered_element(const std::string &element)
{
    size_t filtered_len = 0;
    char *filtered = pol_xml_fetch_compat_config(POL_XML_POLICY_NS, element.data(), element.size(), &filtered_len);
    if (filtered == nullptr) {
        return element;
    }
    std::string text(filtered, filtered_len);
    xmlFree(filtered);
    if (text.rfind("<?xml", 0) == 0) {
        const size_t end = text.find("?>");
        text.erase(0, end == std::string::npos ? 0 : end + 2);
    }
    while (!text.empty() && (text.front() == '\n' || text.back() == '\n')) {
        text.erase(text.front() == '\n' ? 0 : text.size() - 1, 1);
    }
    return text;
}

char *to_buffer(const std::string &text, uint32_t *new_size_p)
{
    char *out = static_cast<char *>(pol_malloc(text.size() + 1, POL_MEM_XML_2));
    if (out == nullptr) {
        return nullptr;
    }
    memcpy(out, text.c_str(), text.size() + 1);
    *new_size_p = static_cast<uint32_t>(text.size());
    return out;
}

std::string payload_text(const char *xml, uint32_t size)
{
    return xml != nullptr ? std::string(xml, strnlen(xml, size)) : std::string();
}

/* ---- the daemon ---- */

// A management connection with a user session and one transaction; ended
// whatever happens.
class mgmtd_session {
public:
    ~mgmtd_session()
    {
        if (th_ > 0) {
            maapi_finish_trans(sock_, th_);
        }
        if (user_session_) {
            maapi_end_user_session(sock_);
        }
        if (sock_ >= 0) {
            close(sock_);
        }
    }

    // ERR_OK, ERR_SOCKET when the daemon cannot be reached, ERR_MGMTD_FAIL.
    int open(mgmtd_dbname db)
    {
        sock_ = socket(AF_INET, SOCK_STREAM, 0);
        if (sock_ < 0) {
            POL_LOG("Failed to do get new socket (%d)", errno);
            return ERR_SOCKET;
        }
        sockaddr_in addr = daemon_addr();
        if (maapi_connect(sock_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != MGMTD_OK) {
            POL_LOG("Failed to do maapi_connect (%d)mgmtd_str %s (%d) %s", ERR_SOCKET, mgmtd_strerror(mgmtd_errno),
                    mgmtd_errno, mgmtd_lasterr());
            return ERR_SOCKET;
        }
        POL_LOG("Starting user session");
        if (maapi_start_user_session3(sock_, "zen-policy", "system", nullptr, 0, "127.0.0.1", 0) != MGMTD_OK) {
            return failed("Failed to start user session");
        }
        user_session_ = true;
        POL_LOG("Starting transaction");
        th_ = maapi_start_trans_flags2(sock_, db, MAAPI_READ_WRITE, 0, 0);
        return th_ > 0 ? ERR_OK : failed("Failed to start transaction");
    }

    // Applies, waiting out a database another session holds locked.
    int apply()
    {
        const pol::publish::settings &s = current_settings();
        for (unsigned retry = 0;; retry++) {
            if (maapi_apply_trans(sock_, th_, 1) == MGMTD_OK) {
                return ERR_OK;
            }
            if (mgmtd_errno != MGMTD_ERR_INUSE || retry >= s.lock_retries) {
                POL_LOG("Failed to apply transaction to mgmtd, %d mgmtd_str %s (%d) %s, retry %u", ERR_MGMTD_FAIL,
                        mgmtd_strerror(mgmtd_errno), mgmtd_errno, mgmtd_lasterr(), retry);
                return ERR_MGMTD_FAIL;
            }
            POL_LOG("Database is locked - Retrying");
            std::this_thread::sleep_for(std::chrono::milliseconds(s.lock_retry_delay_ms));
        }
    }

    int sock() const { return sock_; }
    int th() const { return th_; }

    static sockaddr_in daemon_addr()
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(current_settings().port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return addr;
    }

    static int failed(const char *what)
    {
        POL_LOG("%s, %d mgmtd_str %s (%d) %s", what, ERR_MGMTD_FAIL, mgmtd_strerror(mgmtd_errno), mgmtd_errno,
                mgmtd_lasterr());
        return ERR_MGMTD_FAIL;
    }

private:
    int sock_ = -1;
    int th_ = 0;
    bool user_session_ = false;
};

int commit(const mgmtd_session &s, const char *text)
{
    if (maapi_candidate_commit(s.sock()) != MGMTD_OK) {
        POL_LOG("Failed to commit transaction to mgmtd, %d mgmtd_str %s (%d) %s, string: %s, len: %u", ERR_MGMTD_FAIL,
                mgmtd_strerror(mgmtd_errno), mgmtd_errno, mgmtd_lasterr(), text,
                static_cast<unsigned>(strlen(text)));
        return ERR_MGMTD_FAIL;
    }
    POL_LOG("Successfully applied the config");
    return ERR_OK;
}

bool write_show_file(const char *path, const char *text)
{
    POL_LOG("Creating XML show data in %s", path);
    FILE *f = fopen(path, "w+");
    if (f == nullptr) {
        POL_LOG("Cannot open/create XML file %sto save show policy data", path);
        return false;
    }
    fprintf(f, "%s\n", text);
    return fclose(f) == 0;
}

}  // namespace

extern "C" {

void pol_fwd_queue_xml_config(t_pol_ctx *pol_ctx, int force_fetch)
{
    const bool force = force_fetch != 0;
    render_blocks(&pol_ctx->fwd_policies, POL_XML_TYPE_DATA_POLICY, force);
    render_blocks(&pol_ctx->pfr_policies, POL_XML_TYPE_PFR_POLICY, force);
    render_blocks(&pol_ctx->cflowd_templates, POL_XML_TYPE_CFLOWD, force);
    render_all(&pol_ctx->vpn_lists, &t_vpn_list::fetch_xml, &t_vpn_list::vpn_list_xml, POL_XML_TYPE_VPNLIST, force);
    render_all(&pol_ctx->tloc_lists, &t_tloc_list::fetch_xml, &t_tloc_list::tloc_list_xml, POL_XML_TYPE_TLOCLIST,
               force);
    render_all(&pol_ctx->fwd_pfx_lists, &t_fwd_pfx_list::fetch_xml, &t_fwd_pfx_list::fwd_pfx_list_xml,
               POL_XML_TYPE_FWD_PFXLIST, force);
    render_all(&pol_ctx->fwd_pfx6_lists, &t_fwd_pfx_list::fetch_xml, &t_fwd_pfx_list::fwd_pfx_list_xml,
               POL_XML_TYPE_FWD_PFX6LIST, force);
    render_all(&pol_ctx->fwd_policers, &t_fwd_policer::fetch_xml, &t_fwd_policer::fwd_policer_xml,
               POL_XML_TYPE_POLICER, force);
    render_all(&pol_ctx->app_probe_class_list, &t_app_probe_class::fetch_xml,
               &t_app_probe_class::app_probe_class_xml, POL_XML_TYPE_APP_PROBE_CLASS, force);
    render_all(&pol_ctx->sla_classes, &t_fwd_sla_class::fetch_xml, &t_fwd_sla_class::sla_class_xml,
               POL_XML_TYPE_SLA_CLASS, force);
    render_all(&pol_ctx->app_lists, &t_app_list::fetch_xml, &t_app_list::app_list_xml, POL_XML_TYPE_APPLIST, force);
}

int pol_fwd_policy_append(const char *src, uint32_t src_len, char **dest, uint32_t *dest_size_left)
{
    const size_t used = strlen(*dest);
    if (src_len >= *dest_size_left) {
        char *grown = static_cast<char *>(pol_realloc(*dest, used + src_len + 1));
        if (grown == nullptr) {
            return 1;
        }
        *dest = grown;
        *dest_size_left = 0;
    } else {
        *dest_size_left -= src_len;
    }
    memcpy(*dest + used, src, src_len);
    (*dest)[used + src_len] = '\0';
    return ERR_OK;
}

int pol_fwd_policy_xml_get_list(t_pol_block *pol_block_p, uint32_t *list_size_p, char **list_xml_p)
{
    POL_DBG(2, "Get list config for policy %s", pol_block_p->pol_name);
    const work_buf out{list_xml_p, list_size_p};
    pol::tree<t_pol_fwd_vpn_entry> vpns(&pol_block_p->pol_fwd_vpn_list_entries);
    int rc = ERR_OK;
    for (t_pol_fwd_vpn_entry *vpn = vpns.first(); rc == ERR_OK && vpn != nullptr; vpn = vpns.next(vpn)) {
        rc = append_vpn_lists(vpn, out);
    }
    return rc;
}

int pol_fwd_policy_xml_get(t_pol_handle pol_handle, uint32_t pol_type, uint32_t pol_dir, uint32_t *pol_size_p,
                           char **pol_xml_p, uint32_t *list_size_p, char **list_xml_p)
{
    t_pol_block *block = block_of(pol_handle);
    if (block == nullptr) {
        return ERR_NOT_FOUND;
    }
    POL_DBG(2, "Get policy %s of type %d", block->pol_name, static_cast<int>(pol_type));
    const work_buf pols{pol_xml_p, pol_size_p};
    int rc = pol_type == POL_FWD_POL_TYPE_DATA_POLICY ? append_data_policy(*block, pol_dir, pols)
                                                      : append_doc(block->pol_xml, pols);
    if (rc != ERR_OK) {
        return rc;
    }
    rc = pol_fwd_policy_xml_get_list(block, list_size_p, list_xml_p);
    if (rc != ERR_OK) {
        POL_LOG("Error getting list xml config (error:%d)", rc);
    }
    return rc;
}

int pol_fwd_policy_populate(t_pol_handle data_pol_in_p, t_pol_handle data_pol_out_p, t_pol_handle pfr_pol_p,
                            t_pol_handle cflowd_pol_p, uint32_t *peer_pol_size_p, char **peer_pol_xml_p)
{
    *peer_pol_size_p = 0;
    *peer_pol_xml_p = nullptr;
    if (data_pol_in_p == nullptr && data_pol_out_p == nullptr && pfr_pol_p == nullptr && cflowd_pol_p == nullptr) {
        return ERR_OK;
    }
    names_clear();
    char *pol_xml = static_cast<char *>(pol_malloc(kWorkBufSize, POL_MEM_XML_1));
    char *list_xml = static_cast<char *>(pol_malloc(kWorkBufSize, POL_MEM_XML_1));
    int rc = ERR_OK;
    if (pol_xml == nullptr || list_xml == nullptr) {
        POL_LOG("Failed to allocate memory for pol_xml_p or list_xml_p running low on memory");
        rc = ERR_ALLOC;
    } else {
        pol_xml[0] = list_xml[0] = '\0';
        uint32_t pol_left = kWorkBufSize, list_left = kWorkBufSize;
        rc = fetch_policies(data_pol_in_p, data_pol_out_p, pfr_pol_p, cflowd_pol_p, {&pol_xml, &pol_left},
                            {&list_xml, &list_left});
        if (rc != ERR_OK) {
            POL_LOG("Error fetching xml policy and lists (error: %d)", rc);
        } else if ((*peer_pol_xml_p = join_payload(pol_xml, list_xml, peer_pol_size_p)) == nullptr) {
            rc = ERR_ALLOC;
        }
    }
    names_clear();
    pol_free(pol_xml, POL_MEM_XML_1);
    pol_free(list_xml, POL_MEM_XML_1);
    return rc;
}

char *pol_fwd_policy_hdr_add(const char *xml_fwd_pol_p, uint32_t size, uint32_t *new_size_p)
{
    const std::string element = std::string("<policy-from-qarmon xmlns=\"") + POL_XML_POLICY_NS + "\">" +
                                payload_text(xml_fwd_pol_p, size) + "</policy-from-qarmon>";
    return to_buffer(std::string("<config xmlns=\"") + MGMTD_CONFIG_NS + "\">" + filtered_element(element) +
                         "</config>",
                     new_size_p);
}

char *pol_show_fwd_policy_hdr_add(const char *xml_fwd_pol_p, uint32_t size, uint32_t *new_size_p)
{
    const std::string element = std::string("<policy xmlns=\"") + POL_XML_POLICY_NS + "\"><from-qarmon>" +
                                payload_text(xml_fwd_pol_p, size) + "</from-qarmon></policy>";
    return to_buffer(filtered_element(element), new_size_p);
}

int pol_fwd_policy_mgmtd_set(uint32_t size, const char *xml_fwd_pol_p, uint32_t vpn_id)
{
    (void)vpn_id;
    const std::string text = payload_text(xml_fwd_pol_p, size);
    mgmtd_session s;
    int rc = s.open(MGMTD_CANDIDATE);
    if (rc != ERR_OK) {
        return rc;
    }
    POL_LOG("Initialising the load config %s", text.c_str());
    if (maapi_load_config_cmds(s.sock(), s.th(), MAAPI_CONFIG_XML | MAAPI_CONFIG_REPLACE | MAAPI_CONFIG_STRICT,
                               text.c_str()) != MGMTD_OK) {
        POL_LOG("Failed to load config to mgmtd, %d mgmtd_str %s (%d) %s\n %s ", ERR_MGMTD_FAIL,
                mgmtd_strerror(mgmtd_errno), mgmtd_errno, mgmtd_lasterr(), text.c_str());
        return ERR_MGMTD_FAIL;
    }
    rc = s.apply();
    return rc != ERR_OK ? rc : commit(s, text.c_str());
}

int pol_fwd_policy_mgmtd_delete(uint32_t vpn_id)
{
    (void)vpn_id;
    mgmtd_session s;
    int rc = s.open(MGMTD_CANDIDATE);
    if (rc != ERR_OK) {
        return rc;
    }
    POL_LOG("Initialising the config delete");
    if (maapi_delete(s.sock(), s.th(), "/policy-from-qarmon") != MGMTD_OK) {
        return mgmtd_session::failed("Failed to delete config from mgmtd");
    }
    rc = s.apply();
    return rc != ERR_OK ? rc : commit(s, "/policy-from-qarmon");
}

int pol_show_fwd_policy_mgmtd_set(const char *xml_show_fwd_pol_p, uint32_t vpn_id)
{
    (void)vpn_id;
    mgmtd_session s;
    int rc = s.open(MGMTD_OPERATIONAL);
    if (rc != ERR_OK) {
        return rc;
    }
    const char *file = current_settings().show_data_file;
    if (!write_show_file(file, xml_show_fwd_pol_p)) {
        return ERR_MGMTD_FAIL;
    }
    if (maapi_load_config(s.sock(), s.th(), MAAPI_CONFIG_XML | MAAPI_CONFIG_OPER, file) != MGMTD_OK) {
        POL_LOG("Failed to set xml show data, %dmgmtd_str %s (%d) %s\n %s ", ERR_MGMTD_FAIL,
                mgmtd_strerror(mgmtd_errno), mgmtd_errno, mgmtd_lasterr(), xml_show_fwd_pol_p);
        return ERR_MGMTD_FAIL;
    }
    if (maapi_apply_trans(s.sock(), s.th(), 1) != MGMTD_OK) {
        POL_LOG("Cannot apply maapi transaction: %s, %s", mgmtd_strerror(mgmtd_errno), mgmtd_lasterr());
        return ERR_MGMTD_FAIL;
    }
    POL_LOG("Done setting XML show data in CDB");
    return ERR_OK;
}

int pol_show_fwd_policy_mgmtd_delete(uint32_t vpn_id)
{
    (void)vpn_id;
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) {
        POL_LOG("Failed to do get new socket (%d)", errno);
        return ERR_SOCKET;
    }
    sockaddr_in addr = mgmtd_session::daemon_addr();
    int rc = ERR_OK;
    if (cdb_connect(sock, CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != MGMTD_OK) {
        POL_LOG("Failed to do cdb_connect (%d)mgmtd_str %s (%d) %s", ERR_SOCKET, mgmtd_strerror(mgmtd_errno),
                mgmtd_errno, mgmtd_lasterr());
        rc = ERR_SOCKET;
    } else if (cdb_start_session2(sock, MGMTD_OPERATIONAL, 0) != MGMTD_OK) {
        rc = mgmtd_session::failed("Failed to start the operational session");
    } else {
        for (const char *path : pol_show_data_pol_from_qarmon) {
            if (cdb_num_instances(sock, "%s", path) > 0 && cdb_delete(sock, "%s", path) != MGMTD_OK) {
                POL_LOG("Failed to delete/clean %s, %s (%d) : %s", path, mgmtd_strerror(mgmtd_errno), mgmtd_errno,
                        mgmtd_lasterr());
                rc = ERR_MGMTD_FAIL;
            }
        }
        cdb_end_session(sock);
    }
    close(sock);
    return rc;
}

}  // extern "C"
