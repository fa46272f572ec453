// Address value operations, printers, containment and namers of the host.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include <zen/ip_util.h>
#include <zen/zen_types.h>
#include <zen/zen_util.h>

namespace {

// "a.b.c.d", "x:y::z" or "?" (type unknown); a trailing '*' fills the bytes
// no operation may look at (past an IPv4 word, or all of an unknown) with junk.
t_ipaddr A(std::string s)
{
    const bool junk = !s.empty() && s.back() == '*';
    s = s.substr(0, s.size() - junk);
    const bool v6 = s.find(':') != std::string::npos;
    t_ipaddr a;
    IPADDR_INIT(&a, s == "?" ? IP_ADDR_UNKNOWN : v6 ? IP_ADDR_V6 : IP_ADDR_V4);
    EXPECT_TRUE(s == "?" || inet_pton(v6 ? AF_INET6 : AF_INET, s.c_str(), a.u.addr6_b) == 1) << s;
    if (junk) {
        std::memset(&a.u.addr6_b[a.addr_type == IP_ADDR_V4 ? 4 : 0], 0x5a, a.addr_type == IP_ADDR_V4 ? 12 : 16);
    }
    return a;
}

// "ADDR/LEN" with ADDR as for A.
t_ipprefix P(const std::string &s)
{
    t_ipprefix p{};
    p.addr = A(s.substr(0, s.find('/')));
    p.prefixlen = static_cast<uint8_t>(std::stoi(s.substr(s.find('/') + 1)));
    return p;
}

t_tloc_id T(const char *addr, uint8_t color, uint8_t encap)
{
    return t_tloc_id{A(addr), color, encap};
}

// Prints v into a buffer of '#' of the given size: the text must be
// terminated within it, the buffer returned, and nothing past it touched.
template <typename V>
std::string print(char *(*fn)(const V *, char *, size_t), const V &v, size_t size = 64)
{
    std::array<char, 96> buf;
    buf.fill('#');
    EXPECT_EQ(fn(&v, buf.data(), size), buf.data());
    EXPECT_TRUE(std::all_of(buf.begin() + size, buf.end(), [](char c) { return c == '#'; })) << size;
    EXPECT_TRUE(size == 0 || strnlen(buf.data(), size) < size) << "unterminated at size " << size;
    return std::string(buf.data(), strnlen(buf.data(), size));
}

} // namespace

TEST(IpUtil, Orders)
{
    const int little = std::endian::native == std::endian::little ? 1 : -1;
    struct { const char *a, *b; int want; } const cases[] = {
        // Type first: unknown, then every IPv4, then IPv6.
        {"?", "255.255.255.255", -1}, {"255.255.255.255", "?", 1}, {"?", "::", -1},
        {"255.255.255.255", "::", -1}, {"::", "255.255.255.255", 1},
        // IPv4 by the stored word read as a host integer; bytes past it ignored.
        {"10.0.0.2", "10.0.0.2", 0}, {"10.0.0.2", "9.0.0.3", -little}, {"9.0.0.3", "10.0.0.2", little},
        {"192.0.2.1", "192.0.2.1*", 0},
        // IPv6 byte-wise, normalised to -1/0/1.
        {"2001:db8::1", "2001:db8::2", -1}, {"2001:db8::2", "2001:db9::", -1}, {"fe80::", "2001:db8::1", 1},
        {"2001:db8::1", "2001:db8::1", 0}, {"ff00::", "100::", 1},
        // Prefixes: address, then length.
        {"10.0.0.0/8", "10.0.0.0/16", -1}, {"10.0.0.0/16", "10.0.0.0/8", 1}, {"10.0.0.0/8", "10.0.0.0/8", 0},
        {"10.0.0.0/16", "10.0.0.1/0", -1},
    };
    for (const auto &c : cases) {
        if (std::strchr(c.a, '/') != nullptr) {
            const t_ipprefix a = P(c.a), b = P(c.b);
            EXPECT_EQ(IPPREFIX_CMP(&a, &b), c.want) << c.a << " vs " << c.b;
        } else {
            const t_ipaddr a = A(c.a), b = A(c.b);
            EXPECT_EQ(IPADDR_CMP(&a, &b), c.want) << c.a << " vs " << c.b;
        }
    }
    const t_ipprefix p8 = P("10.0.0.0/8");
    EXPECT_TRUE(IPPREFIX_IS_V4(&p8));

    // TLOCs, ascending: address outranks colour, colour outranks encapsulation.
    const t_tloc_id tl[] = {T("10.0.0.1", 5, 1), T("10.0.0.1", 5, 2), T("10.0.0.1", 6, 1), T("::1", 1, 1)};
    for (int i = 0; i < 4; i++) {
        t_tloc_id copy{};
        TLOC_COPY(&copy, &tl[i]);
        for (int j = 0; j < 4; j++) {
            EXPECT_EQ(TLOC_CMP(&copy, &tl[j]), (i > j) - (i < j)) << i << " vs " << j;
        }
    }
}

TEST(IpUtilDeathTest, UnknownTypesAbortWithAssertionText)
{
    const t_ipaddr a = A("?"), b = A("?");
    EXPECT_DEATH({ dup2(2, 1); (void)IPADDR_CMP(&a, &b); }, "\\.\\./\\.\\./git/common/ip_util:260: failed assertion `0'");
}

TEST(IpUtil, ValueOperations)
{
    const std::pair<const char *, bool> zeros[] = {{"?*", true},     {"0.0.0.0*", true}, {"::", true},
                                                   {"0.0.0.1", false}, {"::1", false},     {"8000::", false}};
    for (const auto &[text, zero] : zeros) {
        const t_ipaddr a = A(text);
        EXPECT_EQ(IPADDR_IS_ZERO(&a), zero) << text;
    }

    // Copying an IPv4 address leaves the bytes past its word alone.
    t_ipaddr dst = A("::"), s4 = A("192.0.2.7"), s6 = A("2001:db8::ff");
    std::memset(dst.u.addr6_b, 0xab, 16);
    IPADDR_COPY(&dst, &s4);
    EXPECT_TRUE(dst.addr_type == IP_ADDR_V4 && dst.u.addr4.s_addr == s4.u.addr4.s_addr);
    EXPECT_TRUE(std::all_of(&dst.u.addr6_b[4], &dst.u.addr6_b[16], [](uint8_t b) { return b == 0xab; }));
    IPADDR_COPY(&dst, &s6);
    EXPECT_EQ(IPADDR_CMP(&dst, &s6), 0);

    uint32_t out = 0xdeadbeef;
    IPADDR_GET_IPV4(&s4, &out);
    EXPECT_EQ(out, htonl(0xc0000207));
    IPADDR_GET_IPV4(&s6, &out);
    EXPECT_EQ(out, 0u);
    t_ipaddr c = A("?");
    IPADDR_SET_V4(&c, htonl(0x7f000001));
    EXPECT_TRUE(IPADDR_IS_V4(&c));
    EXPECT_EQ(print(ipaddr_print, c), "127.0.0.1");
}

TEST(Printers, AddressesPrefixesAndTlocs)
{
    const char *all_f = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
    struct { const char *addr; size_t size; const char *want; } const addrs[] = {
        {"10.1.2.3", 64, "10.1.2.3"}, {"255.255.255.255", 64, "255.255.255.255"},
        {"2001:db8:0:0:0:0:0:1", 64, "2001:db8::1"}, {"::", 64, "::"}, {all_f, 64, all_f}, {"?", 64, "unknown"},
        // Cut short within the size, below inet_ntop's own limit too.
        {"10.1.2.3", 5, "10.1"}, {all_f, 10, "ffff:ffff"}, {"10.1.2.3", 1, ""}, {"10.1.2.3", 0, ""},
    };
    for (const auto &c : addrs) {
        EXPECT_EQ(print(ipaddr_print, A(c.addr), c.size), c.want) << c.addr << " in " << c.size;
    }
    t_ipaddr bad = A("?");
    bad.addr_type = static_cast<e_ipaddr_type>(7);
    EXPECT_EQ(print(ipaddr_print, bad), "unknown");

    EXPECT_EQ(print(ipprefix_print, P("10.0.0.0/8")), "10.0.0.0/8");
    EXPECT_EQ(print(ipprefix_print, P("2001:db8::/128")), "2001:db8::/128");
    EXPECT_EQ(print(ipprefix_print, P("0.0.0.0/0")), "0.0.0.0/0");
    EXPECT_EQ(print(ipprefix_print, P("?/255")), "unknown/255");
    EXPECT_EQ(print(ipprefix_print, P("2001:db8::/32"), 12), "2001:db8::/");

    const t_tloc_id t = T("10.0.0.1", 10, 2), u = T("?", 0, 3);
    EXPECT_EQ(print(tloc_id_print, t), "addr 10.0.0.1 color blue encap ipsec");
    EXPECT_EQ(print(tloc_id_print, T("2001:db8::7", 22, 1)), "addr 2001:db8::7 color private6 encap gre");
    EXPECT_EQ(print(tloc_id_print, u), "addr unknown color unknown encap unknown");
    EXPECT_EQ(print(tloc_id_print, t, 12), "addr 10.0.0");
    EXPECT_EQ(print(tloc_id_print_short, t), "10.0.0.1:blue:ipsec");
    EXPECT_EQ(print(tloc_id_print_short, u), "unknown:unknown:unknown");
    EXPECT_EQ(print(tloc_id_print_short, t, 11), "10.0.0.1:b");
}

TEST(Containment, Table)
{
    struct { const char *inner, *outer; bool want; } const cases[] = {
        {"10.1.0.0/16", "10.0.0.0/8", true}, {"10.0.0.0/8", "10.0.0.0/8", true},
        {"11.0.0.0/16", "10.0.0.0/8", false},
        {"10.0.0.0/8", "10.0.0.0/16", false},  // a shorter inner prefix is never inside
        {"10.9.9.9/32", "10.1.2.3/8", true},   // host bits of the outer prefix play no part
        {"10.127.255.255/32", "10.0.0.0/9", true}, {"10.128.0.0/32", "10.0.0.0/9", false},
        {"192.0.2.5/32", "192.0.2.4/31", true}, {"192.0.2.6/32", "192.0.2.4/31", false},
        {"2001:db8::1/128", "2001:db8::/127", true}, {"2001:db8::2/128", "2001:db8::/127", false},
        {"2001:db8:ffff::/48", "2001:db8:8000::/33", true}, {"2001:db8:7fff::/48", "2001:db8:8000::/33", false},
        // Full length is an exact match.
        {"10.0.0.1/32", "10.0.0.1/32", true}, {"10.0.0.2/32", "10.0.0.1/32", false},
        {"2001:db8::1/128", "2001:db8::1/128", true}, {"2001:db8::1/128", "3001:db8::1/128", false},
        // Length zero holds its own family only; unknown holds nothing.
        {"203.0.113.9/32", "0.0.0.0/0", true}, {"0.0.0.0/0", "0.0.0.0/0", true}, {"ffff::/16", "::/0", true},
        {"203.0.113.9/32", "::/0", false}, {"::/128", "0.0.0.0/0", false}, {"0.0.0.0/32", "::/0", false},
        {"?/0", "?/0", false}, {"10.0.0.0/8", "?/0", false}, {"?/0", "0.0.0.0/0", false},
        // Lengths past the width clamp to it; IPv4 bytes 4..15 never count.
        {"10.0.0.1/255", "10.0.0.1*/255", true}, {"10.0.0.1/32", "10.0.0.1*/40", true},
        {"10.0.0.2/255", "10.0.0.1/33", false}, {"2001:db8::1/200", "2001:db8::1/255", true},
        {"2001:db8::1/128", "2001:db8::1/129", true}, {"2001:db8::3/200", "2001:db8::1/200", false},
    };
    for (const auto &c : cases) {
        const t_ipprefix inner = P(c.inner), outer = P(c.outer);
        EXPECT_EQ(ipprefix_is_contained(&inner, &outer), c.want) << c.inner << " in " << c.outer;
    }
}

TEST(Namers, ColoursEncapsulationsAndServices)
{
    std::set<std::string> seen;
    for (uint32_t c = 1; c <= ZEN_TLOC_COLOR_MAX; ++c) {
        const char *n = zen_util_tloc_color_name(c);
        EXPECT_TRUE(n != nullptr && std::strcmp(n, "unknown") != 0 && seen.insert(n).second) << "colour " << c;
    }
    const auto color = zen_util_tloc_color_name, encap = zen_util_tloc_encap_name, svc = zen_util_svc_name;
    struct { const char *(*namer)(uint32_t); uint32_t code; const char *want; } const cases[] = {
        {color, 1, "default"}, {color, 5, "public-internet"}, {color, ZEN_TLOC_COLOR_MAX, "private6"},
        {color, 0, "unknown"}, {color, ZEN_TLOC_COLOR_MAX + 1, "unknown"}, {color, 255, "unknown"},
        {color, 0xffffffff, "unknown"}, {encap, ZEN_TLOC_ENCAP_GRE, "gre"},
        {encap, ZEN_TLOC_ENCAP_IPSEC_TUNNEL, "ipsec"}, {encap, 0, "unknown"}, {encap, 3, "unknown"},
        {encap, 0xffffffff, "unknown"}, {svc, 1, "firewall"}, {svc, 3, "ips"}, {svc, 8, "netsvc5"},
        {svc, 0, "unknown"}, {svc, 9, "unknown"}, {svc, 0xffffffff, "unknown"},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(c.namer(c.code), c.want) << c.code;
    }
}
