/* Loads metrics into a store, then prints the newest samples of those that a pattern names, and their hourly average.
 *
 *     metrics STORE PATTERN FILE... */
#include <inttypes.h>
#include <stdio.h>

#include "veldar.h"

static int fail(veldar_store *store) {
    const int status = (int)veldar_last_error()->status;
    fprintf(stderr, "%s\n", veldar_last_error()->message);
    veldar_close(store);
    return status;
}

int main(int argc, char **argv) {
    veldar_store *store = NULL;
    veldar_table *samples = NULL, *hours = NULL;
    veldar_column time = {.size = sizeof time}, name = time, labels = time, value = time;
    if (argc < 3) {
        fprintf(stderr, "usage: %s STORE PATTERN FILE...\n", argv[0]);
        return 2;
    }
    if (veldar_open(argv[1], VELDAR_CREATE, NULL, &store) != VELDAR_OK) return fail(store);
    if (argc > 3 &&
        veldar_load_metrics(store, (const char *const *)argv + 3, (size_t)argc - 3, NULL, NULL) > VELDAR_INCOMPLETE) {
        return fail(store);
    }
    const veldar_metric_query query = {.size = sizeof query, .names = argv[2]};
    if (veldar_metric_samples(store, &query, 5, &samples) > VELDAR_INCOMPLETE) return fail(store);
    veldar_table_column(samples, 0, &time);
    veldar_table_column(samples, 1, &name);
    veldar_table_column(samples, 2, &labels);
    veldar_table_column(samples, 3, &value);
    for (size_t i = 0; i < veldar_table_rows(samples); i++) {
        printf("%" PRId64 " %.*s{%.*s} %g\n", ((const int64_t *)time.values)[i] / 1000000000,
               (int)(name.offsets[i + 1] - name.offsets[i]), name.bytes + name.offsets[i],
               (int)(labels.offsets[i + 1] - labels.offsets[i]), labels.bytes + labels.offsets[i],
               ((const double *)value.values)[i]);
    }
    const veldar_metric_stats_options options = {.size = sizeof options, .every = "1h"};
    if (veldar_metric_stats(store, &query, &options, &hours) > VELDAR_INCOMPLETE) return fail(store);
    veldar_table_column(hours, 0, &time);
    veldar_table_column(hours, 1, &value);
    for (size_t i = 0; i < veldar_table_rows(hours); i++) {
        printf("hour %" PRId64 " avg %g\n", ((const int64_t *)time.values)[i] / 1000000000,
               ((const double *)value.values)[i]);
    }
    veldar_table_free(samples);
    veldar_table_free(hours);
    veldar_close(store);
    return 0;
}
