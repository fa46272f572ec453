/* Status codes shared by the host's libraries. */
#ifndef ZEN_ERR_H
#define ZEN_ERR_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum e_err {
    ERR_OK = 0,
    ERR_ALLOC = 1,
    ERR_SOCKET = 2,
    ERR_VERSION = 3,
    ERR_BADPKT = 4,
    ERR_LIBEVENT = 5,
    ERR_EXIST = 6,
    ERR_NOT_FOUND = 7,
    ERR_DNS = 8,
    ERR_EMPTY = 9,
    ERR_BAD_PARAM = 10,
    ERR_WRITE_FAILED = 11,
    ERR_SEND_FAIL = 12,
    ERR_ENCODE_FAIL = 13,
    ERR_AGAIN = 14,
    ERR_BAD_CTX = 15,
    ERR_MGMTD_FAIL = 16,
    ERR_KERNEL = 17,
    ERR_NS_FAILED = 18,
    ERR_PORT_NOT_PRESENT = 19,
    ERR_ILLEGAL_PEER = 20,
    ERR_INIT_FAILED = 21,
    ERR_NOT_FRAGMENT = 22,
    ERR_NOT_REASSEMBLED = 23,
    ERR_IOCTL = 24,
    ERR_SQL_INIT_FAIL = 25,
    ERR_SYSCALL_FAIL = 26,
    ERR_SSL = 27,
    ERR_LOCK = 28,
    ERR_FAIL = 29,
    ERR_IN_PROGRESS = 30,
    ERR_IGNORE = 31,
} e_err;

#ifdef __cplusplus
}
#endif

#endif /* ZEN_ERR_H */
