/* A program outside the tree. */
#include <stdio.h>
#include <tilvarcm.h>

int main(void) {
    cm_context *ctx = NULL;
    char stamp[64];
    int32_t already = 0, length = 0;
    if (!cm_ctx_init(&ctx, NULL, "consumer.log", 1, &already)) return 1;
    cm_log(ctx, CM_INFO, "a line of the consumer", CM_LEN_TEXT);
    if (!cm_datetime(14, stamp, sizeof stamp, &length)) return 2;
    printf("%s\n", stamp);
    return cm_ctx_exit(ctx) ? 0 : 3;
}
