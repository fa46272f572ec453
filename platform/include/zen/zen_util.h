/*
 * The host's text helpers for addresses, prefixes and TLOCs, and the namers
 * of colours, encapsulations and services. Every printer writes into the
 * caller's buffer (always NUL-terminated when size > 0) and returns it.
 */
#ifndef ZEN_UTIL_H
#define ZEN_UTIL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <zen/ip_util.h>

#ifdef __cplusplus
extern "C" {
#endif

/* "10.1.2.3", "2001:db8::1"; an unknown type prints "unknown". */
char *ipaddr_print(const t_ipaddr *addr, char *buf, size_t size);

/* "%s/%u": address text and prefix length. */
char *ipprefix_print(const t_ipprefix *pfx, char *buf, size_t size);

/*
 * True when inner lies inside outer: same address type, inner's length at
 * least outer's, and the first outer->prefixlen bits equal. Lengths past
 * the family width (32 or 128) count as the width; unknown types never match.
 */
bool ipprefix_is_contained(const t_ipprefix *inner, const t_ipprefix *outer);

/* "addr 10.0.0.1 color blue encap ipsec" */
char *tloc_id_print(const t_tloc_id *tloc, char *buf, size_t size);

/* "10.0.0.1:blue:ipsec" */
char *tloc_id_print_short(const t_tloc_id *tloc, char *buf, size_t size);

/* Colour codes 1 to ZEN_TLOC_COLOR_MAX; anything else gives "unknown". */
const char *zen_util_tloc_color_name(uint32_t color);

/* 1 "gre", 2 "ipsec"; anything else gives "unknown". */
const char *zen_util_tloc_encap_name(uint32_t encap);

/*
 * Service codes of the service-insertion action: 1 "firewall", 2 "ids",
 * 3 "ips", 4 to 8 "netsvc1" to "netsvc5"; anything else gives "unknown".
 */
const char *zen_util_svc_name(uint32_t svc);

#ifdef __cplusplus
}
#endif

#endif /* ZEN_UTIL_H */
