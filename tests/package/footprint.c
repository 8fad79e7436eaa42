/* What a started library costs a C program: resident memory, everything included. */
#include <stdio.h>
#include <string.h>

#include "tilvarcm.h"

static long resident_kb(void) {
    char line[256];
    long kb = -1;
    FILE *status = fopen("/proc/self/status", "r");
    if (status == NULL) return -1;
    while (fgets(line, sizeof line, status) != NULL)
        if (sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    fclose(status);
    return kb;
}

int main(void) {
    const long limit_kb = 4096;
    cm_context *ctx = NULL;
    long before = resident_kb(), after;
    if (!cm_ctx_init(&ctx, NULL, "footprint.log", 1, NULL)) return 1;
    after = resident_kb();
    printf("%ld KB before the start, %ld KB after it\n", before, after);
    cm_ctx_exit(ctx);
    return after > 0 && after < limit_kb ? 0 : 1;
}
