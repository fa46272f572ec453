/*
 * Client library of the management daemon (zen-mgmtd), libzenmaapi.
 *
 * Two kinds of connection, each on a TCP socket that the caller opens
 * (socket(AF_INET, SOCK_STREAM, 0)) and closes (close()):
 *
 *  - management connections (maapi_connect): user sessions, transactions
 *    on the candidate, running or operational database, candidate commit,
 *    database locks;
 *  - data connections (cdb_connect): one read session at a time on the
 *    running database (a consistent snapshot taken at its start) or on the
 *    operational database (live; the only one cdb_delete may change).
 *
 * Every call returns MGMTD_OK (0) or a non-negative result on success, and
 * MGMTD_ERR (-1) on failure with the framework errno (mgmtd_errno) set to
 * one of the MGMTD_ERR_* codes below and the daemon's message in
 * mgmtd_lasterr(). Both are per thread, so threads that each use their own
 * sockets do not see each other's errors. A call waits at most the reply
 * timeout (mgmtd_set_timeout_ms, 30 s unless changed) for the daemon's
 * answer; after a timeout or an I/O error the socket must be closed.
 *
 * Paths name data nodes from the root ("/policy/from-qarmon/lists") or,
 * on a data connection, from the current directory (cdb_pushd). A step is
 * a node name, optionally prefixed with its module's name or prefix
 * ("zentrak-policy:data-policy"), and a list step may select one entry by
 * its 0-based position ("data-policy[2]") or by its keys
 * ("data-policy{pol1}", several keys separated by spaces). Calls that take
 * a path take it as a printf format with its arguments.
 *
 * docs/mgmtd-daemon.md describes the daemon, the wire protocol and the
 * load flags.
 */
#ifndef ZEN_MAAPI_H
#define ZEN_MAAPI_H

#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MGMTD_OK 0
#define MGMTD_ERR (-1)

/* The daemon's default address: 127.0.0.1, this port. */
#define MGMTD_PORT 4565

/*
 * Framework error codes (mgmtd_errno): code, name, text. The in-use error,
 * 10, is what a session gets when another session holds a lock on the
 * database it writes; retrying later is the remedy.
 */
#define MGMTD_ERRORS(X)                                                                   \
    X(0, MGMTD_ERR_NONE, "no error")                                                      \
    X(1, MGMTD_ERR_NOEXISTS, "item does not exist")                                       \
    X(2, MGMTD_ERR_BADPATH, "bad path")                                                   \
    X(3, MGMTD_ERR_ACCESS_DENIED, "access denied")                                        \
    X(4, MGMTD_ERR_NOT_WRITABLE, "database is not writable here")                         \
    X(5, MGMTD_ERR_BADTYPE, "bad value")                                                  \
    X(6, MGMTD_ERR_XML, "malformed configuration text")                                   \
    X(7, MGMTD_ERR_VALIDATION, "validation failed")                                       \
    X(8, MGMTD_ERR_NOSESSION, "no user session")                                          \
    X(9, MGMTD_ERR_BADSTATE, "call out of order")                                         \
    X(10, MGMTD_ERR_INUSE, "database is in use (locked by another session)")              \
    X(11, MGMTD_ERR_PROTOUSAGE, "bad protocol usage")                                     \
    X(12, MGMTD_ERR_NOTRANS, "no such transaction")                                       \
    X(13, MGMTD_ERR_MALLOC, "out of memory")                                              \
    X(14, MGMTD_ERR_OS, "operating system error")                                         \
    X(15, MGMTD_ERR_PROTO, "protocol error (framing or version)")                         \
    X(16, MGMTD_ERR_TIMEOUT, "no reply from the management daemon in time")               \
    X(17, MGMTD_ERR_TOOBIG, "value or message too large")                                 \
    X(18, MGMTD_ERR_INTERNAL, "internal error in the management daemon")

enum mgmtd_errcode {
#define MGMTD_ERRCODE_ENUM(code, name, text) name = code,
    MGMTD_ERRORS(MGMTD_ERRCODE_ENUM)
#undef MGMTD_ERRCODE_ENUM
};

/* The framework errno: the code of this thread's last failed call. */
extern __thread int mgmtd_errno;

/* The daemon's (or the library's) message for this thread's last failure. */
const char *mgmtd_lasterr(void);
/* The fixed text of an error code ("unknown error" for others). */
const char *mgmtd_strerror(int code);

/* Reply timeout of every call, process-wide (milliseconds, > 0). */
void mgmtd_set_timeout_ms(int timeout_ms);

/* Databases. */
enum mgmtd_dbname {
    MGMTD_NO_DB = 0,
    MGMTD_CANDIDATE = 1,
    MGMTD_RUNNING = 2,
    MGMTD_STARTUP = 3,   /* not kept by this daemon */
    MGMTD_OPERATIONAL = 4,
};

/* Transaction modes. */
enum maapi_rw {
    MAAPI_READ = 1,
    MAAPI_READ_WRITE = 2,
};

/*
 * Load flags of maapi_load_config and maapi_load_config_cmds. XML is the
 * only text format and must be given. Other bits are refused.
 *   MAAPI_CONFIG_XML      the text is XML; a root element `config` in the
 *                         MGMTD_CONFIG_NS namespace is an envelope whose
 *                         children are the data;
 *   MAAPI_CONFIG_OPER     the text is operational (state) data; required
 *                         in operational transactions and refused in the
 *                         others (configuration must not carry state);
 *   MAAPI_CONFIG_REPLACE  every top-level node of the text replaces the
 *                         database's node of the same name with its whole
 *                         subtree (without it the text is merged in);
 *   MAAPI_CONFIG_STRICT   an element the loaded modules do not know is an
 *                         error (without it such elements are skipped).
 * The policy library loads its configuration with 0x4401 (XML, replace,
 * strict) and its show data with 65 (XML, operational, merged).
 */
#define MAAPI_CONFIG_XML 0x0001
#define MAAPI_CONFIG_OPER 0x0040
#define MAAPI_CONFIG_REPLACE 0x0400
#define MAAPI_CONFIG_STRICT 0x4000
#define MAAPI_CONFIG_ALL_FLAGS \
    (MAAPI_CONFIG_XML | MAAPI_CONFIG_OPER | MAAPI_CONFIG_REPLACE | MAAPI_CONFIG_STRICT)

/* Namespace of the `config` envelope element. */
#define MGMTD_CONFIG_NS "urn:zen:params:xml:ns:mgmtd:config"

/* ---- management connections ---- */

/* Connects sock to the daemon at srv and opens a management connection. */
int maapi_connect(int sock, const struct sockaddr *srv, socklen_t srv_len);

/*
 * Starts the connection's user session (one per connection) for a user in
 * a context ("system", "cli", ...). groups may be null when num_groups is
 * 0; src_addr (text, may be null) and src_port say where the user is.
 */
int maapi_start_user_session3(int sock, const char *user, const char *context,
                              const char *const *groups, int num_groups, const char *src_addr,
                              int src_port);
/* Ends the user session: open transactions are discarded, its locks released. */
int maapi_end_user_session(int sock);

/*
 * Starts a transaction of the connection's user session (usid 0, or the
 * session id) on a database: returns the transaction handle (> 0). flags
 * must be 0. A read-write transaction collects loads and deletes that
 * change nothing until maapi_apply_trans.
 */
int maapi_start_trans_flags2(int sock, enum mgmtd_dbname db, enum maapi_rw rw, int usid,
                             int flags);

/* Loads a file's text (read here, by the caller's process) into a transaction. */
int maapi_load_config(int sock, int thandle, int flags, const char *filename);
/* Loads text into a transaction. A text that does not parse changes nothing. */
int maapi_load_config_cmds(int sock, int thandle, int flags, const char *text);

/* Deletes the node(s) a path names from a transaction (MGMTD_ERR_NOEXISTS if none). */
int maapi_delete(int sock, int thandle, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/*
 * Validates the transaction's changes on the current content of its
 * database and writes them there, all or nothing. MGMTD_ERR_INUSE when
 * another session locks that database. keep_open: the transaction stays
 * open (empty) for more loads, applies or a commit; otherwise it is finished.
 */
int maapi_apply_trans(int sock, int thandle, int keep_open);

/*
 * Validates the candidate database and makes it the running one, persisted
 * before it is answered. MGMTD_ERR_INUSE when another session locks the
 * running or the candidate database.
 */
int maapi_candidate_commit(int sock);

/* Ends a transaction; what was not applied is discarded. */
int maapi_finish_trans(int sock, int thandle);

/*
 * Locks a database (candidate or running) for the connection's user
 * session: other sessions' writes to it fail with MGMTD_ERR_INUSE until
 * maapi_unlock or the end of the session. MGMTD_ERR_INUSE when another
 * session holds the lock.
 */
int maapi_lock(int sock, enum mgmtd_dbname db);
int maapi_unlock(int sock, enum mgmtd_dbname db);

/* ---- data connections ---- */

enum cdb_sock_type {
    CDB_READ_SOCKET = 0,
    CDB_SUBSCRIPTION_SOCKET = 1, /* not served by this daemon */
    CDB_DATA_SOCKET = 2,
};

/* Connects sock to the daemon at srv and opens a data connection. */
int cdb_connect(int sock, enum cdb_sock_type type, const struct sockaddr *srv,
                socklen_t srv_len);
/* Starts a session on the running or operational database; flags must be 0. */
int cdb_start_session2(int sock, enum mgmtd_dbname db, int flags);
int cdb_end_session(int sock);

/* Number of entries of a list (or 0/1 for another node); -1 on error. */
int cdb_num_instances(int sock, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/*
 * Copies a leaf's value text and its terminator into buf (size n):
 * MGMTD_ERR_NOEXISTS when the leaf is absent, MGMTD_ERR_TOOBIG when it
 * does not fit (buf is then left empty).
 */
int cdb_get_str(int sock, char *buf, int n, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Makes an existing node the current directory, remembering the previous one. */
int cdb_pushd(int sock, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/* Returns to the directory before the last cdb_pushd. */
int cdb_popd(int sock);
/* Deletes the node(s) a path names (operational sessions only). */
int cdb_delete(int sock, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/* Text formats of cdb_get_tree. */
enum cdb_tree_format {
    CDB_TREE_XML = 1,
    CDB_TREE_JSON = 2,
};

/*
 * The node(s) a path names with everything below them and the chain of
 * their parents, as one document in a format (JSON: the modules' JSON
 * encoding). *text is malloc'ed (free it) and "" when nothing is there.
 */
int cdb_get_tree(int sock, enum cdb_tree_format format, char **text, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

/* ---- schema ---- */

enum mgmtd_cs_kind {
    MGMTD_CS_CONTAINER = 1,
    MGMTD_CS_LIST = 2,
    MGMTD_CS_LEAF = 3,
    MGMTD_CS_LEAF_LIST = 4,
};

/* A schema node of the daemon's loaded modules; owned by the library. */
typedef struct mgmtd_cs_node {
    const char *path;    /* the path it was found under */
    const char *name;    /* node name */
    const char *module;  /* module name */
    int kind;            /* enum mgmtd_cs_kind */
    int config;          /* 1 configuration, 0 state data */
} mgmtd_cs_node_t;

/*
 * The schema node a path names (predicates are ignored), from start (null:
 * the root); null when the loaded modules have no such node. The daemon is
 * asked on a connection of the library's own, to the address of the last
 * maapi_connect or cdb_connect of the process (127.0.0.1:MGMTD_PORT before
 * any), and its answers are kept until mgmtd_cs_reset.
 */
const mgmtd_cs_node_t *mgmtd_cs_node_cd(const mgmtd_cs_node_t *start, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* Closes the schema connection and forgets the answers (nodes become invalid). */
void mgmtd_cs_reset(void);

/* ---- daemon state ---- */

typedef struct mgmtd_status {
    int connections;    /* open connections, the asking one included */
    int user_sessions;  /* open user sessions */
    int data_sessions;  /* open data sessions */
    int transactions;   /* open transactions */
    int locks;          /* databases locked */
    long commits;       /* candidate commits done since start */
} mgmtd_status_t;

/* The daemon's counters, on a management or data connection. */
int mgmtd_get_status(int sock, mgmtd_status_t *status);

#ifdef __cplusplus
}
#endif

#endif /* ZEN_MAAPI_H */
