// Data connections: read sessions on the running or operational database.
#include "client.hpp"

#include <cstdlib>
#include <cstring>

using zen::client::call;
using zen::client::call_status;
using zen::client::fail;
using zen::wire::writer;

namespace {

int path_call(int sock, uint16_t op, const char *fmt, va_list ap, std::string &results)
    __attribute__((format(printf, 3, 0)));

int path_call(int sock, uint16_t op, const char *fmt, va_list ap, std::string &results)
{
    if (fmt == nullptr) {
        return fail(MGMTD_ERR_BADPATH, "no path");
    }
    writer w;
    w.str(zen::client::vformat(fmt, ap));
    return call(sock, op, w, results) ? MGMTD_OK : MGMTD_ERR;
}

}  // namespace

extern "C" {

int cdb_connect(int sock, enum cdb_sock_type type, const struct sockaddr *srv, socklen_t srv_len)
{
    if (type != CDB_READ_SOCKET && type != CDB_DATA_SOCKET) {
        return fail(MGMTD_ERR_PROTOUSAGE, "only read and data sockets are served");
    }
    return zen::client::connect_kind(sock, srv, srv_len, MGMTD_CONN_CDB);
}

int cdb_start_session2(int sock, enum mgmtd_dbname db, int flags)
{
    writer w;
    w.i32(db).i32(flags);
    return call_status(sock, MGMTD_OP_CDB_START, w);
}

int cdb_end_session(int sock)
{
    return call_status(sock, MGMTD_OP_CDB_END, writer());
}

int cdb_num_instances(int sock, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string results;
    const int rc = path_call(sock, MGMTD_OP_CDB_NUM, fmt, ap, results);
    va_end(ap);
    if (rc != MGMTD_OK) {
        return MGMTD_ERR;
    }
    zen::wire::reader r(results);
    const int32_t n = r.i32();
    return r.ok() ? n : fail(MGMTD_ERR_PROTO, "truncated count answer");
}

int cdb_get_str(int sock, char *buf, int n, const char *fmt, ...)
{
    if (buf == nullptr || n <= 0) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no buffer");
    }
    buf[0] = '\0';
    va_list ap;
    va_start(ap, fmt);
    std::string results;
    const int rc = path_call(sock, MGMTD_OP_CDB_GET, fmt, ap, results);
    va_end(ap);
    if (rc != MGMTD_OK) {
        return MGMTD_ERR;
    }
    zen::wire::reader r(results);
    const std::string value = r.str();
    if (!r.ok()) {
        return fail(MGMTD_ERR_PROTO, "truncated value answer");
    }
    if (value.size() >= static_cast<size_t>(n)) {
        return fail(MGMTD_ERR_TOOBIG, "value of " + std::to_string(value.size()) +
                                          " bytes does not fit a buffer of " + std::to_string(n));
    }
    std::memcpy(buf, value.c_str(), value.size() + 1);
    return MGMTD_OK;
}

int cdb_pushd(int sock, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string results;
    const int rc = path_call(sock, MGMTD_OP_CDB_PUSHD, fmt, ap, results);
    va_end(ap);
    return rc;
}

int cdb_popd(int sock)
{
    return call_status(sock, MGMTD_OP_CDB_POPD, writer());
}

int cdb_delete(int sock, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string results;
    const int rc = path_call(sock, MGMTD_OP_CDB_DELETE, fmt, ap, results);
    va_end(ap);
    return rc;
}

int cdb_get_tree(int sock, enum cdb_tree_format format, char **text, const char *fmt, ...)
{
    if (text == nullptr) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no text pointer");
    }
    *text = nullptr;
    if (fmt == nullptr) {
        return fail(MGMTD_ERR_BADPATH, "no path");
    }
    va_list ap;
    va_start(ap, fmt);
    writer w;
    w.i32(format).str(zen::client::vformat(fmt, ap));
    va_end(ap);
    std::string results;
    if (!call(sock, MGMTD_OP_CDB_GET_TREE, w, results)) {
        return MGMTD_ERR;
    }
    zen::wire::reader r(results);
    const std::string tree = r.str();
    if (!r.ok()) {
        return fail(MGMTD_ERR_PROTO, "truncated tree answer");
    }
    *text = static_cast<char *>(std::malloc(tree.size() + 1));
    if (*text == nullptr) {
        return fail(MGMTD_ERR_MALLOC, "no memory for the tree text");
    }
    std::memcpy(*text, tree.c_str(), tree.size() + 1);
    return MGMTD_OK;
}

}  // extern "C"
