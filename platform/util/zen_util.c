/*
 * Text helpers of the host: address, prefix and TLOC printers, prefix
 * containment, and the namers of colours, encapsulations and services.
 */
#define _POSIX_C_SOURCE 200809L

#include <zen/zen_util.h>

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <zen/zen_types.h>

#define ZEN_ARRAY_LEN(a) (sizeof(a) / sizeof((a)[0]))

static const char unknown_name[] = "unknown";

/* Indexed by colour code; slot 0 is not a colour. */
static const char *const tloc_color_names[ZEN_TLOC_COLOR_MAX + 1] = {
    [1] = "default",
    [2] = "mpls",
    [3] = "metro-ethernet",
    [4] = "business-internet",
    [5] = "public-internet",
    [6] = "lte",
    [7] = "cellular",
    [8] = "red",
    [9] = "green",
    [10] = "blue",
    [11] = "gold",
    [12] = "silver",
    [13] = "bronze",
    [14] = "custom1",
    [15] = "custom2",
    [16] = "custom3",
    [17] = "private1",
    [18] = "private2",
    [19] = "private3",
    [20] = "private4",
    [21] = "private5",
    [22] = "private6",
};

static const char *const tloc_encap_names[ZEN_TLOC_ENCAP_MAX] = {
    [ZEN_TLOC_ENCAP_GRE] = "gre",
    [ZEN_TLOC_ENCAP_IPSEC_TUNNEL] = "ipsec",
};

static const char *const svc_names[] = {
    [1] = "firewall",
    [2] = "ids",
    [3] = "ips",
    [4] = "netsvc1",
    [5] = "netsvc2",
    [6] = "netsvc3",
    [7] = "netsvc4",
    [8] = "netsvc5",
};

/* Table look-up; holes and codes past the end name "unknown". */
static const char *name_lookup(const char *const *table, size_t count, uint32_t code)
{
    if (code >= count || table[code] == NULL) {
        return unknown_name;
    }
    return table[code];
}

/* The address as text into a scratch buffer large enough for any family. */
static const char *ipaddr_text(const t_ipaddr *addr, char scratch[INET6_ADDRSTRLEN])
{
    const char *text = NULL;

    switch (addr->addr_type) {
    case IP_ADDR_V4:
        text = inet_ntop(AF_INET, &addr->u.addr4, scratch, INET6_ADDRSTRLEN);
        break;
    case IP_ADDR_V6:
        text = inet_ntop(AF_INET6, addr->u.addr6_b, scratch, INET6_ADDRSTRLEN);
        break;
    default:
        break;
    }
    return text != NULL ? text : unknown_name;
}

char *ipaddr_print(const t_ipaddr *addr, char *buf, size_t size)
{
    char scratch[INET6_ADDRSTRLEN];

    if (size > 0) {
        snprintf(buf, size, "%s", ipaddr_text(addr, scratch));
    }
    return buf;
}

char *ipprefix_print(const t_ipprefix *pfx, char *buf, size_t size)
{
    char scratch[INET6_ADDRSTRLEN];

    if (size > 0) {
        snprintf(buf, size, "%s/%u", ipaddr_text(&pfx->addr, scratch),
                 (unsigned)pfx->prefixlen);
    }
    return buf;
}

static unsigned family_width(e_ipaddr_type type)
{
    switch (type) {
    case IP_ADDR_V4:
        return 32;
    case IP_ADDR_V6:
        return 128;
    default:
        return 0;
    }
}

bool ipprefix_is_contained(const t_ipprefix *inner, const t_ipprefix *outer)
{
    e_ipaddr_type type = outer->addr.addr_type;
    unsigned width = family_width(type);

    if (width == 0 || inner->addr.addr_type != type) {
        return false;
    }

    /* A length past the family width means a host route. */
    unsigned inner_len = inner->prefixlen < width ? inner->prefixlen : width;
    unsigned outer_len = outer->prefixlen < width ? outer->prefixlen : width;
    if (inner_len < outer_len) {
        return false;
    }

    /* Both families keep their bytes in network order from offset 0. */
    const uint8_t *a = inner->addr.u.addr6_b;
    const uint8_t *b = outer->addr.u.addr6_b;
    unsigned whole = outer_len / 8;
    unsigned rest = outer_len % 8;

    if (memcmp(a, b, whole) != 0) {
        return false;
    }
    if (rest != 0) {
        uint8_t mask = (uint8_t)(0xffu << (8 - rest));
        if (((a[whole] ^ b[whole]) & mask) != 0) {
            return false;
        }
    }
    return true;
}

char *tloc_id_print(const t_tloc_id *tloc, char *buf, size_t size)
{
    char scratch[INET6_ADDRSTRLEN];

    if (size > 0) {
        snprintf(buf, size, "addr %s color %s encap %s", ipaddr_text(&tloc->addr, scratch),
                 zen_util_tloc_color_name(tloc->color), zen_util_tloc_encap_name(tloc->encap));
    }
    return buf;
}

char *tloc_id_print_short(const t_tloc_id *tloc, char *buf, size_t size)
{
    char scratch[INET6_ADDRSTRLEN];

    if (size > 0) {
        snprintf(buf, size, "%s:%s:%s", ipaddr_text(&tloc->addr, scratch),
                 zen_util_tloc_color_name(tloc->color), zen_util_tloc_encap_name(tloc->encap));
    }
    return buf;
}

const char *zen_util_tloc_color_name(uint32_t color)
{
    return name_lookup(tloc_color_names, ZEN_ARRAY_LEN(tloc_color_names), color);
}

const char *zen_util_tloc_encap_name(uint32_t encap)
{
    return name_lookup(tloc_encap_names, ZEN_ARRAY_LEN(tloc_encap_names), encap);
}

const char *zen_util_svc_name(uint32_t svc)
{
    return name_lookup(svc_names, ZEN_ARRAY_LEN(svc_names), svc);
}
