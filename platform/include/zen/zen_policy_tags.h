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
    X(MEMBERSHIP_POLICY,       "membership-policy",       0x7a700012)
/* clang-format on */

#endif /* ZEN_POLICY_TAGS_H */
