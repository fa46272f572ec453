// Management connections: user sessions, transactions, candidate commit,
// locks, and the daemon's counters.
#include "client.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

using zen::client::call;
using zen::client::call_status;
using zen::client::fail;
using zen::wire::writer;

extern "C" {

int maapi_connect(int sock, const struct sockaddr *srv, socklen_t srv_len)
{
    return zen::client::connect_kind(sock, srv, srv_len, MGMTD_CONN_MAAPI);
}

int maapi_start_user_session3(int sock, const char *user, const char *context,
                              const char *const *groups, int num_groups, const char *src_addr,
                              int src_port)
{
    if (user == nullptr || context == nullptr || num_groups < 0 ||
        (num_groups > 0 && groups == nullptr)) {
        return fail(MGMTD_ERR_PROTOUSAGE, "user session needs a user, a context and the groups");
    }
    writer w;
    w.str(user).str(context).i32(num_groups);
    for (int i = 0; i < num_groups; i++) {
        w.str(groups[i] != nullptr ? groups[i] : "");
    }
    w.str(src_addr != nullptr ? src_addr : "").i32(src_port);
    return call_status(sock, MGMTD_OP_USESS_START, w);
}

int maapi_end_user_session(int sock)
{
    return call_status(sock, MGMTD_OP_USESS_END, writer());
}

int maapi_start_trans_flags2(int sock, enum mgmtd_dbname db, enum maapi_rw rw, int usid,
                             int flags)
{
    writer w;
    w.i32(db).i32(rw).i32(usid).i32(flags);
    std::string results;
    if (!call(sock, MGMTD_OP_TRANS_START, w, results)) {
        return MGMTD_ERR;
    }
    zen::wire::reader r(results);
    const int32_t handle = r.i32();
    return r.ok() ? handle : fail(MGMTD_ERR_PROTO, "truncated transaction answer");
}

int maapi_load_config_cmds(int sock, int thandle, int flags, const char *text)
{
    if (text == nullptr) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no text to load");
    }
    writer w;
    w.i32(thandle).i32(flags).str(text);
    return call_status(sock, MGMTD_OP_TRANS_LOAD, w);
}

int maapi_load_config(int sock, int thandle, int flags, const char *filename)
{
    if (filename == nullptr) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no file to load");
    }
    std::ifstream in(filename, std::ios::binary);
    if (!in) {
        return fail(MGMTD_ERR_OS, std::string(filename) + ": " + std::strerror(errno));
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        return fail(MGMTD_ERR_OS, std::string(filename) + ": read error");
    }
    return maapi_load_config_cmds(sock, thandle, flags, text.str().c_str());
}

int maapi_delete(int sock, int thandle, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const std::string path = zen::client::vformat(fmt, ap);
    va_end(ap);
    writer w;
    w.i32(thandle).str(path);
    return call_status(sock, MGMTD_OP_TRANS_DELETE, w);
}

int maapi_apply_trans(int sock, int thandle, int keep_open)
{
    writer w;
    w.i32(thandle).i32(keep_open != 0 ? 1 : 0);
    return call_status(sock, MGMTD_OP_TRANS_APPLY, w);
}

int maapi_candidate_commit(int sock)
{
    return call_status(sock, MGMTD_OP_COMMIT, writer());
}

int maapi_finish_trans(int sock, int thandle)
{
    writer w;
    w.i32(thandle);
    return call_status(sock, MGMTD_OP_TRANS_FINISH, w);
}

int maapi_lock(int sock, enum mgmtd_dbname db)
{
    writer w;
    w.i32(db);
    return call_status(sock, MGMTD_OP_LOCK, w);
}

int maapi_unlock(int sock, enum mgmtd_dbname db)
{
    writer w;
    w.i32(db);
    return call_status(sock, MGMTD_OP_UNLOCK, w);
}

int mgmtd_get_status(int sock, mgmtd_status_t *status)
{
    if (status == nullptr) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no status record");
    }
    std::string results;
    if (!call(sock, MGMTD_OP_STATUS, writer(), results)) {
        return MGMTD_ERR;
    }
    zen::wire::reader r(results);
    status->connections = r.i32();
    status->user_sessions = r.i32();
    status->data_sessions = r.i32();
    status->transactions = r.i32();
    status->locks = r.i32();
    status->commits = static_cast<long>(r.i64());
    return r.ok() ? MGMTD_OK : fail(MGMTD_ERR_PROTO, "truncated status answer");
}

}  // extern "C"
