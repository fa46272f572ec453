/*
 * Wire protocol between zen-mgmtd and its client library: the one place
 * that defines the frame format and the operations. docs/mgmtd-daemon.md
 * gives every operation's fields.
 *
 * A frame is a 16-byte header followed by its payload; every integer is
 * big-endian:
 *   u32 magic    MGMTD_WIRE_MAGIC
 *   u8  version  MGMTD_WIRE_VERSION
 *   u8  flags    MGMTD_WIRE_REPLY on answers
 *   u16 op       enum mgmtd_wire_op (an answer repeats its request's op)
 *   u32 id       chosen by the client, repeated in the answer
 *   u32 length   payload bytes, at most MGMTD_WIRE_MAX_PAYLOAD
 * A payload is a sequence of fields: i32 and i64 integers, and strings as
 * a u32 byte count and the bytes (no terminator). An answer's payload
 * starts with an i32 status (0, or an MGMTD_ERR_* code) and a string
 * message (empty on success); the op's results follow on success only.
 * A frame that breaks these rules makes the daemon answer MGMTD_ERR_PROTO
 * and close the connection.
 */
#ifndef ZEN_MGMTD_WIRE_H
#define ZEN_MGMTD_WIRE_H

#define MGMTD_WIRE_MAGIC 0x5a4d4754u /* "ZMGT" */
#define MGMTD_WIRE_VERSION 1
#define MGMTD_WIRE_REPLY 0x01
#define MGMTD_WIRE_HEADER_SIZE 16
#define MGMTD_WIRE_MAX_PAYLOAD (4u * 1024u * 1024u)

/* Connection kinds, the first field of MGMTD_OP_HELLO. */
enum mgmtd_wire_conn {
    MGMTD_CONN_MAAPI = 1,
    MGMTD_CONN_CDB = 2,
};

enum mgmtd_wire_op {
    /* any connection */
    MGMTD_OP_HELLO = 1,          /* i32 kind, str client -> i32 protocol version */
    MGMTD_OP_STATUS = 2,         /* -> i32 connections, i32 user sessions,
                                    i32 data sessions, i32 transactions,
                                    i32 locks, i64 commits */
    MGMTD_OP_SCHEMA_CD = 3,      /* str path -> str name, str module, i32 kind, i32 config */
    /* management connections */
    MGMTD_OP_USESS_START = 10,   /* str user, str context, i32 n, n x str group,
                                    str src addr, i32 src port -> i32 session id */
    MGMTD_OP_USESS_END = 11,
    MGMTD_OP_TRANS_START = 12,   /* i32 db, i32 rw, i32 session id, i32 flags -> i32 handle */
    MGMTD_OP_TRANS_LOAD = 13,    /* i32 handle, i32 load flags, str text */
    MGMTD_OP_TRANS_DELETE = 14,  /* i32 handle, str path */
    MGMTD_OP_TRANS_APPLY = 15,   /* i32 handle, i32 keep open */
    MGMTD_OP_TRANS_FINISH = 16,  /* i32 handle */
    MGMTD_OP_COMMIT = 17,        /* candidate to running */
    MGMTD_OP_LOCK = 18,          /* i32 db */
    MGMTD_OP_UNLOCK = 19,        /* i32 db */
    /* data connections */
    MGMTD_OP_CDB_START = 30,     /* i32 db, i32 flags */
    MGMTD_OP_CDB_END = 31,
    MGMTD_OP_CDB_NUM = 32,       /* str path -> i32 count */
    MGMTD_OP_CDB_GET = 33,       /* str path -> str value */
    MGMTD_OP_CDB_PUSHD = 34,     /* str path */
    MGMTD_OP_CDB_POPD = 35,
    MGMTD_OP_CDB_DELETE = 36,    /* str path */
    MGMTD_OP_CDB_GET_TREE = 37,  /* i32 format, str path -> str text */
};

#endif /* ZEN_MGMTD_WIRE_H */
