// Names of value kinds and operations, and value texts, for messages and
// traces.
#include <zen/mgmtd_ds.h>

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdio>

extern "C" {

const char *mgmtd_iter_op_name(mgmtd_iter_op oper)
{
    switch (oper) {
    case MOP_CREATED:
        return "create";
    case MOP_DELETED:
        return "delete";
    case MOP_MODIFIED:
        return "modify";
    default:
        return "other";
    }
}

const char *mgmtd_value_type_name(enum mgmtd_vtype type)
{
    switch (type) {
    case C_NOEXISTS:
        return "C_NOEXISTS";
    case C_BUF:
        return "C_BUF";
    case C_UINT8:
        return "C_UINT8";
    case C_UINT16:
        return "C_UINT16";
    case C_UINT32:
        return "C_UINT32";
    case C_UINT64:
        return "C_UINT64";
    case C_IPV4:
        return "C_IPV4";
    case C_IPV6:
        return "C_IPV6";
    case C_BOOL:
        return "C_BOOL";
    case C_ENUM_VALUE:
        return "C_ENUM_VALUE";
    case C_BIT32:
        return "C_BIT32";
    case C_LIST:
        return "C_LIST";
    case C_XMLBEGIN:
        return "C_XMLBEGIN";
    case C_XMLEND:
        return "C_XMLEND";
    case C_IPV4PREFIX:
        return "C_IPV4PREFIX";
    case C_IPV6PREFIX:
        return "C_IPV6PREFIX";
    }
    return "C_UNKNOWN";
}

char *mgmtd_value_print(const mgmtd_value_t *value, char *buf, size_t size)
{
    if (size == 0) {
        return buf;
    }
    char addr[INET6_ADDRSTRLEN] = "";
    switch (value->type) {
    case C_BUF:
        std::snprintf(buf, size, "%s", reinterpret_cast<const char *>(value->val.buf.ptr));
        break;
    case C_UINT8:
        std::snprintf(buf, size, "%u", static_cast<unsigned>(value->val.u8));
        break;
    case C_UINT16:
        std::snprintf(buf, size, "%u", static_cast<unsigned>(value->val.u16));
        break;
    case C_UINT32:
        std::snprintf(buf, size, "%" PRIu32, value->val.u32);
        break;
    case C_UINT64:
        std::snprintf(buf, size, "%" PRIu64, value->val.u64);
        break;
    case C_BOOL:
        std::snprintf(buf, size, "%s", value->val.boolean != 0 ? "true" : "false");
        break;
    case C_ENUM_VALUE:
        std::snprintf(buf, size, "%" PRId32, value->val.enumvalue);
        break;
    case C_BIT32:
        std::snprintf(buf, size, "0x%" PRIx32, value->val.b32);
        break;
    case C_IPV4:
        inet_ntop(AF_INET, &value->val.ip, addr, sizeof(addr));
        std::snprintf(buf, size, "%s", addr);
        break;
    case C_IPV6:
        inet_ntop(AF_INET6, &value->val.ip6, addr, sizeof(addr));
        std::snprintf(buf, size, "%s", addr);
        break;
    case C_IPV4PREFIX:
        inet_ntop(AF_INET, &value->val.ipv4prefix.ip, addr, sizeof(addr));
        std::snprintf(buf, size, "%s/%u", addr, static_cast<unsigned>(value->val.ipv4prefix.len));
        break;
    case C_IPV6PREFIX:
        inet_ntop(AF_INET6, &value->val.ipv6prefix.ip6, addr, sizeof(addr));
        std::snprintf(buf, size, "%s/%u", addr, static_cast<unsigned>(value->val.ipv6prefix.len));
        break;
    case C_LIST: {
        size_t used = static_cast<size_t>(std::snprintf(buf, size, "["));
        for (uint32_t i = 0; i < value->val.list.size && used < size; i++) {
            char item[128];
            mgmtd_value_print(&value->val.list.ptr[i], item, sizeof(item));
            used += static_cast<size_t>(
                std::snprintf(buf + used, size - used, "%s%s", i == 0 ? "" : " ", item));
        }
        if (used < size) {
            std::snprintf(buf + used, size - used, "]");
        }
        break;
    }
    default:
        buf[0] = '\0';
        break;
    }
    return buf;
}

}  // extern "C"
