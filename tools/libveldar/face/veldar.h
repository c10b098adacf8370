/* libveldar: stores of indexed logs and metrics, for programs in C and whatever can call C.
 *
 *     veldar_store *store = NULL;
 *     uint64_t count = 0;
 *     const veldar_query query = {.size = sizeof query, .text = "status=500", .since = "-1d"};
 *     if (veldar_open("logs.veldar", 0, NULL, &store) > VELDAR_END || veldar_count(store, &query, &count) > VELDAR_END)
 *         fprintf(stderr, "%s\n", veldar_last_error()->message);
 *     veldar_close(store);
 *
 * Results. Every function that can fail returns a veldar_status. VELDAR_OK and VELDAR_END (nothing was found, or there
 * is nothing more) are success. VELDAR_INCOMPLETE is both: the answer is there and lacks what could not be read. All
 * that is greater failed, and veldar_last_error() says why.
 *
 * Records. A record that begins with `size` is given with sizeof of itself there, and with zeros for whatever is not
 * wanted: fields that later versions add at its end are then taken as zero, and not written.
 *
 * Texts that are given are NUL-terminated; null is as good as an empty one. Texts that are returned may hold any byte,
 * NUL too, and need not be UTF-8: logs are what they are.
 *
 * Threads. A handle, and the events that were begun with it, are used by one thread at a time; different handles by any
 * number of threads at once, and a table likewise: nothing changes it. Nothing here installs a signal handler or ends the
 * process, nor does it print, but for the engine's line on standard error when a slice is shorter than it says.
 *
 * Stability. Functions and fields are added, never changed or removed, as long as the number in the name of the library
 * (libveldar.so.0) stays the same. */
#ifndef VELDAR_H
#define VELDAR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* "0.1.0"; it belongs to the library. */
const char* veldar_version(void);

typedef enum veldar_status {
    VELDAR_OK = 0,
    VELDAR_END = 1,         /* nothing was found, or there is nothing more */
    VELDAR_USAGE = 2,       /* an argument, a query or an option is wrong */
    VELDAR_INCOMPLETE = 3,  /* something could not be read; what could be done has been done */
    VELDAR_DAMAGED = 4,     /* a file is not what was written */
    VELDAR_IO = 5,          /* the disk refused */
    VELDAR_INTERRUPTED = 6, /* the observer ended it */
    VELDAR_NO_MEMORY = 7
} veldar_status;

/* Why a call failed, or what it lacks. Texts are never null. */
typedef struct veldar_error {
    size_t size; /* of the record, as the library has it */
    veldar_status status;
    const char* message;   /* all of it, for people; several lines for a query, with a caret under the spot */
    const char* file;      /* which file or directory; "" when it is about none */
    uint64_t line;         /* of the file, from 1; 0: none */
    uint64_t offset;       /* byte of the file, or of the query's text; UINT64_MAX: none */
    const char* next_step; /* what can be done about it; "" when nobody knows */
} veldar_error;

/* Of the calling thread's last call that did not return VELDAR_OK or VELDAR_END; valid until its next call. */
const veldar_error* veldar_last_error(void);

typedef enum veldar_message_kind {
    VELDAR_TROUBLE = 0, /* what kept the work from being complete, or is worth knowing */
    VELDAR_SUMMARY = 1  /* what was done */
} veldar_message_kind;

typedef struct veldar_progress {
    size_t size;
    int is_merge;    /* slices are merged; else files are loaded */
    uint64_t done;   /* bytes */
    uint64_t total;  /* bytes; 0: unknown */
    uint64_t events; /* loaded so far */
    double seconds;  /* since the beginning */
} veldar_progress;

/* Who is told of the work on a handle. Each function may be null, is called by the thread that called the library, and
 * must not call it back with the same handle. */
typedef struct veldar_observer {
    size_t size;
    void* context;
    void (*message)(void* context, veldar_message_kind kind, const char* text);
    void (*progress)(void* context, const veldar_progress* progress); /* at most ten times a second */
    int (*stop)(void* context); /* not 0: the work ends soon, with VELDAR_INTERRUPTED; asked some 20 times a second */
} veldar_observer;

/* ---- Stores ---- */

typedef struct veldar_store veldar_store;

#define VELDAR_CREATE 1u /* make a store when there is nothing at the path */

/* Opens a store, an index directory or one slice for questions; a store also for loading. `path` null: the one that the
 * command line would take ($VELDAR_STORE, or the nearest .veldar). The observer is copied; null: nobody is told.
 * VELDAR_USAGE when nothing of the kind is there. `*store` is null after a failure. */
veldar_status veldar_open(const char* path, unsigned flags, const veldar_observer* observer, veldar_store** store);
/* Its events must be closed before; its tables stay. Null is allowed. */
void veldar_close(veldar_store* store);
/* Where it is; the handle's. */
const char* veldar_path(const veldar_store* store);

/* ---- Tables: what most questions are answered with ---- */

typedef struct veldar_text {
    const char* data;
    size_t size; /* bytes */
} veldar_text;

typedef enum veldar_type {
    VELDAR_INT64 = 0,
    VELDAR_UINT64 = 1,
    VELDAR_DOUBLE = 2,
    VELDAR_TIME = 3, /* int64_t, nanoseconds since 1970 in UTC */
    VELDAR_TEXT = 4
} veldar_type;

typedef struct veldar_table veldar_table;

/* A column; what it points to belongs to the table. */
typedef struct veldar_column {
    size_t size;
    const char* name;
    veldar_type type;
    const void* values;      /* a number of 8 bytes a row; null for texts */
    const uint64_t* offsets; /* of texts: rows + 1 places in `bytes`, where each begins and the last one ends */
    const char* bytes;       /* of texts; no NUL between them */
    const uint8_t* valid;    /* a byte a row, 0 where there is no value; null: all have one */
} veldar_column;

size_t veldar_table_rows(const veldar_table* table);
size_t veldar_table_columns(const veldar_table* table);
/* VELDAR_END behind the last column. */
veldar_status veldar_table_column(const veldar_table* table, size_t number, veldar_column* column);
/* Null is allowed. */
void veldar_table_free(veldar_table* table);

/* ---- Questions ---- */

/* What is asked for, as on the command line (docs/query-language.md). Zeros: every event. */
typedef struct veldar_query {
    size_t size;
    const char* text;
    const char *since, *until; /* "2026-01-02T03:04:05Z", "-1d", "yesterday" ...; null: no bound */
    const char* zone;          /* of times without one, and of bins; null: UTC */
    int is_native;             /* the text is in bracket notation */
} veldar_query;

/* How many events the query finds. */
veldar_status veldar_count(veldar_store* store, const veldar_query* query, uint64_t* count);

typedef struct veldar_events veldar_events;

typedef struct veldar_event {
    size_t size;
    int64_t time_ns;  /* since 1970 in UTC; whole seconds unless the fraction is known without reading the log */
    uint32_t address; /* of the event in its directory; 0 for metrics */
    uint32_t directory;
} veldar_event;

/* Begins to read the events that the query finds, newest first; `limit` of them, 0 for all. VELDAR_OK even when there
 * are none: veldar_events_next tells. */
veldar_status veldar_search(veldar_store* store, const veldar_query* query, uint64_t limit, veldar_events** events);
/* The next event. After a failure all further calls fail so. VELDAR_END, or VELDAR_INCOMPLETE when something could not be read, behind the last one. */
veldar_status veldar_events_next(veldar_events* events, veldar_event* event);

typedef enum veldar_part {
    VELDAR_RAW = 0, /* the record as it stands in the log, without the line end behind it */
    VELDAR_HOST = 1,
    VELDAR_SOURCE = 2,
    VELDAR_SOURCETYPE = 3,
    VELDAR_DIRECTORY = 4 /* of the slice, by name */
} veldar_part;

/* A part of the event that was read last; valid until the next call. VELDAR_INCOMPLETE, and no text, when it cannot be
 * read (the log is gone); VELDAR_END when there is nothing of the kind (no log is known). */
veldar_status veldar_event_text(veldar_events* events, veldar_part part, veldar_text* text);
/* Its time with the fraction that its log says. */
veldar_status veldar_event_time(veldar_events* events, int64_t* time_ns);
/* Its fields, as its record writes them, by number: VELDAR_END behind the last one. Valid until the next call for
 * another event. */
veldar_status veldar_event_field(veldar_events* events, size_t number, veldar_text* name, veldar_text* value);
/* What a table of events is filled with; the sum of some. Addresses are always there, and times at least as veldar_event
 * has them. */
#define VELDAR_TIMES 1u /* with the fractions that the logs say */
#define VELDAR_RAWS 2u
#define VELDAR_NAMES 4u /* host, source, sourcetype, directory */

/* The next events, at most `rows` of them, as a table: time, raw, host, source, sourcetype, directory, address. Columns
 * that it is not filled `with` have no values. The table is there with VELDAR_OK alone. Afterwards no event counts as
 * read last. */
veldar_status veldar_events_table(veldar_events* events, size_t rows, unsigned with, veldar_table** table);
/* Fills more columns of such a table, of these events. Not while others read it; what they have been given of times,
 * raws or names before is void then. */
veldar_status veldar_events_fill(veldar_events* events, veldar_table* table, unsigned with);
/* Makes the event of a row of such a table, of these events, the one that was read last. */
veldar_status veldar_events_row(veldar_events* events, const veldar_table* table, size_t row);
/* Null is allowed. */
void veldar_events_close(veldar_events* events);

/* Tables as follow are there with VELDAR_OK, VELDAR_END (no rows) and VELDAR_INCOMPLETE, and null after anything else. */

/* Terms with their counts: term, count, first, last. The pattern is "word", "wo*", "status=4*"; null: all. By count, the
 * greatest first, unless `by_term`; `limit` of them, 0 for all. */
veldar_status veldar_terms(veldar_store* store, const char* pattern, uint64_t limit, int by_term, veldar_table** table);
/* The fields of the store: field, events, values. */
veldar_status veldar_fields(veldar_store* store, veldar_table** table);
/* When one word or field=value was first and last seen, and in how many events: count, first, last; one row or none. */
veldar_status veldar_seen(veldar_store* store, const char* term, veldar_table** table);
/* The slices: path, directory, first, last, events, deleted, terms, bytes. */
veldar_status veldar_slices(veldar_store* store, veldar_table** table);

typedef struct veldar_stats_options {
    size_t size;
    const char* by;         /* fields with commas between them; null: one group */
    const char* aggregates; /* "count,avg(bytes),p99(latency)"; null: count */
    const char* every;      /* bins: "10s", "5m", "1h", "1d", "1w", "1mo", "auto"; null: none */
    uint64_t top;           /* only so many groups, those with the most of the first aggregate; 0: all */
    int keeps_missing;      /* events that lack a field of `by`, too */
} veldar_stats_options;

/* Counts and aggregates: time (with `every`), the fields of `by`, and a column an aggregate. */
veldar_status veldar_stats(veldar_store* store, const veldar_query* query, const veldar_stats_options* options,
                           veldar_table** table);

/* ---- Metrics ---- */

typedef struct veldar_metric_query {
    size_t size;
    const char* names;        /* patterns with commas between them, such as "cpu.*" */
    const char* const* where; /* LABEL=VALUE or LABEL!=VALUE; all must hold */
    size_t where_count;
    const char *since, *until, *zone; /* as in veldar_query */
} veldar_metric_query;

/* The metrics there are: metric, samples, series, first, last. */
veldar_status veldar_metrics(veldar_store* store, veldar_table** table);
/* Samples, newest first: time, metric, labels ("a=b,c=d" by name; commas, '=' and '\' in them are escaped by '\'),
 * value. `limit`: only the newest; 0: all. */
veldar_status veldar_metric_samples(veldar_store* store, const veldar_metric_query* query, uint64_t limit,
                                    veldar_table** table);

typedef struct veldar_metric_stats_options {
    size_t size;
    const char* by;         /* labels with commas between them; metric_name is the metric's name */
    const char* aggregates; /* "avg,max,p95"; null: avg */
    const char* every;
    uint64_t top;
    int keeps_missing;
    int rate; /* of counters: the growth in a second */
} veldar_metric_stats_options;

veldar_status veldar_metric_stats(veldar_store* store, const veldar_metric_query* query,
                                  const veldar_metric_stats_options* options, veldar_table** table);

/* ---- One question, many stores (docs/partial-answers.md) ----
 *
 * The text of a question goes to every store, the partial answers come back as bytes, and merging them gives bytes again:
 * in any order and grouping the same, but for the last digits of sums. Machines may exchange all of it. */

typedef struct veldar_bytes veldar_bytes;

/* Valid until they are freed; there may be NULs in them. */
const char* veldar_bytes_data(const veldar_bytes* bytes);
size_t veldar_bytes_size(const veldar_bytes* bytes);
/* Null is allowed. */
void veldar_bytes_free(veldar_bytes* bytes);

typedef struct veldar_question {
    size_t size;
    /* "search", "count", "stats", "terms", "fields", "seen", "new" (terms that were not seen before), "samples",
     * "metric-stats" */
    const char* kind;
    const veldar_query* query;         /* search, count, stats; of new `since` and `zone`; null: every event */
    const veldar_stats_options* stats; /* not in bins of "auto", which are those of one store */
    const veldar_metric_query* metrics;
    const veldar_metric_stats_options* metric_stats;
    const char* pattern; /* terms, new; of seen the term */
    uint64_t limit;      /* search, terms, new, samples; 0: all */
    int by_term;         /* terms */
    int with_fields;     /* search */
} veldar_question;

/* The question as a text of lines with a NUL behind it; its times are absolute. */
veldar_status veldar_question_text(const veldar_question* question, veldar_bytes** text);
/* What the store answers to such a text, its records included. With VELDAR_INCOMPLETE the answer is there and says what
 * it lacks. */
veldar_status veldar_answer_partially(veldar_store* store, const char* question, veldar_bytes** answer);
/* One partial answer of any number of them, none included. It also lacks what `lacks` says, those who did not answer, and
 * the answers that are damaged. VELDAR_INCOMPLETE when it lacks something. VELDAR_USAGE for answers to another question,
 * and for an index directory that comes twice. */
veldar_status veldar_answers_merge(const char* question, const veldar_text* answers, size_t count,
                                   const char* const* lacks, size_t lacks_count, veldar_bytes** merged);
/* A partial answer as the table that a store would give. Of search: time, raw, host, source, sourcetype, directory,
 * address, index (which index directory, among all), and with fields: fields ("a=b,c=d"; commas, '=' and '\' in them
 * are escaped by '\'). Of count: count. Of new as of terms. VELDAR_INCOMPLETE, and the table, when it lacks something. */
veldar_status veldar_answer_table(const veldar_text* answer, veldar_table** table);
/* What a partial answer lacks: lacks, a text for people. Events before the time may lack, too; INT64_MIN: none do. */
veldar_status veldar_answer_lacks(const veldar_text* answer, int64_t* complete_back_to_ns, veldar_table** table);

/* ---- Getting in ---- */

typedef struct veldar_load_result {
    size_t size;
    uint64_t events;  /* indexed, or samples of metrics */
    uint64_t refused; /* lines */
    uint64_t bytes;   /* of raw text, decompressed */
    uint64_t slices;  /* written */
    double seconds;
} veldar_load_result;

typedef struct veldar_load_options {
    size_t size;
    const char* format;     /* of the lines; null: as they look */
    const char* zone;       /* of times without one; null: this machine's */
    const char* host;       /* null: the log's own, or this machine's name */
    const char* sourcetype; /* null: the format's name */
    const char* time_field; /* null: none */
    const char* time_format;
    const char* date_order; /* "dmy", "mdy", "ymd" */
    int year;
    int again;       /* forget what was loaded from these files before */
    int recursive;   /* the files in directories, and below them */
    int flush;       /* take the last line of a file that changed just now, though it has no end */
    int no_fsync;    /* for throw-away stores */
    int no_optimize; /* do not merge slices in the end */
} veldar_load_options;

/* Loads logs into the store, each line once, however often it is asked. VELDAR_INCOMPLETE when some file could not be
 * read whole, or hardly a line says a time that is understood; VELDAR_INTERRUPTED when the observer ended it: what was
 * loaded stays, and the next load goes on. `options` and `result` may be null. */
veldar_status veldar_load(veldar_store* store, const char* const* files, size_t count,
                          const veldar_load_options* options, veldar_load_result* result);

typedef struct veldar_metric_load_options {
    size_t size;
    const char* format; /* "openmetrics", "prometheus", "csv"; null: as the file looks */
    const char* time;   /* CSV: the column of times; else the time of samples without one */
    const char* values; /* CSV: the columns of values, with commas between them */
    const char* dims;   /* CSV: the columns that are labels, with commas between them */
    const char* name;   /* CSV: the metric */
    const char* zone;   /* null: UTC */
    int again;
    int no_fsync;
    int no_optimize;
    int flush; /* take the last line of a file that changed just now, though it has no end */
} veldar_metric_load_options;

veldar_status veldar_load_metrics(veldar_store* store, const char* const* files, size_t count,
                                  const veldar_metric_load_options* options, veldar_load_result* result);

/* Events of your own, tokenised already, into a bare index directory (no store): the index keeps time, address and
 * terms, and where the event itself lies is yours to know. */
typedef struct veldar_writer veldar_writer;

/* Makes the directory when it is not there. */
veldar_status veldar_writer_open(const char* directory, veldar_writer** writer);
/* One event: seconds since 1970, an address, and terms of 1 to 2047 bytes without NUL, such as "error" and
 * "status::500" in lower case. All of it is taken or nothing. */
veldar_status veldar_writer_put(veldar_writer* writer, int64_t time_s, uint32_t address, const veldar_text* terms,
                                size_t count);
/* Makes all events so far searchable and safe. After a failure they are not in the index. */
veldar_status veldar_writer_sync(veldar_writer* writer);
/* Syncs and closes; the writer is gone in either case. Null is allowed. */
veldar_status veldar_writer_close(veldar_writer* writer);

/* ---- Keeping in order ---- */

typedef struct veldar_optimize_result {
    size_t size;
    uint64_t merges, slices_before, slices_after, bytes_before, bytes_after;
} veldar_optimize_result;

/* Merges slices: those of a like size, or with `everything` whatever fits a slice. `result` may be null. */
veldar_status veldar_optimize(veldar_store* store, int everything, veldar_optimize_result* result);

/* Checks every slice against its seal and, unless `quick`, for what a slice must hold. Findings: path, section, offset,
 * what. VELDAR_END: no faults; VELDAR_DAMAGED: the table lists them (it is there). */
veldar_status veldar_fsck(veldar_store* store, int quick, veldar_table** table);

#ifdef __cplusplus
}
#endif

#endif
