// The management daemon's requests: connections, user sessions,
// transactions, data sessions and schema look-ups over the datastores.
// Every request runs under one mutex, so the datastores see one request at
// a time and a transaction's changes land all at once.
#ifndef ZEN_MGMTD_DAEMON_HPP
#define ZEN_MGMTD_DAEMON_HPP

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "mgmtd_wire.hpp"
#include "store.hpp"

namespace zen::mgmtd {

struct transaction {
    int db = 0;
    int rw = 0;
    std::vector<change> changes;
};

// What one client connection has open.
struct connection_state {
    uint64_t id = 0;
    int kind = 0;   // enum mgmtd_wire_conn, after HELLO

    bool user_session = false;
    std::string user;
    std::string context;
    std::vector<std::string> groups;
    std::string src_addr;
    int src_port = 0;
    std::map<int, transaction> transactions;
    int next_handle = 1;

    bool data_session = false;
    int data_db = 0;
    snapshot view;   // running database sessions read this version
    std::string cwd = "/";
    std::vector<std::string> dirs;
};

class daemon {
public:
    failure open(const store_options &options) { return store_.open(options); }

    void attach(connection_state &conn);
    // Ends what the connection left open: its transactions are discarded
    // unapplied, its locks released.
    void detach(connection_state &conn);

    // The answer's payload to a request; close is set when the request
    // broke the protocol and the connection must go.
    std::string handle(connection_state &conn, const wire::frame &request, bool &close);

private:
    using handler = failure (daemon::*)(connection_state &, wire::reader &, wire::writer &);
    struct op_entry {
        uint16_t op;
        int kind;   // 0: any connection
        handler fn;
    };
    static const op_entry kOps[];

    failure hello(connection_state &c, wire::reader &r, wire::writer &w);
    failure status(connection_state &c, wire::reader &r, wire::writer &w);
    failure schema_cd(connection_state &c, wire::reader &r, wire::writer &w);
    failure usess_start(connection_state &c, wire::reader &r, wire::writer &w);
    failure usess_end(connection_state &c, wire::reader &r, wire::writer &w);
    failure trans_start(connection_state &c, wire::reader &r, wire::writer &w);
    failure trans_load(connection_state &c, wire::reader &r, wire::writer &w);
    failure trans_delete(connection_state &c, wire::reader &r, wire::writer &w);
    failure trans_apply(connection_state &c, wire::reader &r, wire::writer &w);
    failure trans_finish(connection_state &c, wire::reader &r, wire::writer &w);
    failure commit(connection_state &c, wire::reader &r, wire::writer &w);
    failure lock(connection_state &c, wire::reader &r, wire::writer &w);
    failure unlock(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_start(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_end(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_num(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_get(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_pushd(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_popd(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_delete(connection_state &c, wire::reader &r, wire::writer &w);
    failure cdb_get_tree(connection_state &c, wire::reader &r, wire::writer &w);

    void end_user_session(connection_state &c);
    failure writable_transaction(connection_state &c, int handle, transaction *&out);
    failure session_data(connection_state &c, wire::reader &r, std::string &full,
                         std::vector<lyd_node *> &nodes);

    std::mutex mutex_;
    store store_;
    uint64_t next_id_ = 1;
    std::unordered_set<const connection_state *> conns_;
};

}  // namespace zen::mgmtd

#endif  // ZEN_MGMTD_DAEMON_HPP
