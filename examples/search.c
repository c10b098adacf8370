/* Loads logs into a store and prints the newest events that a query finds, with their fields.
 *
 *     search STORE QUERY LOG... */
#include <stdio.h>
#include <time.h>

#include "veldar.h"

static int fail(veldar_store *store) {
    const veldar_error *error = veldar_last_error();
    const int status = (int)error->status;
    fprintf(stderr, "%s\n", error->message);
    if (error->next_step[0] != '\0') fprintf(stderr, "hint: %s\n", error->next_step);
    veldar_close(store);
    return status;
}

static void tell(void *context, veldar_message_kind kind, const char *text) {
    (void)context;
    fprintf(stderr, kind == VELDAR_TROUBLE ? "note: %s\n" : "%s\n", text);
}

static void print_event(veldar_events *events) {
    int64_t time_ns = 0;
    veldar_text raw, name, value;
    char text[32] = "";
    struct tm parts;
    if (veldar_event_time(events, &time_ns) == VELDAR_OK) {
        const time_t seconds = (time_t)(time_ns / 1000000000);
        if (gmtime_r(&seconds, &parts) != NULL) strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
    if (veldar_event_text(events, VELDAR_RAW, &raw) != VELDAR_OK) return;
    printf("%s %.*s\n", text, (int)raw.size, raw.data);
    for (size_t i = 0; veldar_event_field(events, i, &name, &value) == VELDAR_OK; i++) {
        printf("    %.*s=%.*s\n", (int)name.size, name.data, (int)value.size, value.data);
    }
}

int main(int argc, char **argv) {
    const veldar_observer observer = {.size = sizeof observer, .message = tell};
    veldar_store *store = NULL;
    veldar_events *events = NULL;
    veldar_event event = {.size = sizeof event};
    veldar_status status;
    if (argc < 3) {
        fprintf(stderr, "usage: %s STORE QUERY LOG...\n", argv[0]);
        return 2;
    }
    if (veldar_open(argv[1], VELDAR_CREATE, &observer, &store) != VELDAR_OK) return fail(store);
    if (argc > 3) {
        status = veldar_load(store, (const char *const *)argv + 3, (size_t)argc - 3, NULL, NULL);
        if (status > VELDAR_INCOMPLETE) return fail(store);
    }
    const veldar_query query = {.size = sizeof query, .text = argv[2]};
    if (veldar_search(store, &query, 10, &events) != VELDAR_OK) return fail(store);
    while ((status = veldar_events_next(events, &event)) == VELDAR_OK) print_event(events);
    veldar_events_close(events);
    if (status != VELDAR_END) return fail(store);
    veldar_close(store);
    return 0;
}
