/* Small system-wide types of the host: device kinds, VPN ids, encapsulations. */
#ifndef ZEN_TYPES_H
#define ZEN_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t t_vpn_id;

/* The kind of device a daemon runs on. */
typedef enum e_zen_device {
    ZEN_DEVICE_UNKNOWN = 0,
    ZEN_DEVICE_RIMBA = 1,      /* edge router */
    ZEN_DEVICE_ORCHESTRATOR = 2,
    ZEN_DEVICE_QARMON = 3,     /* controller distributing routes and policy */
    ZEN_DEVICE_MANAGER = 4,
    ZEN_DEVICE_GATEWAY = 5,
    ZEN_DEVICE_CLOUD = 6,
    ZEN_DEVICE_HOSTED = 7,
    ZEN_DEVICE_MAX = 8,
} e_zen_device;

/* TLOC encapsulations. */
enum {
    ZEN_TLOC_ENCAP_NONE = 0,
    ZEN_TLOC_ENCAP_GRE = 1,
    ZEN_TLOC_ENCAP_IPSEC_TUNNEL = 2,
    ZEN_TLOC_ENCAP_MAX = 3,
};

/* Highest TLOC colour code the namer knows (codes start at 1). */
#define ZEN_TLOC_COLOR_MAX 22

#ifdef __cplusplus
}
#endif

#endif /* ZEN_TYPES_H */
