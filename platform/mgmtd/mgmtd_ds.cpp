// Configuration datastore and commit engine on libyang: strict parsing and
// validation of configuration files, the running tree, and the delivery of
// a commit's changes to the subscribed configuration change callbacks.
// The delivery rules are described in zen/mgmtd_ds.h; this file opens the
// datastore, indexes its schema, installs the subscription table and holds
// the C API (the other files are named in mgmtd_ds_internal.hpp).
#include "mgmtd_ds_internal.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using zen::mgmtd_detail::format;
using zen::mgmtd_detail::is_key;
using zen::mgmtd_detail::is_term;
using zen::mgmtd_detail::subscription;

std::string zen::mgmtd_detail::format(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char *text = nullptr;
    const int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    if (n < 0) {
        return std::string();
    }
    std::string out(text);
    std::free(text);
    return out;
}

namespace {

// FNV-1a of a text: the namespace hash of xml_tag.ns.
uint32_t text_hash(const char *text)
{
    uint32_t h = 2166136261u;
    for (const char *p = text; *p != '\0'; p++) {
        h ^= static_cast<unsigned char>(*p);
        h *= 16777619u;
    }
    return h;
}

}  // namespace

/* ---- schema ---- */

// The most values a node of this schema can hand over with the given
// subscriptions: one per leaf and leaf-list, two brackets per container
// and what the container holds (as present_values delivers them).
size_t mgmtd_ds::max_values(const lysc_node *parent, const subscription_index &index)
{
    size_t n = 0;
    const lysc_node *child = nullptr;
    while ((child = lys_getnext(child, parent, nullptr, 0)) != nullptr) {
        if (!is_value_node_of(child, index)) {
            continue;
        }
        if ((child->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0) {
            n += 1;
        } else if (child->nodetype == LYS_CONTAINER) {
            n += 2 + max_values(child, index);
        }
    }
    return n;
}

void mgmtd_ds::rank_children(const lysc_node *parent)
{
    int n = 0;
    const lysc_node *child = nullptr;
    while ((child = lys_getnext(child, parent, parent == nullptr ? mod->compiled : nullptr,
                                0)) != nullptr) {
        rank[child] = n++;
        if ((child->nodetype & (LYS_CONTAINER | LYS_LIST)) != 0) {
            holds_inner.insert(parent);
            rank_children(child);
        }
    }
}

// Every data node of the module must have a tag.
bool mgmtd_ds::check_tags()
{
    const lysc_node *top = mod->compiled != nullptr ? mod->compiled->data : nullptr;
    for (const lysc_node *root = top; root != nullptr; root = root->next) {
        const lysc_node *elem = nullptr;
        LYSC_TREE_DFS_BEGIN(root, elem)
        {
            if ((elem->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST)) != 0 &&
                tag_of_name.count(elem->name) == 0) {
                error = format("schema node \"%s\" of module %s has no tag", elem->name,
                               mod->name);
                return false;
            }
            LYSC_TREE_DFS_END(root, elem);
        }
    }
    return true;
}

// Lists the value children of every list and container of the module.
void mgmtd_ds::index_value_schemas()
{
    value_schemas.clear();
    for (const auto &[schema, order] : rank) {
        if ((schema->nodetype & (LYS_CONTAINER | LYS_LIST)) == 0) {
            continue;
        }
        std::vector<const lysc_node *> &values = value_schemas[schema];
        const lysc_node *child = nullptr;
        while ((child = lys_getnext(child, schema, nullptr, 0)) != nullptr) {
            if (is_value_node(child)) {
                values.push_back(child);
            }
        }
    }
}

/* ---- libyang errors ---- */

// The first stored libyang error of a file, as "FILE:LINE: message (at PATH)".
std::string mgmtd_ds::ly_error(const char *file)
{
    const ly_err_item *e = ly_err_first(ctx);
    std::string msg = e != nullptr && e->msg != nullptr ? e->msg : "invalid data";
    std::string where = e != nullptr && e->path != nullptr ? e->path : "";
    ly_err_clean(ctx, nullptr);
    long line = -1;
    const size_t at_line = where.find("line number ");
    if (at_line != std::string::npos) {
        line = std::strtol(where.c_str() + at_line + 12, nullptr, 10);
    }
    std::string data_path;
    const size_t at_path = where.find("location \"");
    if (at_path != std::string::npos) {
        const size_t start = at_path + 10;
        const size_t end = where.find('"', start);
        data_path = where.substr(start, end == std::string::npos ? end : end - start);
    }
    std::string out = file;
    if (line > 0) {
        out += format(":%ld", line);
    }
    out += ": " + msg;
    if (!data_path.empty()) {
        out += " (at " + data_path + ")";
    }
    return out;
}

// The C API is the library's interface. Its functions take the datastore,
// whose type is hidden (mgmtd_ds_internal.hpp), and would be hidden with it
// without the default visibility asked for here.
#pragma GCC visibility push(default)

extern "C" {

mgmtd_ds_t *mgmtd_ds_open(const mgmtd_ds_schema_t *schema, char *err, size_t err_size)
{
    auto report = [&](const std::string &msg) {
        if (err != nullptr && err_size > 0) {
            std::snprintf(err, err_size, "%s", msg.c_str());
        }
    };
    if (schema == nullptr || schema->module_text == nullptr) {
        report("no schema");
        return nullptr;
    }
    auto *ds = new mgmtd_ds();
    ds->vctx.data_socket = -1;
    ds->vctx.sub_socket = -1;
    ds->vctx.maapi_socket = -1;
    // Errors are kept for the messages of this library, never printed.
    ly_log_options(LY_LOSTORE);
    lys_module *mod = nullptr;
    if (ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &ds->ctx) != LY_SUCCESS) {
        report("cannot create the schema context");
        delete ds;
        return nullptr;
    }
    if (lys_parse_mem(ds->ctx, schema->module_text, LYS_IN_YANG, &mod) != LY_SUCCESS) {
        report("module " + std::string(schema->module_name) + ": " + ds->ly_error("(schema)"));
        mgmtd_ds_close(ds);
        return nullptr;
    }
    ds->mod = mod;
    ds->ns = text_hash(mod->ns);
    for (size_t i = 0; i < schema->num_tags; i++) {
        ds->tag_of_name[schema->tags[i].name] = schema->tags[i].tag;
        ds->name_of_tag[schema->tags[i].tag] = schema->tags[i].name;
    }
    if (!ds->check_tags()) {
        report(ds->error);
        mgmtd_ds_close(ds);
        return nullptr;
    }
    ds->rank_children(nullptr);
    return ds;
}

void mgmtd_ds_close(mgmtd_ds_t *ds)
{
    if (ds == nullptr) {
        return;
    }
    lyd_free_all(ds->running);
    ly_ctx_destroy(ds->ctx);
    delete ds;
}

int mgmtd_ds_subscribe(mgmtd_ds_t *ds, const mgmtd_ds_sub_t *subs, size_t num_subs,
                       void *host_ctx_p)
{
    ds->error.clear();
    std::vector<subscription> table;
    std::unordered_map<const lysc_node *, size_t> index;
    for (size_t i = 0; i < num_subs; i++) {
        const mgmtd_ds_sub_t &row = subs[i];
        const char *path = row.path != nullptr ? row.path : "";
        const lysc_node *schema = lys_find_path(ds->ctx, nullptr, path, 0);
        ly_err_clean(ds->ctx, nullptr);
        if (schema == nullptr || (schema->nodetype & (LYS_LIST | LYS_CONTAINER)) == 0 ||
            schema->module != ds->mod || row.cb == nullptr) {
            ds->error = format("subscription %zu: \"%s\" is not a list or container of %s, or "
                               "has no callback",
                               i, path, ds->mod->name);
            return MGMTD_DS_FAILED;
        }
        unsigned keys = 0;
        for (const lysc_node *p = schema; p != nullptr; p = p->parent) {
            if (p->nodetype == LYS_LIST) {
                const lysc_node *child = nullptr;
                while ((child = lys_getnext(child, p, nullptr, 0)) != nullptr) {
                    keys += is_key(child) ? 1 : 0;
                }
            }
        }
        if (row.num_keys > keys || index.count(schema) != 0) {
            ds->error = format("subscription %zu: \"%s\" has %u keys, not %u, or is subscribed "
                               "twice",
                               i, path, keys, static_cast<unsigned>(row.num_keys));
            return MGMTD_DS_FAILED;
        }
        subscription s;
        s.path = path;
        s.name = row.name != nullptr ? row.name : path;
        s.schema = schema;
        s.sub = row;
        index[schema] = table.size();
        table.push_back(std::move(s));
    }
    for (size_t i = 0; i < table.size(); i++) {
        const size_t most = mgmtd_ds::max_values(table[i].schema, index);
        if (most > MGMTD_DS_MAX_VALUES) {
            ds->error = format("subscription %zu: \"%s\" can hand over %zu values, more than "
                               "the %u of one call",
                               i, table[i].path.c_str(), most, MGMTD_DS_MAX_VALUES);
            return MGMTD_DS_FAILED;
        }
    }
    ds->subs = std::move(table);
    for (subscription &s : ds->subs) {
        s.sub.path = s.path.c_str();
        s.sub.name = s.name.c_str();
    }
    ds->sub_of_schema = std::move(index);
    ds->index_value_schemas();
    ds->host_ctx = host_ctx_p;
    return MGMTD_DS_OK;
}

void mgmtd_ds_set_trace(mgmtd_ds_t *ds, mgmtd_ds_trace_f trace, void *trace_ctx_p)
{
    ds->trace = trace;
    ds->trace_ctx = trace_ctx_p;
}

const char *mgmtd_ds_error(const mgmtd_ds_t *ds)
{
    return ds->error.c_str();
}

// A configuration file is a regular file holding a document. An empty or
// blank file is refused, at its last line, rather than read as the empty
// configuration: a file emptied by mistake must not commit as the deletion
// of everything (the empty configuration is an empty policy element or
// object). False with the message in error.
static bool check_config_file(const char *path, std::string *error)
{
    FILE *file = std::fopen(path, "r");
    if (file == nullptr) {
        *error = format("%s: cannot open: %s", path, std::strerror(errno));
        return false;
    }
    struct stat st;
    if (fstat(fileno(file), &st) != 0 || !S_ISREG(st.st_mode)) {
        *error = format("%s: %s", path,
                        S_ISDIR(st.st_mode) ? "is a directory, not a configuration file"
                                            : "not a regular file");
        std::fclose(file);
        return false;
    }
    long newlines = 0;
    int last = '\n';
    int c = EOF;
    while ((c = std::fgetc(file)) != EOF && std::isspace(c)) {
        newlines += c == '\n' ? 1 : 0;
        last = c;
    }
    std::fclose(file);
    if (c == EOF) {
        const long line = std::max(1L, newlines + (last != '\n' ? 1 : 0));
        *error = format("%s:%ld: no configuration: the file is %s", path, line,
                        st.st_size == 0 ? "empty" : "blank");
        return false;
    }
    return true;
}

int mgmtd_ds_load(mgmtd_ds_t *ds, const char *path, mgmtd_ds_tree_t **tree_pp)
{
    ds->error.clear();
    *tree_pp = nullptr;
    if (!check_config_file(path, &ds->error)) {
        return MGMTD_DS_INVALID;
    }
    const size_t len = std::strlen(path);
    const LYD_FORMAT fmt =
        len > 5 && std::strcmp(path + len - 5, ".json") == 0 ? LYD_JSON : LYD_XML;
    lyd_node *tree = nullptr;
    ly_err_clean(ds->ctx, nullptr);
    if (lyd_parse_data_path(ds->ctx, path, fmt, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
                            LYD_VALIDATE_NO_STATE, &tree) != LY_SUCCESS) {
        ds->error = ds->ly_error(path);
        lyd_free_all(tree);
        return MGMTD_DS_INVALID;
    }
    *tree_pp = new mgmtd_ds_tree{tree};
    return MGMTD_DS_OK;
}

void mgmtd_ds_tree_free(mgmtd_ds_tree_t *tree)
{
    if (tree != nullptr) {
        lyd_free_all(tree->root);
        delete tree;
    }
}

static long count_of(const lyd_node *root, const char *xpath)
{
    if (root == nullptr) {
        return 0;
    }
    ly_set *set = nullptr;
    if (lyd_find_xpath(root, xpath, &set) != LY_SUCCESS) {
        ly_err_clean(const_cast<ly_ctx *>(LYD_CTX(root)), nullptr);
        return -1;
    }
    const long n = static_cast<long>(set->count);
    ly_set_free(set, nullptr);
    return n;
}

long mgmtd_ds_tree_count(const mgmtd_ds_tree_t *tree, const char *xpath)
{
    return tree != nullptr ? count_of(tree->root, xpath) : 0;
}

static long foreach_of(const lyd_node *root, const char *xpath,
                       void (*fn)(void *fn_ctx_p, const char *value), void *fn_ctx_p)
{
    if (root == nullptr) {
        return 0;
    }
    ly_set *set = nullptr;
    if (lyd_find_xpath(root, xpath, &set) != LY_SUCCESS) {
        ly_err_clean(const_cast<ly_ctx *>(LYD_CTX(root)), nullptr);
        return -1;
    }
    for (uint32_t i = 0; i < set->count; i++) {
        if (set->dnodes[i]->schema != nullptr && is_term(set->dnodes[i]->schema)) {
            fn(fn_ctx_p, lyd_get_value(set->dnodes[i]));
        }
    }
    const long n = static_cast<long>(set->count);
    ly_set_free(set, nullptr);
    return n;
}

long mgmtd_ds_tree_foreach(const mgmtd_ds_tree_t *tree, const char *xpath,
                           void (*fn)(void *fn_ctx_p, const char *value), void *fn_ctx_p)
{
    return tree != nullptr ? foreach_of(tree->root, xpath, fn, fn_ctx_p) : 0;
}

int mgmtd_ds_commit(mgmtd_ds_t *ds, mgmtd_ds_tree_t *tree)
{
    lyd_node *candidate = tree != nullptr ? tree->root : nullptr;
    delete tree;
    return ds->commit(candidate);
}

int mgmtd_ds_commit_file(mgmtd_ds_t *ds, const char *path)
{
    mgmtd_ds_tree_t *tree = nullptr;
    const int status = mgmtd_ds_load(ds, path, &tree);
    if (status != MGMTD_DS_OK) {
        ds->delivered = 0;
        return status;
    }
    return mgmtd_ds_commit(ds, tree);
}

uint32_t mgmtd_ds_delivered(const mgmtd_ds_t *ds)
{
    return ds->delivered;
}

char *mgmtd_ds_running_text(const mgmtd_ds_t *ds)
{
    char *text = nullptr;
    if (ds->running == nullptr) {
        return strdup("");
    }
    if (lyd_print_mem(&text, ds->running, LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
        return nullptr;
    }
    return text != nullptr ? text : strdup("");
}

long mgmtd_ds_running_count(const mgmtd_ds_t *ds, const char *xpath)
{
    return count_of(ds->running, xpath);
}

long mgmtd_ds_running_foreach(const mgmtd_ds_t *ds, const char *xpath,
                              void (*fn)(void *fn_ctx_p, const char *value), void *fn_ctx_p)
{
    return foreach_of(ds->running, xpath, fn, fn_ctx_p);
}

const char *mgmtd_ds_tag_name(const mgmtd_ds_t *ds, uint32_t tag)
{
    auto it = ds->name_of_tag.find(tag);
    return it != ds->name_of_tag.end() ? it->second.c_str() : nullptr;
}

}  // extern "C"

#pragma GCC visibility pop
