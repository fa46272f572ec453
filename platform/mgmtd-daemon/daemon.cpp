// The management daemon's requests.
#include "daemon.hpp"

#include <zen/maapi.h>

#include <algorithm>
#include <cstdlib>

namespace zen::mgmtd {

namespace {

failure fail(int code, std::string message)
{
    return failure{code, std::move(message)};
}

// Every field of the request was read and nothing more came.
failure args_end(const wire::reader &r)
{
    return r.done() ? failure{} : fail(MGMTD_ERR_PROTO, "malformed request fields");
}

failure need_user_session(const connection_state &c)
{
    return c.user_session ? failure{} : fail(MGMTD_ERR_NOSESSION, "no user session");
}

failure need_data_session(const connection_state &c)
{
    return c.data_session ? failure{} : fail(MGMTD_ERR_NOSESSION, "no data session");
}

// A request whose fields are all read, on a connection with a user (data)
// session.
failure user_request(const wire::reader &r, const connection_state &c)
{
    failure f = args_end(r);
    return f ? f : need_user_session(c);
}

failure data_request(const wire::reader &r, const connection_state &c)
{
    failure f = args_end(r);
    return f ? f : need_data_session(c);
}

// The nodes with their subtrees and their parents, merged into one
// forest and printed.
failure print_with_parents(const std::vector<lyd_node *> &nodes, LYD_FORMAT format, std::string &out)
{
    tree forest;
    for (const lyd_node *node : nodes) {
        lyd_node *dup = nullptr;
        if (lyd_dup_single(node, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS, &dup) != LY_SUCCESS) {
            return fail(MGMTD_ERR_MALLOC, "cannot copy the tree");
        }
        while (dup->parent != nullptr) {
            dup = lyd_parent(dup);
        }
        const tree copy(dup);
        if (lyd_merge_siblings(forest.slot(), copy.first(), 0) != LY_SUCCESS) {
            return fail(MGMTD_ERR_INTERNAL, "cannot merge the tree");
        }
    }
    char *text = nullptr;
    if (forest.first() != nullptr &&
        lyd_print_mem(&text, forest.first(), format, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
        return fail(MGMTD_ERR_INTERNAL, "cannot print the tree");
    }
    out = text != nullptr ? text : "";
    std::free(text);
    return {};
}

int schema_kind(const lysc_node *schema)
{
    switch (schema->nodetype) {
    case LYS_LIST:
        return MGMTD_CS_LIST;
    case LYS_LEAF:
        return MGMTD_CS_LEAF;
    case LYS_LEAFLIST:
        return MGMTD_CS_LEAF_LIST;
    default:
        return MGMTD_CS_CONTAINER;
    }
}

}  // namespace

const daemon::op_entry daemon::kOps[] = {
    {MGMTD_OP_HELLO, 0, &daemon::hello},
    {MGMTD_OP_STATUS, 0, &daemon::status},
    {MGMTD_OP_SCHEMA_CD, 0, &daemon::schema_cd},
    {MGMTD_OP_USESS_START, MGMTD_CONN_MAAPI, &daemon::usess_start},
    {MGMTD_OP_USESS_END, MGMTD_CONN_MAAPI, &daemon::usess_end},
    {MGMTD_OP_TRANS_START, MGMTD_CONN_MAAPI, &daemon::trans_start},
    {MGMTD_OP_TRANS_LOAD, MGMTD_CONN_MAAPI, &daemon::trans_load},
    {MGMTD_OP_TRANS_DELETE, MGMTD_CONN_MAAPI, &daemon::trans_delete},
    {MGMTD_OP_TRANS_APPLY, MGMTD_CONN_MAAPI, &daemon::trans_apply},
    {MGMTD_OP_TRANS_FINISH, MGMTD_CONN_MAAPI, &daemon::trans_finish},
    {MGMTD_OP_COMMIT, MGMTD_CONN_MAAPI, &daemon::commit},
    {MGMTD_OP_LOCK, MGMTD_CONN_MAAPI, &daemon::lock},
    {MGMTD_OP_UNLOCK, MGMTD_CONN_MAAPI, &daemon::unlock},
    {MGMTD_OP_CDB_START, MGMTD_CONN_CDB, &daemon::cdb_start},
    {MGMTD_OP_CDB_END, MGMTD_CONN_CDB, &daemon::cdb_end},
    {MGMTD_OP_CDB_NUM, MGMTD_CONN_CDB, &daemon::cdb_num},
    {MGMTD_OP_CDB_GET, MGMTD_CONN_CDB, &daemon::cdb_get},
    {MGMTD_OP_CDB_PUSHD, MGMTD_CONN_CDB, &daemon::cdb_pushd},
    {MGMTD_OP_CDB_POPD, MGMTD_CONN_CDB, &daemon::cdb_popd},
    {MGMTD_OP_CDB_DELETE, MGMTD_CONN_CDB, &daemon::cdb_delete},
    {MGMTD_OP_CDB_GET_TREE, MGMTD_CONN_CDB, &daemon::cdb_get_tree},
};

/* ---- connections ---- */

void daemon::attach(connection_state &conn)
{
    std::lock_guard<std::mutex> lock(mutex_);
    conn.id = next_id_++;
    conns_.insert(&conn);
}

void daemon::detach(connection_state &conn)
{
    std::lock_guard<std::mutex> lock(mutex_);
    end_user_session(conn);
    conn.data_session = false;
    conn.view.reset();
    conns_.erase(&conn);
}

std::string daemon::handle(connection_state &conn, const wire::frame &request, bool &close)
{
    wire::reader r(request.payload);
    wire::writer results;
    failure f;
    const auto entry = std::find_if(std::begin(kOps), std::end(kOps),
                                    [&](const op_entry &e) { return e.op == request.op; });
    if (entry == std::end(kOps)) {
        f = fail(MGMTD_ERR_PROTO, "unknown operation " + std::to_string(request.op));
    } else if (request.op != MGMTD_OP_HELLO && conn.kind == 0) {
        f = fail(MGMTD_ERR_PROTO, "the connection starts with a hello");
    } else if (entry->kind != 0 && entry->kind != conn.kind) {
        f = fail(MGMTD_ERR_PROTOUSAGE, "operation not served on this kind of connection");
    } else {
        std::lock_guard<std::mutex> lock(mutex_);
        f = (this->*entry->fn)(conn, r, results);
    }
    close = f.code == MGMTD_ERR_PROTO;
    wire::writer answer;
    answer.i32(f.code).str(f.message);
    std::string payload = answer.payload();
    if (!f) {
        payload += results.payload();
    }
    return payload;
}

failure daemon::hello(connection_state &c, wire::reader &r, wire::writer &w)
{
    const int32_t kind = r.i32();
    r.str();   // the client's name, for nothing but traces
    if (failure f = args_end(r)) {
        return f;
    }
    if (c.kind != 0) {
        return fail(MGMTD_ERR_BADSTATE, "hello already done");
    }
    if (kind != MGMTD_CONN_MAAPI && kind != MGMTD_CONN_CDB) {
        return fail(MGMTD_ERR_PROTO, "unknown connection kind " + std::to_string(kind));
    }
    c.kind = kind;
    w.i32(MGMTD_WIRE_VERSION);
    return {};
}

failure daemon::status(connection_state &, wire::reader &r, wire::writer &w)
{
    if (failure f = args_end(r)) {
        return f;
    }
    int user_sessions = 0;
    int data_sessions = 0;
    int transactions = 0;
    for (const connection_state *c : conns_) {
        user_sessions += c->user_session ? 1 : 0;
        data_sessions += c->data_session ? 1 : 0;
        transactions += static_cast<int>(c->transactions.size());
    }
    w.i32(static_cast<int32_t>(conns_.size())).i32(user_sessions).i32(data_sessions);
    w.i32(transactions).i32(store_.locks()).i64(store_.commits());
    return {};
}

failure daemon::schema_cd(connection_state &, wire::reader &r, wire::writer &w)
{
    const std::string path = r.str();
    if (failure f = args_end(r)) {
        return f;
    }
    const lysc_node *schema = store_.schema_node(path);
    if (schema == nullptr) {
        return fail(MGMTD_ERR_BADPATH, "no schema node " + path);
    }
    w.str(schema->name).str(schema->module->name).i32(schema_kind(schema));
    w.i32((schema->flags & LYS_CONFIG_W) != 0 ? 1 : 0);
    return {};
}

/* ---- user sessions ---- */

failure daemon::usess_start(connection_state &c, wire::reader &r, wire::writer &w)
{
    std::string user = r.str();
    std::string context = r.str();
    const int32_t num_groups = r.i32();
    std::vector<std::string> groups;
    for (int32_t i = 0; r.ok() && i < num_groups; i++) {
        groups.push_back(r.str());
    }
    std::string src_addr = r.str();
    const int32_t src_port = r.i32();
    if (failure f = args_end(r)) {
        return f;
    }
    if (c.user_session) {
        return fail(MGMTD_ERR_BADSTATE, "the connection has a user session");
    }
    if (user.empty()) {
        return fail(MGMTD_ERR_ACCESS_DENIED, "no user name");
    }
    c.user_session = true;
    c.user = std::move(user);
    c.context = std::move(context);
    c.groups = std::move(groups);
    c.src_addr = std::move(src_addr);
    c.src_port = src_port;
    w.i32(static_cast<int32_t>(c.id));
    return {};
}

void daemon::end_user_session(connection_state &c)
{
    c.transactions.clear();
    store_.unlock_all(c.id);
    c.user_session = false;
}

failure daemon::usess_end(connection_state &c, wire::reader &r, wire::writer &)
{
    if (failure f = user_request(r, c)) {
        return f;
    }
    end_user_session(c);
    return {};
}

/* ---- transactions ---- */

failure daemon::trans_start(connection_state &c, wire::reader &r, wire::writer &w)
{
    const int32_t db = r.i32();
    const int32_t rw = r.i32();
    const int32_t usid = r.i32();
    const int32_t flags = r.i32();
    if (failure f = user_request(r, c)) {
        return f;
    }
    if (usid != 0 && static_cast<uint64_t>(usid) != c.id) {
        return fail(MGMTD_ERR_NOSESSION, "not this connection's user session");
    }
    if (flags != 0) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no transaction flags are defined");
    }
    if (db != MGMTD_CANDIDATE && db != MGMTD_RUNNING && db != MGMTD_OPERATIONAL) {
        return fail(MGMTD_ERR_PROTOUSAGE, "database " + std::to_string(db) + " is not kept");
    }
    if (rw != MAAPI_READ && rw != MAAPI_READ_WRITE) {
        return fail(MGMTD_ERR_PROTOUSAGE, "bad transaction mode");
    }
    if (db == MGMTD_RUNNING && rw == MAAPI_READ_WRITE) {
        return fail(MGMTD_ERR_NOT_WRITABLE, "the running database changes by candidate commit only");
    }
    const int handle = c.next_handle++;
    c.transactions[handle] = transaction{db, rw, {}};
    w.i32(handle);
    return {};
}

failure daemon::writable_transaction(connection_state &c, int handle, transaction *&out)
{
    const auto it = c.transactions.find(handle);
    if (it == c.transactions.end()) {
        return fail(MGMTD_ERR_NOTRANS, "no transaction " + std::to_string(handle));
    }
    if (it->second.rw != MAAPI_READ_WRITE) {
        return fail(MGMTD_ERR_NOT_WRITABLE, "read-only transaction");
    }
    out = &it->second;
    return {};
}

failure daemon::trans_load(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t handle = r.i32();
    const int32_t flags = r.i32();
    const std::string text = r.str();
    if (failure f = args_end(r)) {
        return f;
    }
    transaction *t = nullptr;
    if (failure f = writable_transaction(c, handle, t)) {
        return f;
    }
    change ch;
    if (failure f = store_.parse(t->db, flags, text, ch.data)) {
        return f;
    }
    ch.flags = flags;
    t->changes.push_back(std::move(ch));
    return {};
}

failure daemon::trans_delete(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t handle = r.i32();
    std::string path = r.str();
    if (failure f = args_end(r)) {
        return f;
    }
    transaction *t = nullptr;
    if (failure f = writable_transaction(c, handle, t)) {
        return f;
    }
    if (failure f = store_.check_path(path)) {
        return f;
    }
    change ch;
    ch.path = std::move(path);
    t->changes.push_back(std::move(ch));
    return {};
}

failure daemon::trans_apply(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t handle = r.i32();
    const int32_t keep_open = r.i32();
    if (failure f = args_end(r)) {
        return f;
    }
    transaction *t = nullptr;
    if (failure f = writable_transaction(c, handle, t)) {
        return f;
    }
    // A refused apply keeps the changes, so that it can be tried again.
    if (failure f = store_.apply(t->db, t->changes, c.id)) {
        return f;
    }
    t->changes.clear();
    if (keep_open == 0) {
        c.transactions.erase(handle);
    }
    return {};
}

failure daemon::trans_finish(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t handle = r.i32();
    if (failure f = args_end(r)) {
        return f;
    }
    if (c.transactions.erase(handle) == 0) {
        return fail(MGMTD_ERR_NOTRANS, "no transaction " + std::to_string(handle));
    }
    return {};
}

failure daemon::commit(connection_state &c, wire::reader &r, wire::writer &)
{
    if (failure f = user_request(r, c)) {
        return f;
    }
    return store_.commit(c.id);
}

failure daemon::lock(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t db = r.i32();
    if (failure f = user_request(r, c)) {
        return f;
    }
    return store_.lock(db, c.id);
}

failure daemon::unlock(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t db = r.i32();
    if (failure f = user_request(r, c)) {
        return f;
    }
    return store_.unlock(db, c.id);
}

/* ---- data sessions ---- */

failure daemon::cdb_start(connection_state &c, wire::reader &r, wire::writer &)
{
    const int32_t db = r.i32();
    const int32_t flags = r.i32();
    if (failure f = args_end(r)) {
        return f;
    }
    if (c.data_session) {
        return fail(MGMTD_ERR_BADSTATE, "the connection has a data session");
    }
    if (flags != 0) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no session flags are defined");
    }
    if (db != MGMTD_RUNNING && db != MGMTD_OPERATIONAL) {
        return fail(MGMTD_ERR_PROTOUSAGE, "data sessions read the running or operational database");
    }
    c.data_session = true;
    c.data_db = db;
    c.view = db == MGMTD_RUNNING ? store_.running() : nullptr;
    c.cwd.assign(1, '/');  // not = "/": GCC 12 at -O3 warns falsely (-Wrestrict) on that assignment
    c.dirs.clear();
    return {};
}

failure daemon::cdb_end(connection_state &c, wire::reader &r, wire::writer &)
{
    if (failure f = data_request(r, c)) {
        return f;
    }
    c.data_session = false;
    c.view.reset();
    return {};
}

// The data nodes the path of a data-session request names (the request
// holds the path alone); none is an error only when the
// loaded modules have no such node.
failure daemon::session_data(connection_state &c, wire::reader &r, std::string &full,
                             std::vector<lyd_node *> &nodes)
{
    const std::string path = r.str();
    if (failure f = data_request(r, c)) {
        return f;
    }
    full = join_path(c.cwd, path);
    if (failure f = store_.check_path(full)) {
        return f;
    }
    std::string why;
    const auto steps = parse_path(full, why);
    lyd_node *forest = c.view != nullptr ? c.view->first() : store_.operational().first();
    nodes = data_nodes(forest, *steps);
    return {};
}

failure daemon::cdb_num(connection_state &c, wire::reader &r, wire::writer &w)
{
    std::string full;
    std::vector<lyd_node *> nodes;
    if (failure f = session_data(c, r, full, nodes)) {
        return f;
    }
    w.i32(static_cast<int32_t>(nodes.size()));
    return {};
}

failure daemon::cdb_get(connection_state &c, wire::reader &r, wire::writer &w)
{
    std::string full;
    std::vector<lyd_node *> nodes;
    if (failure f = session_data(c, r, full, nodes)) {
        return f;
    }
    if (nodes.empty()) {
        return fail(MGMTD_ERR_NOEXISTS, "nothing at " + full);
    }
    if (nodes.size() > 1 || (nodes[0]->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) == 0) {
        return fail(MGMTD_ERR_BADTYPE, full + " does not name one leaf");
    }
    w.str(lyd_get_value(nodes[0]));
    return {};
}

failure daemon::cdb_pushd(connection_state &c, wire::reader &r, wire::writer &)
{
    std::string full;
    std::vector<lyd_node *> nodes;
    if (failure f = session_data(c, r, full, nodes)) {
        return f;
    }
    if (nodes.size() != 1) {
        return fail(nodes.empty() ? MGMTD_ERR_NOEXISTS : MGMTD_ERR_BADPATH,
                    full + (nodes.empty() ? " does not exist" : " names several nodes"));
    }
    c.dirs.push_back(c.cwd);
    c.cwd = full;
    return {};
}

failure daemon::cdb_popd(connection_state &c, wire::reader &r, wire::writer &)
{
    if (failure f = data_request(r, c)) {
        return f;
    }
    if (c.dirs.empty()) {
        return fail(MGMTD_ERR_BADSTATE, "no directory to return to");
    }
    c.cwd = c.dirs.back();
    c.dirs.pop_back();
    return {};
}

failure daemon::cdb_delete(connection_state &c, wire::reader &r, wire::writer &)
{
    const std::string path = r.str();
    if (failure f = data_request(r, c)) {
        return f;
    }
    if (c.data_db != MGMTD_OPERATIONAL) {
        return fail(MGMTD_ERR_NOT_WRITABLE, "data sessions change operational data only");
    }
    return store_.delete_operational(join_path(c.cwd, path));
}

failure daemon::cdb_get_tree(connection_state &c, wire::reader &r, wire::writer &w)
{
    const int32_t format = r.i32();
    std::string full;
    std::vector<lyd_node *> nodes;
    if (failure f = session_data(c, r, full, nodes)) {
        return f;
    }
    if (format != CDB_TREE_XML && format != CDB_TREE_JSON) {
        return fail(MGMTD_ERR_PROTOUSAGE, "tree format " + std::to_string(format) + " is not known");
    }
    std::string text;
    if (failure f = print_with_parents(nodes, format == CDB_TREE_JSON ? LYD_JSON : LYD_XML, text)) {
        return f;
    }
    w.str(text);
    return {};
}

}  // namespace zen::mgmtd
