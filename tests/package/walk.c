/* The interface as a C program calls it: start, a pool, a table, a file, a configuration, dates, ciphers, stop. */
#include <stdio.h>
#include <string.h>

#include "tilvarcm.h"

static int failures;

#define CHECK(what)                                              \
    do {                                                         \
        if (!(what)) {                                           \
            fprintf(stderr, "line %d: %s\n", __LINE__, #what);   \
            failures++;                                          \
        }                                                        \
    } while (0)

static void walk_memory(cm_context *ctx) {
    cm_mem_pool *pool = NULL;
    cm_hash *table = NULL;
    cm_value found = 0;
    char *copy = NULL;
    int32_t length = 0;

    CHECK(cm_mem_init(ctx, &pool, 1024));
    CHECK(cm_mem_savestr(pool, "kept", CM_LEN_TEXT, &copy, &length));
    CHECK(length == 4 && strcmp(copy, "kept") == 0);
    CHECK(cm_hash_alloc(ctx, pool, 13, &table));
    CHECK(cm_hash_entry(table, CM_OP_SET, "name", CM_LEN_TEXT, (cm_value)42));
    CHECK(cm_hash_entry(table, CM_OP_FIND, "name", CM_LEN_TEXT, CM_OUT(&found)) && found == 42);
    CHECK(!cm_hash_entry(table, CM_OP_FIND, "other", CM_LEN_TEXT, CM_OUT(&found)));
    CHECK(cm_hash_free(table, NULL));
    CHECK(cm_mem_exit(pool));
}

static void walk_files(cm_context *ctx) {
    static const char text[] = "first line\nsecond line\n";
    char path[1024], line[128];
    cm_file *file = NULL;
    int32_t count = 0;

    CHECK(cm_build_path(ctx, ctx->tmp_dir, "walk.txt", path, sizeof path, NULL));
    CHECK(cm_fopen(ctx, path, CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC, &file));
    CHECK(cm_fwrite(file, text, CM_LEN_TEXT, &count) && count == (int32_t)sizeof text - 1);
    CHECK(cm_fclose(file));
    CHECK(cm_fopen(ctx, path, CM_O_RDONLY, &file));
    CHECK(cm_fgetl(file, 0, line, sizeof line, &count, NULL) && strncmp(line, "first line", 10) == 0);
    CHECK(cm_fclose(file));
    CHECK(cm_isfile(ctx, path, 0) && !cm_isdirectory(path));
    CHECK(cm_unlink(path, 1));
}

static int16_t CM_CALL count_entry(cm_context *ctx, cm_value user, const char *name, const char *value) {
    (void)ctx;
    if (strcmp(name, "colour") == 0 && strcmp(value, "blue") == 0) ++*(int *)user;
    return 1;
}

static void walk_settings(cm_context *ctx) {
    cm_prop_entry entry = {CM_LEN_TEXT, 0, "colour", "blue"};
    char path[1024], backup[1024];
    int seen = 0;

    CHECK(cm_build_path(ctx, ctx->config_dir, "config.ini", path, sizeof path, NULL));
    CHECK(cm_build_path(ctx, ctx->config_dir, "config.old", backup, sizeof backup, NULL));
    entry.name_length = (int32_t)strlen(entry.name);
    entry.value_length = (int32_t)strlen(entry.value);
    CHECK(cm_replace_section(ctx, path, backup, "walk", CM_LEN_TEXT, &entry, 1));
    CHECK(cm_props_load(ctx, "config.ini", "walk", CM_LEN_TEXT, CM_OUT(&seen), count_entry));
    CHECK(seen == 1);
}

static void walk_texts(cm_context *ctx) {
    char stamp[64], sealed[128], opened[32], crypted[14];
    int32_t length = 0;

    CHECK(cm_datetime(14, stamp, sizeof stamp, &length) && length == 21 && stamp[0] == '[');
    CHECK(cm_parsedatetime("Sun, 06 Nov 1994 08:49:37 GMT") == 784111777u);
    CHECK(cm_twowayencrypt(ctx, "secret", CM_LEN_TEXT, sealed, sizeof sealed, &length));
    CHECK(cm_twowaydecrypt(ctx, sealed, length, opened, sizeof opened, NULL) && strcmp(opened, "secret") == 0);
    CHECK(cm_crypt("secret", "ab", crypted, sizeof crypted) && strncmp(crypted, "ab", 2) == 0);
}

static int16_t CM_CALL count_run(cm_thread *self, cm_value argument) {
    ++*(int *)argument;
    return self != NULL;
}

static void walk_threads(cm_context *ctx) {
    cm_thread *thread = NULL;
    int runs = 0;

    CHECK(cm_create_thread(ctx, count_run, CM_OUT(&runs), "Walk", &thread));
    CHECK(cm_free_threads(ctx)); /* the scheduler's as well; cm_waitfor_threads would wait for that one */
    CHECK(runs == 1);
}

int main(void) {
    FILE *settings;
    cm_context *ctx = NULL, *again = NULL;
    int32_t already = -1;

    /* The first start makes the folders; the second one finds a configuration. */
    CHECK(cm_ctx_init(&ctx, NULL, "walk.log", 1, &already));
    if (ctx == NULL) return 1;
    CHECK(already == 0 && cm_ctx_exit(ctx));
    settings = fopen("config/config.ini", "w");
    if (settings == NULL) return 1;
    fputs("[common]\nTrace Level = TRACE\nTmp Directory = scratch\n", settings);
    fclose(settings);

    CHECK(cm_ctx_init(&ctx, NULL, "walk.log", 1, &already));
    if (ctx == NULL) return 1;
    CHECK(cm_ctx_init(&again, NULL, NULL, 0, &already) && already == 1 && again == ctx);
    CHECK(ctx->trace_level == CM_TRACE);
    walk_memory(ctx);
    walk_files(ctx);
    walk_settings(ctx);
    walk_texts(ctx);
    walk_threads(ctx);
    CHECK(cm_ctx_exit(ctx));
    CHECK(cm_ctx_exit(ctx));
    CHECK(!cm_ctx_exit(ctx));
    if (failures == 0) puts("walked");
    return failures != 0;
}
