/*
 * Address, prefix and transport-locator value records shared by the host's
 * libraries, with their small inline operations. The comparison functions
 * define the order of every tree keyed on these records.
 */
#ifndef ZEN_IP_UTIL_H
#define ZEN_IP_UTIL_H

#include <netinet/in.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The values are the socket address-family numbers. */
typedef enum e_ipaddr_type {
    IP_ADDR_UNKNOWN = 0,
    IP_ADDR_V4 = 2,
    IP_ADDR_V6 = 10,
} e_ipaddr_type;

typedef struct t_ipaddr {
    e_ipaddr_type addr_type;
    union {
        struct in_addr addr4;  /* network byte order, first 4 bytes only */
        uint64_t addr6[2];
        uint8_t addr6_b[16];
        uint16_t addr16_b[8];
        uint32_t addr32_b[4];
    } u;
} t_ipaddr;

typedef struct t_ipprefix {
    t_ipaddr addr;
    uint8_t prefixlen;
} t_ipprefix;

typedef struct _t_tloc_id {
    t_ipaddr addr;   /* system address */
    uint8_t color;
    uint8_t encap;
} t_tloc_id;

typedef struct _t_local_tloc_id {
    uint32_t color;
    uint32_t encap;
} t_local_tloc_id;

/* Where the address header reports a comparison of unknown address types. */
#define IP_UTIL_SRC_PATH "../../git/common/ip_util"
#define IP_UTIL_CMP_ASSERT_LINE 260u

static inline void IPADDR_INIT(t_ipaddr *addr, e_ipaddr_type type)
{
    memset(addr, 0, sizeof(*addr));
    addr->addr_type = type;
}

static inline void IPADDR_SET_V4(t_ipaddr *addr, uint32_t word)
{
    addr->addr_type = IP_ADDR_V4;
    addr->u.addr4.s_addr = word;
}

static inline void IPADDR_SET_V6(t_ipaddr *addr, const uint8_t *bytes16)
{
    addr->addr_type = IP_ADDR_V6;
    memcpy(addr->u.addr6_b, bytes16, 16);
}

static inline bool IPADDR_IS_V4(const t_ipaddr *addr)
{
    return addr->addr_type == IP_ADDR_V4;
}

static inline void IPADDR_GET_IPV4(const t_ipaddr *addr, uint32_t *out)
{
    *out = 0;
    if (IPADDR_IS_V4(addr)) {
        *out = addr->u.addr4.s_addr;
    }
}

static inline bool IPADDR_IS_ZERO(const t_ipaddr *addr)
{
    switch (addr->addr_type) {
    case IP_ADDR_V4:
        return addr->u.addr4.s_addr == 0;
    case IP_ADDR_V6:
        return addr->u.addr6[0] == 0 && addr->u.addr6[1] == 0;
    default:
        return true;
    }
}

static inline void IPADDR_COPY(t_ipaddr *dst, const t_ipaddr *src)
{
    dst->addr_type = src->addr_type;
    if (src->addr_type == IP_ADDR_V4) {
        dst->u.addr4.s_addr = src->u.addr4.s_addr;
    } else {
        memcpy(dst->u.addr6_b, src->u.addr6_b, 16);
    }
}

static inline int ip_util_sign(long long v)
{
    return (v > 0) - (v < 0);
}

/*
 * Deliberate crash for a comparison of two addresses of an unknown type:
 * such a comparison means a record was never initialised.
 */
static inline void ip_util_cmp_unknown_type(void)
{
    printf("%s:%u: failed assertion `%s'\n", IP_UTIL_SRC_PATH, IP_UTIL_CMP_ASSERT_LINE, "0");
    fflush(stdout);
    *(volatile int *)(uintptr_t)0 = 0;
    exit(1);
}

/*
 * Order: address type first (unknown < IPv4 < IPv6); IPv4 by the stored
 * 32-bit word read as a host-order integer (not numeric address order on a
 * little-endian host); IPv6 byte-wise.
 */
static inline int IPADDR_CMP(const t_ipaddr *a, const t_ipaddr *b)
{
    if (a->addr_type != b->addr_type) {
        return (uint32_t)a->addr_type < (uint32_t)b->addr_type ? -1 : 1;
    }
    if (a->addr_type == IP_ADDR_V4) {
        uint32_t wa = a->u.addr4.s_addr;
        uint32_t wb = b->u.addr4.s_addr;
        return wa < wb ? -1 : (wa > wb ? 1 : 0);
    }
    if (a->addr_type == IP_ADDR_V6) {
        return ip_util_sign(memcmp(a->u.addr6_b, b->u.addr6_b, 16));
    }
    ip_util_cmp_unknown_type();
    return 0;
}

static inline void TLOC_COPY(t_tloc_id *dst, const t_tloc_id *src)
{
    IPADDR_COPY(&dst->addr, &src->addr);
    dst->color = src->color;
    dst->encap = src->encap;
}

static inline int TLOC_CMP(const t_tloc_id *a, const t_tloc_id *b)
{
    int r = IPADDR_CMP(&a->addr, &b->addr);
    if (r != 0) {
        return r;
    }
    if (a->color != b->color) {
        return a->color < b->color ? -1 : 1;
    }
    if (a->encap != b->encap) {
        return a->encap < b->encap ? -1 : 1;
    }
    return 0;
}

static inline bool IPPREFIX_IS_V4(const t_ipprefix *pfx)
{
    return IPADDR_IS_V4(&pfx->addr);
}

/* Prefixes order by address, then by length. */
static inline int IPPREFIX_CMP(const t_ipprefix *a, const t_ipprefix *b)
{
    int r = IPADDR_CMP(&a->addr, &b->addr);
    if (r != 0) {
        return r;
    }
    if (a->prefixlen != b->prefixlen) {
        return a->prefixlen < b->prefixlen ? -1 : 1;
    }
    return 0;
}

#ifdef __cplusplus
}
#endif

#endif /* ZEN_IP_UTIL_H */
