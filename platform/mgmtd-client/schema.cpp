// Schema look-ups against the daemon's loaded modules, on a connection of
// the library's own, with every answer kept (found or not) until
// mgmtd_cs_reset: a compatibility check asks about every leaf of a
// document, often about the same paths again.
#include "client.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>

using zen::client::fail;

namespace {

struct cached_node {
    mgmtd_cs_node_t node{};
    std::string path;
    std::string name;
    std::string module;
};

struct schema_cache {
    std::mutex mutex;
    int sock = -1;
    // Null for a path the schema does not have.
    std::map<std::string, std::unique_ptr<cached_node>> answers;

    void close_socket()
    {
        if (sock >= 0) {
            ::close(sock);
            sock = -1;
        }
    }

    bool ensure_connected()
    {
        if (sock >= 0) {
            return true;
        }
        sockaddr_storage addr{};
        const socklen_t len = zen::client::daemon_address(addr);
        sock = ::socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (sock < 0) {
            fail(MGMTD_ERR_OS, "schema connection: no socket");
            return false;
        }
        if (zen::client::connect_kind(sock, reinterpret_cast<sockaddr *>(&addr), len,
                                      MGMTD_CONN_CDB) != MGMTD_OK) {
            close_socket();
            return false;
        }
        return true;
    }

    // Asks the daemon; false when it could not answer (the error is
    // recorded), true with a null node when the path is unknown.
    bool ask(const std::string &path, std::unique_ptr<cached_node> &out)
    {
        if (!ensure_connected()) {
            return false;
        }
        zen::wire::writer w;
        w.str(path);
        std::string results;
        if (!zen::client::call(sock, MGMTD_OP_SCHEMA_CD, w, results)) {
            if (mgmtd_errno == MGMTD_ERR_BADPATH) {
                out.reset();
                return true;
            }
            if (mgmtd_errno == MGMTD_ERR_OS || mgmtd_errno == MGMTD_ERR_TIMEOUT ||
                mgmtd_errno == MGMTD_ERR_PROTO) {
                close_socket();
            }
            return false;
        }
        zen::wire::reader r(results);
        auto n = std::make_unique<cached_node>();
        n->path = path;
        n->name = r.str();
        n->module = r.str();
        n->node.kind = r.i32();
        n->node.config = r.i32();
        if (!r.ok()) {
            fail(MGMTD_ERR_PROTO, "truncated schema answer");
            return false;
        }
        n->node.path = n->path.c_str();
        n->node.name = n->name.c_str();
        n->node.module = n->module.c_str();
        out = std::move(n);
        return true;
    }
};

schema_cache &cache()
{
    static schema_cache c;
    return c;
}

}  // namespace

extern "C" const mgmtd_cs_node_t *mgmtd_cs_node_cd(const mgmtd_cs_node_t *start, const char *fmt,
                                                   ...)
{
    if (fmt == nullptr) {
        fail(MGMTD_ERR_BADPATH, "no path");
        return nullptr;
    }
    va_list ap;
    va_start(ap, fmt);
    std::string path = zen::client::vformat(fmt, ap);
    va_end(ap);
    if (start != nullptr && (path.empty() || path[0] != '/')) {
        path = std::string(start->path) + "/" + path;
    }
    schema_cache &c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    auto it = c.answers.find(path);
    if (it == c.answers.end()) {
        std::unique_ptr<cached_node> answer;
        if (!c.ask(path, answer)) {
            return nullptr;
        }
        it = c.answers.emplace(path, std::move(answer)).first;
    }
    if (it->second == nullptr) {
        fail(MGMTD_ERR_BADPATH, "no schema node " + path);
        return nullptr;
    }
    return &it->second->node;
}

extern "C" void mgmtd_cs_reset(void)
{
    schema_cache &c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.close_socket();
    c.answers.clear();
}
