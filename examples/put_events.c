/* Puts events of its own into an index directory, asks for some of them, merges and checks the slices.
 *
 *     put_events DIRECTORY */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "veldar.h"

static veldar_text text_of(const char *text) {
    const veldar_text made = {text, strlen(text)};
    return made;
}

static int fail(veldar_writer *writer, veldar_store *index) {
    const int status = (int)veldar_last_error()->status;
    fprintf(stderr, "%s\n", veldar_last_error()->message);
    (void)veldar_writer_close(writer);
    veldar_close(index);
    return status;
}

int main(int argc, char **argv) {
    veldar_writer *writer = NULL;
    veldar_store *index = NULL;
    veldar_table *findings = NULL;
    uint64_t count = 0;
    veldar_optimize_result merged = {.size = sizeof merged};
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    if (veldar_writer_open(argv[1], &writer) != VELDAR_OK) return fail(writer, NULL);
    for (uint32_t i = 0; i < 1000; i++) {
        const veldar_text terms[] = {text_of(i % 10 == 0 ? "level::error" : "level::info"), text_of("service::shop")};
        /* The address says where the event itself lies: here its number. */
        if (veldar_writer_put(writer, 1700000000 + i, i, terms, 2) != VELDAR_OK) return fail(writer, NULL);
        if (i % 500 == 499 && veldar_writer_sync(writer) != VELDAR_OK) return fail(writer, NULL);
    }
    if (veldar_writer_close(writer) != VELDAR_OK) return fail(NULL, NULL);
    if (veldar_open(argv[1], 0, NULL, &index) != VELDAR_OK) return fail(NULL, index);
    const veldar_query query = {.size = sizeof query, .text = "level=error", .since = "@1700000500"};
    if (veldar_count(index, &query, &count) > VELDAR_END) return fail(NULL, index);
    printf("%" PRIu64 " errors\n", count);
    if (veldar_optimize(index, 1, &merged) > VELDAR_END) return fail(NULL, index);
    printf("%" PRIu64 " slices merged into %" PRIu64 "\n", merged.slices_before, merged.slices_after);
    if (veldar_fsck(index, 0, &findings) != VELDAR_END) return fail(NULL, index);
    printf("no faults\n");
    veldar_table_free(findings);
    veldar_close(index);
    return 0;
}
