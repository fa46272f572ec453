/*
 * Route attribute record of the host's routing daemons, as handed to the
 * policy engine with each route. attr_flags says which attributes are
 * present.
 */
#ifndef ZEN_ATTR_H
#define ZEN_ATTR_H

#include <stdint.h>

#include <zen/ip_util.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Presence bits of attr_flags. */
#define ZEN_ATTR_FLAG_TLOC          0x1ULL
#define ZEN_ATTR_FLAG_PREFERENCE    0x2ULL
#define ZEN_ATTR_FLAG_TAG           0x8ULL
#define ZEN_ATTR_FLAG_DOMAIN_ID     0x10ULL
#define ZEN_ATTR_FLAG_SITE_ID       0x20ULL
#define ZEN_ATTR_FLAG_ORIGIN        0x400ULL
#define ZEN_ATTR_FLAG_ORIGINATOR    0x800ULL
#define ZEN_ATTR_FLAG_CARRIER       0x4000ULL
#define ZEN_ATTR_FLAG_GROUP         0x200000ULL
#define ZEN_ATTR_FLAG_ORIGIN_METRIC 0x2000000000ULL

/* Most groups a route carries. */
#define ZEN_ATTR_MAX_GROUPS 16

/* Reference-counted community set of a route. */
typedef struct _t_bgp_community {
    uint32_t n_communities;
    uint32_t ref_count;
    uint32_t str_len;
    uint32_t communities[];
} t_bgp_community;

typedef struct _t_zen_origin {
    uint32_t proto_metric;
    uint8_t proto;
    uint8_t proto_sub_type;
} t_zen_origin;

typedef struct _t_zen_attr {
    uint64_t attr_flags;
    t_tloc_id tloc;
    uint32_t preference;
    uint32_t tag;
    uint32_t domain_id;
    uint32_t site_id;
    t_zen_origin origin;
    uint32_t originator;   /* IPv4 address, network byte order */
    uint8_t carrier;
    uint16_t group_count;
    uint32_t group_list[ZEN_ATTR_MAX_GROUPS];
    t_bgp_community *community_p;
} t_zen_attr;

#ifdef __cplusplus
}
#endif

#endif /* ZEN_ATTR_H */
