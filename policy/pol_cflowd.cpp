// Cflowd templates: the flow-export settings of a cflowd block and the
// ordered set of collectors it exports to. The template lives exactly as
// long as its block; the reader fills the settings directly and adds and
// removes collectors here.
#include "pol_util.hpp"

extern "C" {

void pol_cflowd_block_init(t_pol_ctx *, t_pol_block *block, t_cflowd_entry *tmpl)
{
    block->pol_cflowd_entry = tmpl;
    tmpl->cflowd_pol_block_p = block;
    POL_TREE_CREATE(&tmpl->collector_db, pol_cflowd_entry_cmp, t_cflowd_collector, avl_node);
}

void pol_cflowd_block_deinit(t_pol_ctx *, t_pol_block *block)
{
    t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    if (tmpl == nullptr) {
        return;
    }
    pol::tree<t_cflowd_collector> collectors(&tmpl->collector_db);
    while (t_cflowd_collector *coll = collectors.first()) {
        collectors.remove(coll);
        pol_free(coll, POL_MEM_CFLOWD_COLL_ENTRY);
    }
    avl_destroy(&tmpl->collector_db);
    pol_free(tmpl, POL_MEM_CFLOWD_ENTRY);
    block->pol_cflowd_entry = nullptr;
}

// A collector's identity: VPN, address, port, transport (not the source
// interface).
int pol_cflowd_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_cflowd_collector *>(a);
    const auto *y = static_cast<const t_cflowd_collector *>(b);
    if (int r = pol::cmp3(x->vpn_id, y->vpn_id)) {
        return r;
    }
    if (int r = IPADDR_CMP(&x->addr, &y->addr)) {
        return r;
    }
    if (int r = pol::cmp3(x->port, y->port)) {
        return r;
    }
    return pol::cmp3(x->transport_type, y->transport_type);
}

int pol_cflowd_add_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto)
{
    avl_index_t where = 0;
    auto *coll = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, proto, &where));
    if (coll != nullptr) {
        if (std::strncmp(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE) != 0) {
            pol::copy_name_bounded(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE);
        }
        return 0;
    }
    coll = pol::alloc_record<t_cflowd_collector>(POL_MEM_CFLOWD_COLL_ENTRY);
    if (coll == nullptr) {
        return 1;
    }
    coll->vpn_id = proto->vpn_id;
    coll->port = proto->port;
    coll->transport_type = proto->transport_type;
    IPADDR_COPY(&coll->addr, &proto->addr);
    coll->cflowd_entry_p = tmpl;
    avl_insert(&tmpl->collector_db, coll, where);
    pol::copy_name_bounded(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE);
    return 0;
}

int pol_cflowd_del_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto)
{
    auto *coll = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, proto, nullptr));
    if (coll != nullptr) {
        avl_remove(&tmpl->collector_db, coll);
        pol_free(coll, POL_MEM_CFLOWD_COLL_ENTRY);
    }
    return 0;
}

}  // extern "C"
