/* A service and a client in C, as CInterfaceTest.cpp starts them: `serve`, `ask`, `lost`, `null`.
 * Each says where it has failed, and the text of the last failure. */

#include <kvx/kvx.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define CHECK(what)                                                              \
    do {                                                                         \
        if (!(what)) {                                                           \
            fprintf(stderr, "line %d: %s [%s]\n", __LINE__, #what, kvx_error()); \
            exit(1);                                                             \
        }                                                                        \
    } while (0)

/* --- The service --- */

static kvx_service* service = NULL;

static void answer(void* closure, const char* question, kvx_reply* reply) {
    const kvx_field core[] = {kvx_text("name", "core-1"), kvx_integer("mtu", 1500)};
    const kvx_field edge[] = {kvx_text("name", "edge-1")};
    const kvx_field bad[] = {kvx_text("name", NULL)};
    CHECK(closure == &service);
    CHECK(kvx_reply_row(reply, core, 2) == KVX_OK);
    if (strcmp(question, "refuse") == 0) {
        CHECK(kvx_reply_refuse(reply, "not here", 3) == KVX_OK);
        CHECK(kvx_reply_row(reply, edge, 1) == KVX_ENDED);
        return;
    }
    if (strcmp(question, "bad") == 0) {
        CHECK(kvx_reply_row(reply, bad, 1) == KVX_INVALID_ARGUMENT);
        return;
    }
    CHECK(kvx_reply_row(reply, edge, 1) == KVX_OK);
    if (strcmp(question, "stop") == 0) kvx_service_close(service); /* inside: only stops */
}

static void role(void* closure, int is_active) {
    CHECK(closure == &service);
    puts(is_active ? "active" : "standing by");
    fflush(stdout);
}

static void report(void* closure, const kvx_field* fields, size_t count) {
    const kvx_field* name = kvx_find(fields, count, "name");
    CHECK(closure == NULL && name != NULL && name->value.kind == KVX_TEXT);
    CHECK(kvx_notify(service, name, 1) == KVX_OK);
}

static void serve(void) {
    kvx_service_options options = {0};
    options.answer = answer;
    options.role = role;
    options.closure = &service;
    CHECK(kvx_service_open("Plain", &options, &service) == KVX_OK);
    CHECK(kvx_service_on_message(service, "PLAIN.REPORT", report, NULL) == KVX_OK);
    CHECK(kvx_service_run(service) == KVX_OK);
    CHECK(kvx_service_run(service) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_notify(service, NULL, 0) == KVX_ENDED);
    kvx_service_close(service);
}

/* --- The client --- */

static void walk_rows(kvx_client* client) {
    kvx_rows* rows = NULL;
    const kvx_field* fields = NULL;
    size_t count = 0;
    CHECK(kvx_query(client, "Plain", "*", 0, &rows) == KVX_OK);
    CHECK(kvx_rows_next(rows, &fields, &count) == KVX_OK && count == 2);
    CHECK(strcmp(fields[0].name, "name") == 0 && strcmp(fields[0].value.as.text, "core-1") == 0);
    CHECK(fields[0].value.size == 6 && kvx_find(fields, count, "mtu")->value.as.integer == 1500);
    CHECK(kvx_find(fields, count, "none") == NULL);
    CHECK(kvx_rows_next(rows, &fields, &count) == KVX_OK && count == 1);
    CHECK(kvx_rows_next(rows, &fields, &count) == KVX_END && fields == NULL && count == 0);
    kvx_rows_free(rows);
}

static void hear_of_failures(kvx_client* client) {
    kvx_rows* rows = NULL;
    const kvx_field* fields = NULL;
    size_t count = 0;
    CHECK(kvx_query(client, "Plain", "refuse", 0, &rows) == KVX_REFUSED);
    CHECK(strcmp(kvx_error(), "query Plain: refused: not here") == 0);
    CHECK(kvx_rows_next(rows, &fields, &count) == KVX_OK);
    CHECK(kvx_find(fields, count, "position")->value.as.integer == 3);
    CHECK(kvx_rows_next(rows, &fields, &count) == KVX_REFUSED);
    kvx_rows_free(rows);
    CHECK(kvx_query(client, "Plain", "bad", 0, &rows) == KVX_REFUSED);
    kvx_rows_free(rows);
    CHECK(kvx_query(client, "Nobody", "*", 50, &rows) == KVX_TIMED_OUT);
    kvx_rows_free(rows);
    CHECK(kvx_query(client, "no.name", "*", 0, &rows) == KVX_INVALID_ARGUMENT);
    kvx_rows_free(rows);
}

static kvx_field field_of(const char* name, int kind, size_t size) {
    kvx_field field = {NULL, {0, 0, {0}}};
    field.name = name;
    field.value.kind = kind;
    field.value.size = size;
    return field;
}

/* "ECHO" gives back what it is sent. */
static void send_every_kind(kvx_client* client) {
    kvx_rows* reply = NULL;
    const kvx_field* back = NULL;
    size_t count = 0;
    const kvx_field inner[] = {kvx_text("deep", "d\xC3\xA9j\xC3\xA0"), kvx_integer("", -1)};
    kvx_field sent[5];
    sent[0] = field_of("real", KVX_REAL, 0);
    sent[0].value.as.real = 0.5;
    sent[1] = field_of("flag", KVX_BOOLEAN, 0);
    sent[1].value.as.integer = 1;
    sent[2] = field_of("bytes", KVX_BYTES, 3);
    sent[2].value.as.bytes = "a\0b";
    sent[3] = field_of("nested", KVX_MESSAGE, 2);
    sent[3].value.as.fields = inner;
    sent[4] = kvx_integer("wide", INT64_MIN);
    CHECK(kvx_request(client, "ECHO", sent, 5, 0, &reply) == KVX_OK);
    CHECK(kvx_rows_next(reply, &back, &count) == KVX_OK && count == 5);
    CHECK(back[0].value.as.real == 0.5 && back[1].value.kind == KVX_BOOLEAN);
    CHECK(back[2].value.size == 3 && memcmp(back[2].value.as.bytes, "a\0b", 3) == 0);
    CHECK(back[3].value.kind == KVX_MESSAGE && back[3].value.size == 2);
    CHECK(strcmp(back[3].value.as.fields[0].value.as.text, inner[0].value.as.text) == 0);
    CHECK(back[4].value.as.integer == INT64_MIN);
    CHECK(kvx_rows_next(reply, &back, &count) == KVX_END);
    kvx_rows_free(reply);
    sent[3].value.as.fields = sent; /* endless */
    sent[3].value.size = 5;
    CHECK(kvx_publish(client, "ECHO", sent, 5) == KVX_INVALID_ARGUMENT);
    sent[3].value.kind = 99;
    CHECK(kvx_publish(client, "ECHO", sent, 5) == KVX_INVALID_ARGUMENT);
    sent[3].value.kind = KVX_BYTES;
    sent[3].value.as.bytes = NULL;
    CHECK(kvx_publish(client, "ECHO", sent, 5) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_publish(client, "A..B", sent, 3) == KVX_INVALID_ARGUMENT);
}

static void take_events(kvx_client* client) {
    kvx_event event;
    kvx_rows* reply = NULL;
    char subject[64];
    int i, numbers = 0, changes = 0;
    CHECK(kvx_listen(client, "NUMBER.*", &numbers) == KVX_OK);
    for (i = 0; i < 4; ++i) {
        const kvx_field number = kvx_integer("n", i);
        CHECK(kvx_publish(client, "NUMBER.A", &number, 1) == KVX_OK);
    }
    /* Behind the reply all four have been heard; the client keeps two. */
    CHECK(kvx_request(client, "ECHO", NULL, 0, 0, &reply) == KVX_OK);
    kvx_rows_free(reply);
    CHECK(kvx_next_event(client, 0, &event) == KVX_OK && event.id == numbers);
    CHECK(event.fields[0].value.as.integer == 2 && event.dropped == 2);
    CHECK(strcmp(event.subject, "NUMBER.A") == 0 && event.reply_subject[0] == '\0');
    CHECK(kvx_unlisten(client, numbers) == KVX_OK);
    CHECK(kvx_unlisten(client, numbers) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_next_event(client, 10, &event) == KVX_TIMED_OUT);
    CHECK(kvx_snoop(client, "Plain", &changes) == KVX_OK && changes != numbers);
    CHECK(kvx_in_domain(client, "PLAIN.REPORT", subject, 20) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_in_domain(client, "PLAIN.REPORT", subject, sizeof subject) == KVX_OK);
    const kvx_field changed = kvx_text("name", "edge-1");
    CHECK(kvx_publish(client, subject, &changed, 1) == KVX_OK);
    CHECK(kvx_next_event(client, -1, &event) == KVX_OK && event.id == changes);
    CHECK(event.count == 1 && strcmp(event.fields[0].value.as.text, "edge-1") == 0);
}

static void ask(void) {
    kvx_client_options options = {0};
    kvx_client* client = NULL;
    kvx_client* second = NULL;
    kvx_rows* rows = NULL;
    kvx_event event;
    options.most_events = 2;
    CHECK(kvx_error()[0] == '\0');
    CHECK(kvx_client_open(&options, &client) == KVX_OK && kvx_is_connected(client));
    CHECK(kvx_client_open(NULL, &second) == KVX_BUSY && second == NULL);
    walk_rows(client);
    hear_of_failures(client);
    send_every_kind(client);
    take_events(client);
    CHECK(kvx_query(client, "Plain", "stop", 0, &rows) == KVX_OK);
    kvx_rows_free(rows);
    kvx_client_end(client);
    CHECK(kvx_query(client, "Plain", "*", 0, &rows) == KVX_ENDED);
    kvx_rows_free(rows);
    CHECK(kvx_next_event(client, -1, &event) == KVX_ENDED && !kvx_is_connected(client));
    kvx_client_close(client);
}

static void lost(void) {
    kvx_client* client = NULL;
    CHECK(kvx_client_open(NULL, &client) == KVX_NO_DAEMON && client == NULL);
    puts(kvx_error());
}

static void null(void) {
    const kvx_field* fields = NULL;
    size_t count = 0;
    int id = 0;
    char out[1];
    kvx_event event;
    kvx_client_end(NULL);
    kvx_client_close(NULL);
    kvx_rows_free(NULL);
    kvx_service_stop(NULL);
    kvx_service_close(NULL);
    CHECK(!kvx_is_connected(NULL) && kvx_find(NULL, 1, "A") == NULL);
    CHECK(kvx_client_open(NULL, NULL) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_in_domain(NULL, "A", out, 1) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_query(NULL, "A", "*", 0, NULL) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_rows_next(NULL, &fields, &count) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_request(NULL, "A", NULL, 0, 0, NULL) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_publish(NULL, "A", NULL, 0) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_listen(NULL, "A", &id) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_snoop(NULL, "A", &id) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_unlisten(NULL, id) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_next_event(NULL, 0, &event) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_service_open("A", NULL, NULL) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_service_on_message(NULL, "A", report, NULL) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_service_run(NULL) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_notify(NULL, NULL, 0) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_reply_row(NULL, NULL, 0) == KVX_INVALID_ARGUMENT);
    CHECK(kvx_reply_refuse(NULL, "", 0) == KVX_INVALID_ARGUMENT);
}

int main(int argc, char** argv) {
    const char* part = argc > 1 ? argv[1] : "";
    if (strcmp(part, "serve") == 0) serve();
    if (strcmp(part, "ask") == 0) ask();
    if (strcmp(part, "lost") == 0) lost();
    if (strcmp(part, "null") == 0) null();
    return 0;
}
