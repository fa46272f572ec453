/*
 * Schema tags of the policy configuration module (zen-policy): the one
 * table of every node name of the module with the 32-bit tag its values
 * carry. A name has one tag wherever it occurs ("preference" is the same
 * tag in a TLOC-list entry, a match and a set).
 *
 * X(ID, name, tag) per name. ID is the role the policy readers know the
 * node by; it follows the name unless the name alone does not say the role
 * ("ge" is the minimum prefix length). Users expand the table with their
 * own X: the readers' tag enumeration, the datastore's name table and the
 * tests all come from here.
 */
#ifndef ZEN_POLICY_TAGS_H
#define ZEN_POLICY_TAGS_H

/* clang-format off */
#define ZEN_POLICY_TAGS(X)                                                      \
    /* named lists */                                                           \
    X(PREFERENCE,              "preference",              0x176ecfd3)           \
    X(PREFLEN_MIN,             "ge",                      0x0c7fba2e)           \
    X(PREFLEN_MAX,             "le",                      0x10ae453c)           \
    X(PREFLEN_EXACT,           "eq",                      0x0308c88e) /* minimum and maximum at once */ \
    /* policies and sequences */                                                \
    X(DEFAULT_ACTION,          "default-action",          0x7037c488)           \
    X(ACTION,                  "action",                  0x0369ffb7)           \
    X(ULTIMATE_TLOC_ACTION,    "ultimate-tloc-action",    0x4a63a685)           \
    X(OMP_TAG,                 "omp-tag",                 0x0c2c7467)           \
    X(VPN,                     "vpn",                     0x4d7d11c2) /* service VPN inside service */ \
    X(VPN_LIST,                "vpn-list",                0x6aebf6e6)           \
    X(TLOC_LIST,               "tloc-list",               0x72d28bfe)           \
    X(COMMUNITY,               "community",               0x04de5c80)           \
    X(COMMUNITY_ADDITIVE,      "additive",                0x4e8cbcb6)           \
    X(SERVICE,                 "service",                 0x32fc12e6) /* container */ \
    X(TLOC,                    "tloc",                    0x33c074ce) /* container */ \
    X(TLOC_ADDRESS,            "address",                 0x61fa2cdb)           \
    X(COLOR,                   "color",                   0x2b503622) /* match colour outside tloc */ \
    X(ENCAP,                   "encap",                   0x5a62686b)           \
    X(SERVICE_TYPE,            "type",                    0x6ccfcce4)           \
    /* match conditions */                                                      \
    X(CARRIER,                 "carrier",                 0x4ef9605a)           \
    X(SITE_LIST,               "site-list",               0x6d6fa00b)           \
    X(SITE_ID,                 "site-id",                 0x59a72353)           \
    X(ORIGIN,                  "origin",                  0x775cf168)           \
    X(ORIGINATOR,              "originator",              0x470748d8)           \
    X(GROUP,                   "group-id",                0x7ce0369b)           \
    X(DOMAIN,                  "domain-id",               0x1beabc63)           \
    X(PFX_LIST_IPV4,           "prefix-list",             0x5dc389d2)           \
    X(PFX_LIST_IPV6,           "ipv6-prefix-list",        0x1acbe4b9)           \
    X(COLOR_LIST,              "color-list",              0x3129eae5)           \
    /* route-policy sequences */                                                \
    X(OSPF_TAG,                "ospf-tag",                0x06c5a139)           \
    X(METRIC,                  "metric",                  0x0e042d5a)           \
    X(ROUTE_PFX_LIST,          "ip-prefix-list",          0x4b843099)           \
    /* data and app-route policies: VPN list and default action */             \
    X(SLA_CLASS,               "sla-class",               0x1fc19c53)           \
    X(SLA_STRICT,              "strict",                  0x5c327362)           \
    X(SLA_PREFERRED_COLOR,     "preferred-color",         0x6464ce5d)           \
    /* data-policy sequences */                                                 \
    X(TRAFFIC_CATEGORY,        "traffic-category",        0x454f2e48)           \
    X(SIG,                     "sig",                     0x61705720)           \
    X(POLICER,                 "policer",                 0x58e2217b)           \
    X(DST_PFX_LIST,            "destination-data-prefix-list", 0x4db8ee1a)      \
    X(DST_PFX6_LIST,           "destination-data-ipv6-prefix-list", 0x71567138) \
    X(NAT_FALLBACK,            "fallback",                0x5023aaed)           \
    X(NAT_VPN,                 "use-vpn",                 0x19c134f9)           \
    X(REDIRECT_DNS,            "redirect-dns",            0x22cdcc44)           \
    X(NEXT_HOP_V6,             "next-hop-ipv6",           0x2ed1c031)           \
    X(PROTOCOL,                "protocol",                0x3838f6e1) /* also the cflowd protocol */ \
    X(DSCP,                    "dscp",                    0x42a50984) /* match list, set value, probe DSCP */ \
    X(LOSS_PROTECT,            "loss-protect",            0x2b537dc4)           \
    X(CFLOWD,                  "cflowd",                  0x2bf83993)           \
    X(PKT_DUP,                 "packet-duplication",      0x0f472580)           \
    X(SAAS_APP_LIST,           "cloud-saas-app-list",     0x07441945)           \
    X(COUNT,                   "count",                   0x0ac83abe)           \
    X(TCP_OPT,                 "tcp-optimization",        0x6f889001)           \
    X(SSL_OPT,                 "ssl-optimization",        0x7c9e7c08)           \
    X(FWD_CLASS,               "forwarding-class",        0x6854f46f)           \
    X(SRC_PFX6_LIST,           "source-data-ipv6-prefix-list", 0x5754b118)      \
    X(DNS_APP_LIST,            "dns-app-list",            0x5a06eb58)           \
    X(APP_LIST,                "app-list",                0x542ece51)           \
    X(TCP,                     "tcp",                     0x4f1498b9)           \
    X(LOG,                     "log",                     0x4ca57cf4)           \
    X(FEC,                     "forward-error-correction", 0x24c9f321)          \
    X(BACKUP_SLA_PREFERRED_COLOR, "backup-sla-preferred-color", 0x23e66386)     \
    X(CLOUD_SAAS,              "cloud-saas",              0x041fd7df)           \
    X(PLP,                     "plp",                     0x6e505df6)           \
    X(DST_PORT,                "destination-port",        0x6475b955) /* also its range type */ \
    X(NEXT_HOP,                "next-hop",                0x70a1c5a8)           \
    X(NAT_POOL,                "pool",                    0x7273b107)           \
    /* data-policy match arrays: the tag chooses the array of the sequence */  \
    X(SRC_IP,                  "source-ip",               0x553788af)           \
    X(SRC_IPV6,                "source-ipv6",             0x3ade449f)           \
    X(DST_IP,                  "destination-ip",          0x22688857)           \
    X(DST_IPV6,                "destination-ipv6",        0x7277a1c1)           \
    X(PACKET_LENGTH,           "packet-length",           0x5b2c4c8c)           \
    X(ICMP_MSG,                "icmp-msg",                0x2ab85e1b)           \
    X(ICMP6_MSG,               "icmp6-msg",               0x0e190ee1)           \
    /* SLA classes, app-probe classes, policers, cflowd templates */            \
    X(SLA_LOSS,                "loss",                    0x310b3d83)           \
    X(SLA_LATENCY,             "latency",                 0x0d2d5314)           \
    X(SLA_JITTER,              "jitter",                  0x3993d8d3)           \
    X(APP_PROBE_CLASS,         "app-probe-class",         0x3755da40)           \
    X(POLICER_RATE,            "rate",                    0x31c4ad27)           \
    X(POLICER_BURST,           "burst",                   0x4b124597)           \
    X(POLICER_EXCEED,          "exceed",                  0x03fe4de6)           \
    X(FLOW_SAMPLING_INTERVAL,  "flow-sampling-interval",  0x27dc9141)           \
    X(FLOW_ACTIVE_TIMEOUT,     "flow-active-timeout",     0x30b9ffcc)           \
    X(FLOW_INACTIVE_TIMEOUT,   "flow-inactive-timeout",   0x7043dbf2)           \
    X(TEMPLATE_REFRESH,        "template-refresh",        0x6ab7ae31)           \
    X(SOURCE_INTERFACE,        "source-interface",        0x4661271b)           \
    /* the remaining names, with tags of this project's own (0x7a70xxxx) */     \
    X(POLICY,                  "policy",                  0x7a700001)           \
    X(LISTS,                   "lists",                   0x7a700002)           \
    X(NAME,                    "name",                    0x7a700003)           \
    X(SITE,                    "site",                    0x7a700004)           \
    X(RANGE,                   "range",                   0x7a700005)           \
    X(ENTRY,                   "entry",                   0x7a700006)           \
    X(PREFIX,                  "prefix",                  0x7a700007)           \
    X(COMMUNITY_LIST,          "community-list",          0x7a700008)           \
    X(EXPANDED_COMMUNITY_LIST, "expanded-community-list", 0x7a700009)           \
    X(PATTERN,                 "pattern",                 0x7a70000a)           \
    X(CONTROL_POLICY,          "control-policy",          0x7a70000b)           \
    X(SEQUENCE,                "sequence",                0x7a70000c)           \
    X(SEQ,                     "seq",                     0x7a70000d)           \
    X(MATCH,                   "match",                   0x7a70000e)           \
    X(KIND,                    "kind",                    0x7a70000f)           \
    X(SET,                     "set",                     0x7a700010)           \
    X(ROUTE_POLICY,            "route-policy",            0x7a700011)           \
    X(MEMBERSHIP_POLICY,       "membership-policy",       0x7a700012)           \
    /* The source-port array's own tag is the packet-duplication leaf's, so  \
       the source-port leaf has a tag of this project's and the reader hands \
       its ranges over under PKT_DUP, the tag that chooses that array. */    \
    X(SRC_PORT,                "source-port",             0x7a700013)           \
    X(SRC_PFX_LIST,            "source-data-prefix-list", 0x7a700014)           \
    X(DNS,                     "dns",                     0x7a700015)           \
    X(NAT,                     "nat",                     0x7a700016) /* container */ \
    X(LOSS_PROTECTION,         "loss-protection",         0x7a700017) /* container */ \
    X(LOCAL_TLOC,              "local-tloc",              0x7a700018) /* container */ \
    X(LOCAL_TLOC_LIST,         "local-tloc-list",         0x7a700019) /* container */ \
    X(RESTRICT,                "restrict",                0x7a70001a)           \
    X(SERVICE_LOCAL,           "local",                   0x7a70001b)           \
    X(DATA_PREFIX_LIST,        "data-prefix-list",        0x7a70001c)           \
    X(DATA_IPV6_PREFIX_LIST,   "data-ipv6-prefix-list",   0x7a70001d)           \
    X(APP,                     "app",                     0x7a70001e)           \
    X(APP_FAMILY,              "app-family",              0x7a70001f)           \
    X(APP_ID,                  "app-id",                  0x7a700020)           \
    X(DATA_POLICY,             "data-policy",             0x7a700021)           \
    X(APP_ROUTE_POLICY,        "app-route-policy",        0x7a700022)           \
    X(CFLOWD_TEMPLATE,         "cflowd-template",         0x7a700023)           \
    X(COLLECTOR,               "collector",               0x7a700024)           \
    X(PORT,                    "port",                    0x7a700025)           \
    X(TRANSPORT,               "transport",               0x7a700026)           \
    /* which policies each edge router gets: read by the host, not the readers */ \
    X(APPLY_POLICY,            "apply-policy",            0x7a700027)           \
    X(EDGE,                    "edge",                    0x7a700028)           \
    X(DATA_POLICY_FROM_SERVICE, "data-policy-from-service", 0x7a700029)         \
    X(DATA_POLICY_FROM_TUNNEL, "data-policy-from-tunnel", 0x7a70002a)
/* clang-format on */

#endif /* ZEN_POLICY_TAGS_H */
