#include "tilvarcm.h"
#include "tilvarcm.h" /* twice, as any header */

/* A C program can name every kind of record and result. */
extern int16_t header_as_c(cm_context *ctx, cm_thread *self, cm_value argument);
int16_t header_as_c(cm_context *ctx, cm_thread *self, cm_value argument) {
    cm_value found = argument;
    return cm_hash_entry(ctx->thread_table, CM_OP_FIND, &self, (int32_t)sizeof self, CM_OUT(&found));
}
