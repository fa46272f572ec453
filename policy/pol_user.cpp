// Users of policies, their registration, and the pending-change queue.
//
// Mutating operations only queue the users of the blocks they touched (each
// user at most once, at the position of its first queueing); the changer
// flushes once per unit of configuration and every queued user's change
// callback runs exactly once. Callbacks never nest.
#include "pol_util.hpp"

namespace {

// Positions of the running walks over users: the queue flush (the user
// being notified and its queue successor) and a block's direct
// notification (the block's next user). A callback may unqueue, detach or
// unregister any user, itself included: taking a user off the queue or out
// of a block's list moves the cursor that points at it to its successor,
// and unregistering the notified user makes the flush forget it, so no
// walk follows a link into a user that is gone. Walks never nest: inside a
// callback both return before moving a cursor.
struct walk_cursors {
    t_pol_user *notified;
    t_pol_user *queue_next;
    t_pol_user *block_next;
};
walk_cursors g_walk = {};

bool destroying(const t_pol_ctx *ctx)
{
    return (ctx->pol_ctx_flags & POL_CTX_FLAG_DESTROYING) != 0;
}

bool in_callback(const t_pol_ctx *ctx)
{
    return (ctx->pol_ctx_flags & POL_CTX_FLAG_IN_CALLBACK) != 0;
}

bool queued(const t_pol_user *user)
{
    return (user->pol_user_flags & POL_USER_FLAG_QUEUED) != 0;
}

// Takes a user out of its block's list; its links are cleared so that a
// user detached from a deleted block keeps no pointer into it.
void unlink_from_block(t_pol_block *block, t_pol_user *user)
{
    if (user == g_walk.block_next) {
        g_walk.block_next = TAILQ_NEXT(user, pol_block_list_entry);
    }
    TAILQ_REMOVE(&block->users_list, user, pol_block_list_entry);
    user->pol_block_list_entry = {};
}

t_pol_user make_key(const char *user_name, e_pol_type type, e_pol_dir dir)
{
    t_pol_user key{};
    key.pol_type = type;
    key.pol_direction = dir;
    pol::copy_name(key.user_name, user_name);
    return key;
}

}  // namespace

extern "C" {

e_err pol_user_init(t_pol_ctx *ctx)
{
    POL_TREE_CREATE(&ctx->pol_users, pol_user_cmp, t_pol_user, user_node);
    TAILQ_INIT(&ctx->pol_users_chg);
    return ERR_OK;
}

// Type, then direction, then user name: the policy name is not part of the
// key, so a component holds one registration per type and direction.
int pol_user_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_pol_user *>(a);
    const auto *y = static_cast<const t_pol_user *>(b);
    if (int r = pol::cmp3<uint32_t>(x->pol_type, y->pol_type)) {
        return r;
    }
    if (int r = pol::cmp3<uint32_t>(x->pol_direction, y->pol_direction)) {
        return r;
    }
    return pol::fold(std::strncmp(x->user_name, y->user_name, POL_NAME_SIZE));
}

t_pol_user *pol_user_find(t_pol_ctx *ctx, const char *user_name, e_pol_type type, e_pol_dir dir,
                          avl_index_t *where)
{
    t_pol_user key = make_key(user_name, type, dir);
    return static_cast<t_pol_user *>(avl_find(&ctx->pol_users, &key, where));
}

// An existing registration is returned as it is, even when this one names
// another policy or other callbacks; it then holds one registration more.
t_pol_user *pol_user_find_or_create(t_pol_ctx *ctx, const char *user_name, const char *pol_name,
                                    e_pol_type type, e_pol_dir dir, t_pol_change_cb_f chg_cb,
                                    t_pol_label_cb_f label_cb, t_pol_timer_cb_f timer_cb,
                                    void *user_ctx_p)
{
    avl_index_t where = 0;
    if (t_pol_user *found = pol_user_find(ctx, user_name, type, dir, &where)) {
        found->ref_count++;
        return found;
    }
    auto *user = pol::alloc_record<t_pol_user>(POL_MEM_TYPE_POL_USER);
    if (user == nullptr) {
        return nullptr;
    }
    pol::copy_name(user->user_name, user_name);
    user->pol_type = type;
    user->pol_direction = dir;
    user->pol_chg_cb = chg_cb;
    user->pol_label_cb = label_cb;
    user->pol_timer_cb = timer_cb;
    user->user_ctx_p = user_ctx_p;
    user->ref_count = 1;
    t_pol_block *block = pol_block_user_add(ctx, pol_name, type, user);
    if (block == nullptr) {
        pol_free(user, POL_MEM_TYPE_POL_USER);
        return nullptr;
    }
    user->pol_block_p = block;
    avl_insert(&ctx->pol_users, user, where);
    return user;
}

// Drops one registration, as pol_unregister does: the user goes with the
// last, so that no other holder of the handle is left with a freed one.
void pol_user_find_and_delete(t_pol_ctx *ctx, const char *user_name, const char *,
                              e_pol_type type, e_pol_dir dir)
{
    if (t_pol_user *user = pol_user_find(ctx, user_name, type, dir, nullptr)) {
        pol_user_release(ctx, user);
    }
}

void pol_user_release(t_pol_ctx *ctx, t_pol_user *user)
{
    if (--user->ref_count == 0) {
        pol_user_delete(ctx, user, true);
    }
}

// Whatever its registrations: shutdown and the last release. A user
// detached from a deleted block is still taken off the change queue.
void pol_user_delete(t_pol_ctx *ctx, t_pol_user *user, bool remove)
{
    pol_user_chg_list_delete(ctx, user);
    pol_block_user_delete(ctx, user->pol_block_p, user);
    if (user == g_walk.notified) {
        g_walk.notified = nullptr;
    }
    if (remove) {
        avl_remove(&ctx->pol_users, user);
    }
    pol_free(user, POL_MEM_TYPE_POL_USER);
}

void pol_user_destroy(t_pol_ctx *ctx)
{
    pol::tree<t_pol_user>(&ctx->pol_users).drain([&](t_pol_user *user) {
        pol_user_delete(ctx, user, false);
    });
    TAILQ_INIT(&ctx->pol_users_chg);
}

t_pol_block *pol_block_user_add(t_pol_ctx *ctx, const char *pol_name, e_pol_type type,
                                t_pol_user *user)
{
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(ctx, pol_name, type, &changed);
    if (block != nullptr) {
        TAILQ_INSERT_TAIL(&block->users_list, user, pol_block_list_entry);
    }
    return block;
}

void pol_block_user_delete(t_pol_ctx *ctx, t_pol_block *block, t_pol_user *user)
{
    if (block == nullptr) {
        return;
    }
    pol_user_chg_list_delete(ctx, user);
    unlink_from_block(block, user);
}

/* ---- the pending-change queue ---- */

void pol_user_chg_list_add(t_pol_ctx *ctx, t_pol_user *user)
{
    if (user == nullptr || queued(user)) {
        return;
    }
    TAILQ_INSERT_TAIL(&ctx->pol_users_chg, user, pol_chg_list_entry);
    user->pol_user_flags |= POL_USER_FLAG_QUEUED;
}

void pol_user_chg_list_delete(t_pol_ctx *ctx, t_pol_user *user)
{
    if (!queued(user)) {
        return;
    }
    if (user == g_walk.queue_next) {
        g_walk.queue_next = TAILQ_NEXT(user, pol_chg_list_entry);
    }
    TAILQ_REMOVE(&ctx->pol_users_chg, user, pol_chg_list_entry);
    user->pol_user_flags &= static_cast<uint8_t>(~POL_USER_FLAG_QUEUED);
}

void pol_block_users_add_to_chg_list(t_pol_ctx *ctx, t_pol_block *block)
{
    if (block == nullptr || destroying(ctx)) {
        return;
    }
    t_pol_user *user;
    TAILQ_FOREACH(user, &block->users_list, pol_block_list_entry) {
        pol_user_chg_list_add(ctx, user);
    }
}

// A deleted block's users are queued (they must learn that their policy is
// gone), lose their block and leave its users list, so that none keeps a
// link into the freed block. They stay registered, detached.
void pol_block_users_detach(t_pol_ctx *ctx, t_pol_block *block)
{
    pol_block_users_add_to_chg_list(ctx, block);
    while (t_pol_user *user = TAILQ_FIRST(&block->users_list)) {
        user->pol_block_p = nullptr;
        unlink_from_block(block, user);
    }
}

void pol_user_chg_list_notify_all(t_pol_ctx *ctx)
{
    if (destroying(ctx) || in_callback(ctx)) {
        return;
    }
    t_pol_user *user = TAILQ_FIRST(&ctx->pol_users_chg);
    while (user != nullptr) {
        g_walk.notified = user;
        g_walk.queue_next = TAILQ_NEXT(user, pol_chg_list_entry);
        pol_user_notify(ctx, user);
        bool requeued = g_walk.notified != nullptr && queued(user);
        user = requeued ? TAILQ_NEXT(user, pol_chg_list_entry) : g_walk.queue_next;
    }
    g_walk.notified = nullptr;
    g_walk.queue_next = nullptr;
}

void pol_user_notify(t_pol_ctx *ctx, t_pol_user *user)
{
    if (in_callback(ctx)) {
        return;
    }
    ctx->pol_ctx_flags |= POL_CTX_FLAG_IN_CALLBACK;
    pol_user_chg_list_delete(ctx, user);
    if (user->pol_chg_cb != nullptr) {
        user->pol_chg_cb(user, user->user_ctx_p);
    }
    ctx->pol_ctx_flags &= static_cast<uint8_t>(~POL_CTX_FLAG_IN_CALLBACK);
}

// The block itself is not read after the first callback, which may delete
// it (its users are then unlinked, which ends the walk).
void pol_block_user_notify_all(t_pol_ctx *ctx, t_pol_block *block)
{
    if (block == nullptr || destroying(ctx) || in_callback(ctx)) {
        return;
    }
    t_pol_user *user = TAILQ_FIRST(&block->users_list);
    while (user != nullptr) {
        g_walk.block_next = TAILQ_NEXT(user, pol_block_list_entry);
        pol_user_notify(ctx, user);
        user = g_walk.block_next;
    }
    g_walk.block_next = nullptr;
}

/* ---- dumps ---- */

void pol_dump_user(t_pol_user *user, struct mgmtd_cli_user_info *uinfo)
{
    const t_pol_block *block = user->pol_block_p;
    pol_cli_printf(uinfo, "\n  %s, type: %s, dir: %s, policy: %s (%p), ctx: %p, cb: %p, change: %s",
                   user->user_name, pol_util_type_str(user->pol_type),
                   pol_util_dir_str(user->pol_direction), block != nullptr ? block->pol_name : "",
                   static_cast<const void *>(block), user->user_ctx_p,
                   reinterpret_cast<void *>(user->pol_chg_cb), queued(user) ? "yes" : "no");
}

int pol_dump_users_change_list(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    pol_cli_dump_heading(uinfo, "\n  USERS CHANGE LIST");
    if (g_pol_ctx_p == nullptr) {
        return 0;
    }
    t_pol_user *user;
    TAILQ_FOREACH(user, &g_pol_ctx_p->pol_users_chg, pol_chg_list_entry) {
        pol_dump_user(user, uinfo);
    }
    return 0;
}

}  // extern "C"
