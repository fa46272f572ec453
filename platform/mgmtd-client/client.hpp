// Internals of the management daemon's client library: one request and
// its answer on a connection, the per-thread error state, the remembered
// daemon address, and printf-style paths.
#ifndef ZEN_MGMTD_CLIENT_HPP
#define ZEN_MGMTD_CLIENT_HPP

#include <zen/maapi.h>

#include <cstdarg>
#include <string>

#include "mgmtd_wire.hpp"

#pragma GCC visibility push(hidden)

namespace zen::client {

// Records a failure for mgmtd_errno and mgmtd_lasterr; returns MGMTD_ERR.
int fail(int code, std::string message);

// Sends a request and waits for its answer. On success returns true with
// the op's results in results; on failure records the error and returns
// false.
bool call(int sock, uint16_t op, const wire::writer &request, std::string &results);
// Same, for requests whose answer carries no results: MGMTD_OK or MGMTD_ERR.
int call_status(int sock, uint16_t op, const wire::writer &request);

// Connects sock to srv, remembers srv as the daemon's address and opens a
// connection of the given kind (enum mgmtd_wire_conn).
int connect_kind(int sock, const struct sockaddr *srv, socklen_t srv_len, int kind);

// Copies the address of the last connect (127.0.0.1:MGMTD_PORT before any).
socklen_t daemon_address(struct sockaddr_storage &out);

std::string vformat(const char *fmt, va_list ap) __attribute__((format(printf, 1, 0)));

}  // namespace zen::client

#pragma GCC visibility pop

#endif  // ZEN_MGMTD_CLIENT_HPP
