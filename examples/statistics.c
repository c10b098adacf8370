/* Prints a table of statistics: a row for each value of a field and, if asked, each bin of time.
 *
 *     statistics STORE QUERY BY AGGREGATES [EVERY]        statistics logs.veldar "status>=500" path "count,p99(latency)" */
#include <inttypes.h>
#include <stdio.h>

#include "veldar.h"

static void print_cell(const veldar_column *column, size_t row) {
    if (column->valid != NULL && column->valid[row] == 0) return;
    switch (column->type) {
        case VELDAR_INT64:
            printf("%" PRId64, ((const int64_t *)column->values)[row]);
            break;
        case VELDAR_TIME:
            printf("%" PRId64, ((const int64_t *)column->values)[row] / 1000000000);
            break;
        case VELDAR_UINT64:
            printf("%" PRIu64, ((const uint64_t *)column->values)[row]);
            break;
        case VELDAR_DOUBLE:
            printf("%.17g", ((const double *)column->values)[row]);
            break;
        case VELDAR_TEXT:
            fwrite(column->bytes + column->offsets[row], 1, column->offsets[row + 1] - column->offsets[row], stdout);
            break;
    }
}

static void print_table(const veldar_table *table) {
    veldar_column column = {.size = sizeof column};
    const size_t columns = veldar_table_columns(table), rows = veldar_table_rows(table);
    for (size_t i = 0; i < columns && veldar_table_column(table, i, &column) == VELDAR_OK; i++) {
        printf("%s%c", column.name, i + 1 < columns ? '\t' : '\n');
    }
    for (size_t row = 0; row < rows; row++) {
        for (size_t i = 0; i < columns && veldar_table_column(table, i, &column) == VELDAR_OK; i++) {
            print_cell(&column, row);
            putchar(i + 1 < columns ? '\t' : '\n');
        }
    }
}

int main(int argc, char **argv) {
    veldar_store *store = NULL;
    veldar_table *table = NULL;
    veldar_status status = VELDAR_USAGE;
    if (argc < 5) {
        fprintf(stderr, "usage: %s STORE QUERY BY AGGREGATES [EVERY]\n", argv[0]);
        return 2;
    }
    const veldar_query query = {.size = sizeof query, .text = argv[2]};
    const veldar_stats_options options = {
        .size = sizeof options, .by = argv[3], .aggregates = argv[4], .every = argc > 5 ? argv[5] : NULL};
    status = veldar_open(argv[1], 0, NULL, &store);
    if (status == VELDAR_OK) status = veldar_stats(store, &query, &options, &table);
    if (table != NULL) print_table(table);
    if (status > VELDAR_END) fprintf(stderr, "%s\n", veldar_last_error()->message);
    veldar_table_free(table);
    veldar_close(store);
    return (int)status;
}
