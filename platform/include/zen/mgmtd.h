/*
 * The management daemon's client interface as the policy library sees it:
 * configuration value types handed to configuration change callbacks, the
 * host daemon's connection context, and command-line output to the
 * session that asked for a show command.
 */
#ifndef ZEN_MGMTD_H
#define ZEN_MGMTD_H

#include <netinet/in.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Value kinds; the numbers are the management framework's. */
enum mgmtd_vtype {
    C_NOEXISTS = 1,    /* the leaf was removed */
    C_BUF = 5,         /* NUL-terminated text */
    C_UINT8 = 10,
    C_UINT16 = 11,
    C_UINT32 = 12,
    C_UINT64 = 13,
    C_IPV4 = 15,       /* network byte order */
    C_IPV6 = 16,
    C_BOOL = 17,
    C_ENUM_VALUE = 28, /* enumeration ordinal */
    C_BIT32 = 29,
    C_LIST = 31,       /* array of values (leaf-list) */
    C_XMLBEGIN = 32,   /* start of a container in a flattened array */
    C_XMLEND = 33,     /* end of a container */
    C_IPV4PREFIX = 40,
    C_IPV6PREFIX = 41,
};

typedef struct mgmtd_buf {
    uint32_t size;
    unsigned char *ptr;
} mgmtd_buf_t;

typedef struct mgmtd_ipv4prefix {
    struct in_addr ip;
    uint8_t len;
} mgmtd_ipv4prefix_t;

typedef struct mgmtd_ipv6prefix {
    struct in6_addr ip6;
    uint8_t len;
} mgmtd_ipv6prefix_t;

struct mgmtd_value;

typedef struct mgmtd_list {
    uint32_t size;
    struct mgmtd_value *ptr;
} mgmtd_list_t;

typedef struct mgmtd_value {
    enum mgmtd_vtype type;
    union {
        mgmtd_buf_t buf;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        uint64_t u64;
        struct in_addr ip;
        struct in6_addr ip6;
        int boolean;
        int32_t enumvalue;
        uint32_t b32;
        mgmtd_list_t list;
        mgmtd_ipv4prefix_t ipv4prefix;
        mgmtd_ipv6prefix_t ipv6prefix;
    } val;
} mgmtd_value_t;

/* Schema position of a leaf: the hash of its name and of its namespace. */
struct xml_tag {
    uint32_t tag;
    uint32_t ns;
};

typedef struct mgmtd_tag_value {
    struct xml_tag tag;
    mgmtd_value_t v;
} mgmtd_tag_value_t;

/* What happened to a node of a committed change. */
typedef enum mgmtd_iter_op {
    MOP_CREATED = 1,
    MOP_DELETED = 2,
    MOP_MODIFIED = 3,
    MOP_VALUE_SET = 4,
    MOP_MOVED_AFTER = 5,
    MOP_ATTR_SET = 6,
} mgmtd_iter_op;

/* One subscription of the host daemon on the configuration tree. */
typedef struct _t_vmgmtd_sub_entry {
    char path[256];
    void *config_cb;
    uint32_t name_space;
    int num_keys;
    int priority;
} t_vmgmtd_sub_entry;

/* The host daemon's management connection; libraries read only data_socket. */
typedef struct _t_vmgmtd_context {
    int data_socket;   /* open read session on the running configuration */
    int sub_socket;
    int maapi_socket;
    void *event_p;
    t_vmgmtd_sub_entry *sub_entries;
    uint32_t num_sub_entries;
} t_vmgmtd_context;

/* The command-line session a show command runs for. */
struct mgmtd_cli_user_info {
    int maapi_sock;
    uint32_t usid;     /* user session id */
    const char *user;
};

/*
 * Command-line output: text goes to the stream bound to the session, or to
 * standard output when none is bound. A test binds a memory stream
 * (open_memstream) and reads back exactly what a dump printed.
 */
int maapi_cli_bind_stream(uint32_t usid, FILE *out);
void maapi_cli_unbind_stream(uint32_t usid);
int maapi_cli_printf(int maapi_sock, uint32_t usid, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int maapi_cli_vprintf(int maapi_sock, uint32_t usid, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif

#endif /* ZEN_MGMTD_H */
