/*
 * Configuration datastore and commit engine of the management daemon.
 *
 * The datastore keeps the running configuration of one YANG module as a
 * data tree. A host subscribes configuration change callbacks to list
 * entries and containers of the module (a subscription table of schema
 * path, callback, key depth and extra argument) and then commits
 * configuration files. A commit parses and validates the file strictly,
 * compares the new tree with the running one and calls, for every changed
 * node a subscription covers, that subscription's callback once:
 *
 *   MOP_DELETED   the node went away; no values, and nothing is delivered
 *                 for the nodes below it.
 *   MOP_CREATED   the node is new; its values are all its leaves (default
 *                 values included) and containers as they now are.
 *   MOP_MODIFIED  the node stays and some of its values changed (all its
 *                 non-key leaves going away included); its values are the
 *                 leaves that changed (the new value, or C_NOEXISTS for a
 *                 leaf that went away), or all its values for a
 *                 MGMTD_DS_SUB_WHOLE subscription (none when it has none
 *                 left).
 *
 * Keys: the key leaves of the node's own list and of the lists above it,
 * outermost first, of which the first num_keys are handed over. Values:
 * the node's leaves in schema order, without its keys, without lists and
 * without nodes that have a subscription of their own; a container opens
 * with C_XMLBEGIN and closes with C_XMLEND under the container's tag, and
 * a leaf-list is one C_LIST of its entries (C_NOEXISTS once it is empty).
 * In a modification, at every container level, what went away (leaves,
 * emptied leaf-lists, containers with nothing set inside) comes before
 * what was set, each in schema order: a reader that makes one condition of
 * two leaves sees the old leaf removed before the new one is set, and
 * keeps the condition.
 * Deletions are delivered first, then creations and modifications; within
 * each pass nodes come in schema order (entries of one list: those already
 * running in their order, then new ones in file order) and a created node
 * comes before the nodes below it.
 *
 * A callback that returns non-zero stops the commit. The running tree then
 * holds exactly the changes whose callbacks returned 0, so the next commit
 * delivers the failed node's change again. Nothing is changed, and nothing
 * delivered, when the file does not parse or validate.
 */
#ifndef ZEN_MGMTD_DS_H
#define ZEN_MGMTD_DS_H

#include <stddef.h>
#include <stdint.h>

#include <zen/mgmtd.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mgmtd_ds mgmtd_ds_t;
typedef struct mgmtd_ds_tree mgmtd_ds_tree_t;

/* Results of the datastore operations. */
enum mgmtd_ds_status {
    MGMTD_DS_OK = 0,
    MGMTD_DS_INVALID = 1,  /* the input does not parse or validate; nothing changed */
    MGMTD_DS_STOPPED = 2,  /* a callback returned non-zero; the commit stopped there */
    MGMTD_DS_FAILED = 3,   /* the datastore itself failed (schema, memory, table) */
};

/*
 * A configuration change callback as the datastore calls it: the host's
 * management context, the host context given at subscription, the
 * operation, the keys, the values and the subscription's extra argument.
 * The value count has the width the policy library's callbacks take.
 */
typedef int32_t (*mgmtd_ds_cb_f)(t_vmgmtd_context *vmgmtd_ctx_p, void *host_ctx_p,
                                 mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                 uint16_t num_values, mgmtd_tag_value_t *val_p, int32_t arg);

/* The most values one call hands over (the range of its value count). */
#define MGMTD_DS_MAX_VALUES 65535u

/*
 * Subscription flag: a modification hands over all the node's values, as a
 * creation does, instead of the changed ones only (for callbacks that
 * rebuild the node from what they are given).
 */
#define MGMTD_DS_SUB_WHOLE 0x1u

/* One row of a subscription table. */
typedef struct mgmtd_ds_sub {
    const char *path;   /* schema path of a list or container, "/zen-policy:policy/..." */
    mgmtd_ds_cb_f cb;
    uint8_t num_keys;   /* keys handed over, outermost first */
    int32_t arg;        /* extra argument handed to every call */
    const char *name;   /* short name for messages and traces */
    uint32_t flags;     /* MGMTD_DS_SUB_* */
} mgmtd_ds_sub_t;

/* Schema tag of a leaf or container name. */
typedef struct mgmtd_ds_tag {
    const char *name;
    uint32_t tag;
} mgmtd_ds_tag_t;

/* A YANG module with its schema bindings: its text and its tag table. */
typedef struct mgmtd_ds_schema {
    const char *module_name;
    const char *module_text;
    const mgmtd_ds_tag_t *tags;
    size_t num_tags;
} mgmtd_ds_schema_t;

/* The policy configuration module (zen-policy) with its tags. */
const mgmtd_ds_schema_t *mgmtd_ds_policy_schema(void);

/*
 * Called after every callback with the data path of the node, the
 * subscription, what was handed over and the callback's status.
 */
typedef void (*mgmtd_ds_trace_f)(void *trace_ctx_p, const char *node_path,
                                 const mgmtd_ds_sub_t *sub, mgmtd_iter_op oper, uint8_t num_keys,
                                 const mgmtd_value_t *key_p, uint32_t num_values,
                                 const mgmtd_tag_value_t *val_p, int32_t status);

/* A datastore with an empty running configuration; null on failure (message in err). */
mgmtd_ds_t *mgmtd_ds_open(const mgmtd_ds_schema_t *schema, char *err, size_t err_size);
void mgmtd_ds_close(mgmtd_ds_t *ds);

/*
 * Installs the subscription table (copied) and the host context handed to
 * every callback. Every path must name a list or container of the module
 * with at least num_keys keys, and every value node below it must have a
 * tag. A node's values are bounded by its schema (one per leaf and
 * leaf-list, two brackets per container and what the container holds), so
 * a subscription whose node could hand over more than MGMTD_DS_MAX_VALUES
 * values is refused here, before any commit could reach it. Replaces an
 * earlier table; a refused table (MGMTD_DS_FAILED) leaves the earlier one
 * in place.
 */
int mgmtd_ds_subscribe(mgmtd_ds_t *ds, const mgmtd_ds_sub_t *subs, size_t num_subs,
                       void *host_ctx_p);
void mgmtd_ds_set_trace(mgmtd_ds_t *ds, mgmtd_ds_trace_f trace, void *trace_ctx_p);

/* The message of the last failed operation ("" after a success). */
const char *mgmtd_ds_error(const mgmtd_ds_t *ds);

/*
 * Parses and validates a configuration file (XML, or JSON when the name
 * ends in ".json") into a candidate tree. MGMTD_DS_INVALID with a message
 * naming the file and line, or the data path, of the first error. The file
 * must be a regular file; an empty or blank one is refused (the empty
 * configuration is an empty policy element or object).
 */
int mgmtd_ds_load(mgmtd_ds_t *ds, const char *path, mgmtd_ds_tree_t **tree_pp);
void mgmtd_ds_tree_free(mgmtd_ds_tree_t *tree);

/* Number of data nodes of a tree that an XPath expression selects (-1 on error). */
long mgmtd_ds_tree_count(const mgmtd_ds_tree_t *tree, const char *xpath);

/* Calls fn with the text of every leaf an XPath expression selects; -1 on error. */
long mgmtd_ds_tree_foreach(const mgmtd_ds_tree_t *tree, const char *xpath,
                           void (*fn)(void *fn_ctx_p, const char *value), void *fn_ctx_p);

/* Commits a candidate tree (always taken over, even on failure). */
int mgmtd_ds_commit(mgmtd_ds_t *ds, mgmtd_ds_tree_t *tree);
/* Load and commit in one step. */
int mgmtd_ds_commit_file(mgmtd_ds_t *ds, const char *path);

/* Callbacks delivered by the last commit. */
uint32_t mgmtd_ds_delivered(const mgmtd_ds_t *ds);

/* The running configuration as XML text (malloc'ed; "" when empty), null on failure. */
char *mgmtd_ds_running_text(const mgmtd_ds_t *ds);
long mgmtd_ds_running_count(const mgmtd_ds_t *ds, const char *xpath);
/* As mgmtd_ds_tree_foreach, over the running configuration. */
long mgmtd_ds_running_foreach(const mgmtd_ds_t *ds, const char *xpath,
                              void (*fn)(void *fn_ctx_p, const char *value), void *fn_ctx_p);

/* Name of a tag of the datastore's schema, null when unknown. */
const char *mgmtd_ds_tag_name(const mgmtd_ds_t *ds, uint32_t tag);

/* Value kind name ("C_BUF") and value text ("10.0.0.1", "[100:1 100:2]"). */
const char *mgmtd_value_type_name(enum mgmtd_vtype type);

/* "create", "delete", "modify", or "other". */
const char *mgmtd_iter_op_name(mgmtd_iter_op oper);
char *mgmtd_value_print(const mgmtd_value_t *value, char *buf, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* ZEN_MGMTD_DS_H */
