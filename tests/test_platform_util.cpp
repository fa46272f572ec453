// Address value operations, printers, containment and namers of the host.
#include <arpa/inet.h>
#include <unistd.h>

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

t_ipaddr v4(const char *text)
{
    t_ipaddr a;
    IPADDR_INIT(&a, IP_ADDR_V4);
    EXPECT_EQ(inet_pton(AF_INET, text, &a.u.addr4), 1) << text;
    return a;
}

t_ipaddr v6(const char *text)
{
    t_ipaddr a;
    IPADDR_INIT(&a, IP_ADDR_V6);
    EXPECT_EQ(inet_pton(AF_INET6, text, a.u.addr6_b), 1) << text;
    return a;
}

t_ipaddr unknown_addr()
{
    t_ipaddr a;
    IPADDR_INIT(&a, IP_ADDR_UNKNOWN);
    return a;
}

t_ipprefix pfx(const t_ipaddr &a, unsigned len)
{
    t_ipprefix p{};
    p.addr = a;
    p.prefixlen = static_cast<uint8_t>(len);
    return p;
}

t_tloc_id tloc(const t_ipaddr &a, uint8_t color, uint8_t encap)
{
    t_tloc_id t{};
    t.addr = a;
    t.color = color;
    t.encap = encap;
    return t;
}

bool contained(const t_ipprefix &inner, const t_ipprefix &outer)
{
    return ipprefix_is_contained(&inner, &outer);
}

} // namespace

// ---- value operations of ip_util.h ----------------------------------------

TEST(IpAddrCmp, TypeOrderComesFirst)
{
    t_ipaddr unk = unknown_addr();
    t_ipaddr hi4 = v4("255.255.255.255");
    t_ipaddr zero6 = v6("::");

    EXPECT_EQ(IPADDR_CMP(&unk, &hi4), -1);
    EXPECT_EQ(IPADDR_CMP(&hi4, &unk), 1);
    EXPECT_EQ(IPADDR_CMP(&unk, &zero6), -1);
    // Any IPv4 address sorts before even the all-zero IPv6 address.
    EXPECT_EQ(IPADDR_CMP(&hi4, &zero6), -1);
    EXPECT_EQ(IPADDR_CMP(&zero6, &hi4), 1);
}

TEST(IpAddrCmp, Ipv4UsesStoredWordAsHostInteger)
{
    t_ipaddr a = v4("10.0.0.2");
    t_ipaddr b = v4("9.0.0.3");
    t_ipaddr c = v4("10.0.0.2");

    EXPECT_EQ(IPADDR_CMP(&a, &c), 0);
    if constexpr (std::endian::native == std::endian::little) {
        // The first octet is the word's low byte here, so the last octet
        // weighs most: 10.0.0.2 sorts before 9.0.0.3.
        EXPECT_EQ(IPADDR_CMP(&a, &b), -1);
        EXPECT_EQ(IPADDR_CMP(&b, &a), 1);
    } else {
        EXPECT_EQ(IPADDR_CMP(&a, &b), 1);
    }
}

TEST(IpAddrCmp, Ipv4IgnoresBytesPastTheWord)
{
    t_ipaddr a = v4("192.0.2.1");
    t_ipaddr b = a;
    std::memset(&b.u.addr6_b[4], 0xee, 12);
    EXPECT_EQ(IPADDR_CMP(&a, &b), 0);
}

TEST(IpAddrCmp, Ipv6IsBytewise)
{
    t_ipaddr a = v6("2001:db8::1");
    t_ipaddr b = v6("2001:db8::2");
    t_ipaddr c = v6("2001:db9::");
    t_ipaddr d = v6("fe80::");

    EXPECT_EQ(IPADDR_CMP(&a, &b), -1);
    EXPECT_EQ(IPADDR_CMP(&b, &c), -1);
    EXPECT_EQ(IPADDR_CMP(&d, &a), 1);
    EXPECT_EQ(IPADDR_CMP(&a, &a), 0);
    // Results are normalised to -1/0/1 whatever memcmp's magnitude.
    t_ipaddr far_hi = v6("ff00::");
    t_ipaddr far_lo = v6("100::");
    EXPECT_EQ(IPADDR_CMP(&far_hi, &far_lo), 1);
}

TEST(IpAddrCmpDeathTest, UnknownTypesAbortWithAssertionText)
{
    t_ipaddr a = unknown_addr();
    t_ipaddr b = unknown_addr();
    EXPECT_DEATH(
        {
            dup2(2, 1);
            (void)IPADDR_CMP(&a, &b);
        },
        "\\.\\./\\.\\./git/common/ip_util:260: failed assertion `0'");
}

TEST(TlocCmp, AddressThenColourThenEncap)
{
    t_ipaddr lo = v4("10.0.0.1");
    t_ipaddr hi = v6("::1");

    t_tloc_id base = tloc(lo, 5, 1);
    t_tloc_id enc2 = tloc(lo, 5, 2);
    t_tloc_id col6 = tloc(lo, 6, 1);
    t_tloc_id other = tloc(hi, 1, 1);

    EXPECT_EQ(TLOC_CMP(&base, &enc2), -1);
    EXPECT_EQ(TLOC_CMP(&enc2, &base), 1);
    // Colour outranks encapsulation.
    EXPECT_EQ(TLOC_CMP(&enc2, &col6), -1);
    // Address outranks colour.
    EXPECT_EQ(TLOC_CMP(&col6, &other), -1);
    t_tloc_id copy{};
    TLOC_COPY(&copy, &enc2);
    EXPECT_EQ(TLOC_CMP(&copy, &enc2), 0);
}

TEST(IpPrefixCmp, AddressThenLength)
{
    t_ipprefix p8 = pfx(v4("10.0.0.0"), 8);
    t_ipprefix p16 = pfx(v4("10.0.0.0"), 16);
    t_ipprefix q = pfx(v4("10.0.0.1"), 0);

    EXPECT_EQ(IPPREFIX_CMP(&p8, &p16), -1);
    EXPECT_EQ(IPPREFIX_CMP(&p16, &p8), 1);
    EXPECT_EQ(IPPREFIX_CMP(&p8, &p8), 0);
    // The address decides before the length does.
    EXPECT_EQ(IPPREFIX_CMP(&p16, &q), -1);
    EXPECT_TRUE(IPPREFIX_IS_V4(&p8));
}

TEST(IpAddrValue, IsZeroPerType)
{
    t_ipaddr unk = unknown_addr();
    std::memset(&unk.u, 0xff, sizeof(unk.u));
    EXPECT_TRUE(IPADDR_IS_ZERO(&unk));

    t_ipaddr z4 = v4("0.0.0.0");
    std::memset(&z4.u.addr6_b[4], 0xff, 12);  // ignored for IPv4
    EXPECT_TRUE(IPADDR_IS_ZERO(&z4));
    t_ipaddr n4 = v4("0.0.0.1");
    EXPECT_FALSE(IPADDR_IS_ZERO(&n4));

    t_ipaddr z6 = v6("::");
    EXPECT_TRUE(IPADDR_IS_ZERO(&z6));
    t_ipaddr n6 = v6("::1");
    EXPECT_FALSE(IPADDR_IS_ZERO(&n6));
    t_ipaddr h6 = v6("8000::");
    EXPECT_FALSE(IPADDR_IS_ZERO(&h6));
}

TEST(IpAddrValue, CopyOfIpv4LeavesTailUntouched)
{
    t_ipaddr dst;
    IPADDR_INIT(&dst, IP_ADDR_V6);
    std::memset(dst.u.addr6_b, 0xab, 16);
    t_ipaddr src = v4("192.0.2.7");

    IPADDR_COPY(&dst, &src);
    EXPECT_EQ(dst.addr_type, IP_ADDR_V4);
    EXPECT_EQ(dst.u.addr4.s_addr, src.u.addr4.s_addr);
    for (int i = 4; i < 16; ++i) {
        EXPECT_EQ(dst.u.addr6_b[i], 0xab) << "byte " << i;
    }

    t_ipaddr s6 = v6("2001:db8::ff");
    IPADDR_COPY(&dst, &s6);
    EXPECT_EQ(IPADDR_CMP(&dst, &s6), 0);
    EXPECT_EQ(dst.u.addr6_b[15], 0xff);
}

TEST(IpAddrValue, GetIpv4)
{
    uint32_t out = 0xdeadbeef;
    t_ipaddr a = v4("10.1.2.3");
    IPADDR_GET_IPV4(&a, &out);
    EXPECT_EQ(out, htonl(0x0a010203));

    out = 0xdeadbeef;
    t_ipaddr b = v6("::a01:203");
    IPADDR_GET_IPV4(&b, &out);
    EXPECT_EQ(out, 0u);

    t_ipaddr c;
    IPADDR_INIT(&c, IP_ADDR_UNKNOWN);
    IPADDR_SET_V4(&c, htonl(0x7f000001));
    EXPECT_TRUE(IPADDR_IS_V4(&c));
    char buf[32];
    EXPECT_STREQ(ipaddr_print(&c, buf, sizeof buf), "127.0.0.1");
}

// ---- printers -------------------------------------------------------------

TEST(Printers, Addresses)
{
    char buf[64];
    t_ipaddr a = v4("10.1.2.3");
    EXPECT_EQ(ipaddr_print(&a, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "10.1.2.3");
    a = v4("255.255.255.255");
    EXPECT_STREQ(ipaddr_print(&a, buf, sizeof buf), "255.255.255.255");

    t_ipaddr b = v6("2001:db8:0:0:0:0:0:1");
    EXPECT_STREQ(ipaddr_print(&b, buf, sizeof buf), "2001:db8::1");
    b = v6("::");
    EXPECT_STREQ(ipaddr_print(&b, buf, sizeof buf), "::");
    b = v6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_STREQ(ipaddr_print(&b, buf, sizeof buf), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");

    t_ipaddr u = unknown_addr();
    EXPECT_STREQ(ipaddr_print(&u, buf, sizeof buf), "unknown");
    u.addr_type = static_cast<e_ipaddr_type>(7);
    EXPECT_STREQ(ipaddr_print(&u, buf, sizeof buf), "unknown");
}

TEST(Printers, TruncateWithinSize)
{
    std::array<char, 16> buf;
    t_ipaddr a = v4("10.1.2.3");

    buf.fill('#');
    EXPECT_STREQ(ipaddr_print(&a, buf.data(), 5), "10.1");
    EXPECT_EQ(buf[5], '#');

    // A long IPv6 text must stop short of inet_ntop's own length limit.
    t_ipaddr b = v6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    buf.fill('#');
    EXPECT_STREQ(ipaddr_print(&b, buf.data(), 10), "ffff:ffff");
    EXPECT_EQ(buf[10], '#');

    buf.fill('#');
    EXPECT_STREQ(ipaddr_print(&a, buf.data(), 1), "");
    EXPECT_EQ(buf[1], '#');

    buf.fill('#');
    EXPECT_EQ(ipaddr_print(&a, buf.data(), 0), buf.data());
    EXPECT_EQ(buf[0], '#');

    t_tloc_id t = tloc(v4("10.0.0.1"), 10, 2);
    buf.fill('#');
    EXPECT_STREQ(tloc_id_print(&t, buf.data(), 12), "addr 10.0.0");
    EXPECT_EQ(buf[12], '#');
    buf.fill('#');
    EXPECT_STREQ(tloc_id_print_short(&t, buf.data(), 11), "10.0.0.1:b");
    t_ipprefix p = pfx(v6("2001:db8::"), 32);
    buf.fill('#');
    EXPECT_STREQ(ipprefix_print(&p, buf.data(), 12), "2001:db8::/");
    EXPECT_EQ(buf[12], '#');
}

TEST(Printers, Prefixes)
{
    char buf[64];
    t_ipprefix p = pfx(v4("10.0.0.0"), 8);
    EXPECT_STREQ(ipprefix_print(&p, buf, sizeof buf), "10.0.0.0/8");
    p = pfx(v6("2001:db8::"), 128);
    EXPECT_STREQ(ipprefix_print(&p, buf, sizeof buf), "2001:db8::/128");
    p = pfx(v4("0.0.0.0"), 0);
    EXPECT_STREQ(ipprefix_print(&p, buf, sizeof buf), "0.0.0.0/0");
    p = pfx(unknown_addr(), 255);
    EXPECT_STREQ(ipprefix_print(&p, buf, sizeof buf), "unknown/255");
}

TEST(Printers, Tlocs)
{
    char buf[96];
    t_tloc_id t = tloc(v4("10.0.0.1"), 10, 2);
    EXPECT_STREQ(tloc_id_print(&t, buf, sizeof buf), "addr 10.0.0.1 color blue encap ipsec");
    EXPECT_STREQ(tloc_id_print_short(&t, buf, sizeof buf), "10.0.0.1:blue:ipsec");

    t = tloc(v6("2001:db8::7"), 22, 1);
    EXPECT_STREQ(tloc_id_print(&t, buf, sizeof buf),
                 "addr 2001:db8::7 color private6 encap gre");

    t = tloc(unknown_addr(), 0, 3);
    EXPECT_STREQ(tloc_id_print(&t, buf, sizeof buf),
                 "addr unknown color unknown encap unknown");
    EXPECT_STREQ(tloc_id_print_short(&t, buf, sizeof buf), "unknown:unknown:unknown");
}

// ---- containment ----------------------------------------------------------

TEST(Containment, Ipv4Basics)
{
    t_ipprefix p8 = pfx(v4("10.0.0.0"), 8);
    EXPECT_TRUE(contained(pfx(v4("10.1.0.0"), 16), p8));
    EXPECT_TRUE(contained(p8, p8));
    EXPECT_FALSE(contained(pfx(v4("11.0.0.0"), 16), p8));
    // A shorter inner prefix is never inside a longer one.
    EXPECT_FALSE(contained(p8, pfx(v4("10.0.0.0"), 16)));
    // Host bits of the outer prefix play no part.
    EXPECT_TRUE(contained(pfx(v4("10.9.9.9"), 32), pfx(v4("10.1.2.3"), 8)));
}

TEST(Containment, BitBoundaries)
{
    t_ipprefix p9 = pfx(v4("10.0.0.0"), 9);
    EXPECT_TRUE(contained(pfx(v4("10.127.255.255"), 32), p9));
    EXPECT_FALSE(contained(pfx(v4("10.128.0.0"), 32), p9));

    t_ipprefix p31 = pfx(v4("192.0.2.4"), 31);
    EXPECT_TRUE(contained(pfx(v4("192.0.2.5"), 32), p31));
    EXPECT_FALSE(contained(pfx(v4("192.0.2.6"), 32), p31));

    t_ipprefix p127 = pfx(v6("2001:db8::"), 127);
    EXPECT_TRUE(contained(pfx(v6("2001:db8::1"), 128), p127));
    EXPECT_FALSE(contained(pfx(v6("2001:db8::2"), 128), p127));

    t_ipprefix p33 = pfx(v6("2001:db8:8000::"), 33);
    EXPECT_TRUE(contained(pfx(v6("2001:db8:ffff::"), 48), p33));
    EXPECT_FALSE(contained(pfx(v6("2001:db8:7fff::"), 48), p33));
}

TEST(Containment, FullLengthIsExactMatch)
{
    EXPECT_TRUE(contained(pfx(v4("10.0.0.1"), 32), pfx(v4("10.0.0.1"), 32)));
    EXPECT_FALSE(contained(pfx(v4("10.0.0.2"), 32), pfx(v4("10.0.0.1"), 32)));
    EXPECT_TRUE(contained(pfx(v6("2001:db8::1"), 128), pfx(v6("2001:db8::1"), 128)));
    EXPECT_FALSE(contained(pfx(v6("2001:db8::1"), 128), pfx(v6("3001:db8::1"), 128)));
}

TEST(Containment, ZeroLengthHoldsItsFamilyOnly)
{
    t_ipprefix any4 = pfx(v4("0.0.0.0"), 0);
    t_ipprefix any6 = pfx(v6("::"), 0);
    EXPECT_TRUE(contained(pfx(v4("203.0.113.9"), 32), any4));
    EXPECT_TRUE(contained(any4, any4));
    EXPECT_TRUE(contained(pfx(v6("ffff::"), 16), any6));
    EXPECT_FALSE(contained(pfx(v4("203.0.113.9"), 32), any6));
    EXPECT_FALSE(contained(pfx(v6("::"), 128), any4));
}

TEST(Containment, FamilyMismatchAndUnknown)
{
    // Same bytes, different family.
    t_ipaddr a4 = v4("0.0.0.0");
    t_ipaddr a6 = v6("::");
    EXPECT_FALSE(contained(pfx(a4, 32), pfx(a6, 0)));
    EXPECT_FALSE(contained(pfx(a6, 128), pfx(a4, 0)));

    t_ipprefix u = pfx(unknown_addr(), 0);
    EXPECT_FALSE(contained(u, u));
    EXPECT_FALSE(contained(pfx(v4("10.0.0.0"), 8), u));
    EXPECT_FALSE(contained(u, pfx(v4("0.0.0.0"), 0)));
}

TEST(Containment, LengthsPastWidthClampToWidth)
{
    // IPv4 bytes 4..15 are not part of the address even at length 255.
    t_ipaddr a = v4("10.0.0.1");
    t_ipaddr b = a;
    std::memset(&b.u.addr6_b[4], 0x5a, 12);
    EXPECT_TRUE(contained(pfx(a, 255), pfx(b, 255)));
    EXPECT_TRUE(contained(pfx(a, 32), pfx(b, 40)));
    EXPECT_FALSE(contained(pfx(v4("10.0.0.2"), 255), pfx(a, 33)));

    t_ipaddr c = v6("2001:db8::1");
    EXPECT_TRUE(contained(pfx(c, 200), pfx(c, 255)));
    EXPECT_TRUE(contained(pfx(c, 128), pfx(c, 129)));
    EXPECT_FALSE(contained(pfx(v6("2001:db8::3"), 200), pfx(c, 200)));
}

// ---- namers ---------------------------------------------------------------

TEST(Namers, ColoursCoverEveryCode)
{
    std::set<std::string> seen;
    for (uint32_t c = 1; c <= ZEN_TLOC_COLOR_MAX; ++c) {
        const char *n = zen_util_tloc_color_name(c);
        ASSERT_NE(n, nullptr) << c;
        EXPECT_STRNE(n, "unknown") << c;
        EXPECT_TRUE(seen.insert(n).second) << "duplicate colour name " << n;
    }
    EXPECT_STREQ(zen_util_tloc_color_name(1), "default");
    EXPECT_STREQ(zen_util_tloc_color_name(5), "public-internet");
    EXPECT_STREQ(zen_util_tloc_color_name(ZEN_TLOC_COLOR_MAX), "private6");
}

TEST(Namers, Fallbacks)
{
    for (uint32_t c : {0u, ZEN_TLOC_COLOR_MAX + 1u, 255u, 0xffffffffu}) {
        EXPECT_STREQ(zen_util_tloc_color_name(c), "unknown") << c;
    }
    EXPECT_STREQ(zen_util_tloc_encap_name(ZEN_TLOC_ENCAP_GRE), "gre");
    EXPECT_STREQ(zen_util_tloc_encap_name(ZEN_TLOC_ENCAP_IPSEC_TUNNEL), "ipsec");
    for (uint32_t e : {0u, 3u, 0xffffffffu}) {
        EXPECT_STREQ(zen_util_tloc_encap_name(e), "unknown") << e;
    }
    EXPECT_STREQ(zen_util_svc_name(1), "firewall");
    EXPECT_STREQ(zen_util_svc_name(3), "ips");
    EXPECT_STREQ(zen_util_svc_name(8), "netsvc5");
    for (uint32_t s : {0u, 9u, 0xffffffffu}) {
        EXPECT_STREQ(zen_util_svc_name(s), "unknown") << s;
    }
}
