/*
 * MQTT for Corvane: racks on several machines talk through a message broker.
 *
 * Written in C99 against the public SDK header only, as any plugin author
 * would, and linked against libmosquitto. Two node types:
 *   Publish    sends each event from its parent to a topic (an expression
 *              template) as a JSON object of the event's keys, then passes
 *              the event on;
 *   Subscribe  a source: one event per message on its topic filter, with
 *              "topic", "payload" and the members of a JSON object payload.
 *
 * One connection per process, made when the first MQTT node appears. It runs
 * on one network thread that does nothing but libmosquitto's loop: connecting,
 * reading and writing, and reconnecting after a loss with a delay of 1 s that
 * doubles up to 60 s. The session is persistent (no clean start), so a broker
 * that keeps its state holds QoS 1 messages for this client while it is away.
 * QoS 1 messages published while disconnected wait in a queue of at most
 * 10,000 (the oldest go first, with one warning) and are sent on reconnect.
 * Messages are handed to the main thread with corv_event_post; nothing else
 * from the SDK is called off the main thread except corv_plugin_log and
 * corv_plugin_invalidate_preferences, which may be.
 */
#define _POSIX_C_SOURCE 200809L

#include <corvane/corvane_sdk.h>
#include <mosquitto.h>

#include "mqtt_json.h"
#include "mqtt_platform.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define MQTT_ID "io.marrowfield.mqtt"
#define PUBLISH_ID MQTT_ID ".publish"
#define SUBSCRIBE_ID MQTT_ID ".subscribe"

#define QUEUE_LIMIT 10000
#define BACKOFF_FIRST 1
#define BACKOFF_LIMIT 60

/* Icons, made from the PNG files in icons/ at build time. */
extern const unsigned char mqtt_icon_plugin[], mqtt_icon_publish[], mqtt_icon_subscribe[];
extern const unsigned int mqtt_icon_plugin_size, mqtt_icon_publish_size, mqtt_icon_subscribe_size;

static corv_plugin *g_plugin = NULL;

/* ---- Settings ----------------------------------------------------------- */

typedef struct settings {
    char host[CORV_TEXT_SIZE];
    int port;
    char client_id[CORV_TEXT_SIZE];
    char user[CORV_TEXT_SIZE];
    char password[CORV_TEXT_SIZE];
    int keepalive;
    bool tls;
    char ca_file[1024];
} settings;

static void copy_text(char *out, size_t size, const char *text)
{
    snprintf(out, size, "%s", text ? text : "");
}

static void default_client_id(char *out, size_t size)
{
    char host[200] = "";
    if (!mqtt_host_name(host, sizeof host))
        copy_text(host, sizeof host, "localhost");
    snprintf(out, size, "corvane-%s", host);
}

static const char *store_text(corv_store *store, const char *key, const char *fallback)
{
    return store && corv_store_has_string(store, key) ? corv_store_get_string(store, key)
                                                      : fallback;
}

static int store_int(corv_store *store, const char *key, int fallback, int low, int high)
{
    int value = store && corv_store_has_int(store, key) ? corv_store_get_int(store, key) : fallback;
    return value < low || value > high ? fallback : value;
}

/* Main thread: the settings held by a preferences store, defaults for the rest. */
static void settings_from_store(corv_store *store, settings *out)
{
    char client_id[CORV_TEXT_SIZE];
    default_client_id(client_id, sizeof client_id);
    memset(out, 0, sizeof *out);
    copy_text(out->host, sizeof out->host, store_text(store, "host", "127.0.0.1"));
    out->port = store_int(store, "port", 1883, 1, 65535);
    copy_text(out->client_id, sizeof out->client_id, store_text(store, "clientid", client_id));
    if (!out->client_id[0])
        copy_text(out->client_id, sizeof out->client_id, client_id);
    copy_text(out->user, sizeof out->user, store_text(store, "user", ""));
    copy_text(out->password, sizeof out->password, store_text(store, "password", ""));
    out->keepalive = store_int(store, "keepalive", 30, 5, 65535);
    out->tls = store && corv_store_has_bool(store, "tls") && corv_store_get_bool(store, "tls");
    copy_text(out->ca_file, sizeof out->ca_file, store_text(store, "cafile", ""));
}

/* ---- The connection ----------------------------------------------------- */

enum state {
    STATE_OFF,        /* no connection wanted (yet) */
    STATE_CONNECTING, /* an attempt is under way */
    STATE_CONNECTED,
    STATE_LOST,        /* was connected; waiting to reconnect */
    STATE_UNREACHABLE, /* the broker could not be reached */
    STATE_REFUSED,     /* the broker answered and refused (user name, password, client id) */
    STATE_NOT_SET_UP   /* the settings can't be used here (TLS); no attempt is made */
};

typedef struct queued {
    char *topic;
    char *payload;
    int size;
    bool retain;
} queued;

/* A subscribe node as the network thread sees it. */
typedef struct subscriber {
    corv_sink *children;
    char filter[CORV_TEXT_SIZE]; /* "" while it has none or an invalid one */
    struct subscriber *next;
} subscriber;

/* A topic filter subscribed at the broker, with the number of nodes using it. */
typedef struct filter_use {
    char *filter;
    int count;       /* 0: no node uses it any more; unsubscribe when connected */
    bool subscribed; /* the broker's session holds it */
    struct filter_use *next;
} filter_use;

static struct {
    pthread_mutex_t lock; /* guards everything below */
    pthread_cond_t wake;  /* ends a reconnect delay early (stop) */
    struct mosquitto *mosq;
    pthread_t thread;
    bool running;   /* the network thread exists */
    bool wanted;    /* a node asked for the connection (main thread only) */
    bool stop;      /* the network thread should end */
    bool connected; /* the broker accepted the connection and it is up */
    bool accepted;  /* the current attempt got as far as an accepted connection */
    settings settings;
    enum state state;
    char detail[CORV_TEXT_SIZE];
    enum state logged_state;
    char logged_detail[CORV_TEXT_SIZE];
    queued *queue; /* ring of QUEUE_LIMIT entries, made on first use */
    size_t queue_head;
    size_t queue_count;
    bool queue_warned;
    subscriber *subscribers;
    filter_use *filters;
} g; /* lock and wake are made in cplugin_set_handle */

/* Under the lock: a new state, logged when it differs from the last one logged
 * (attempts in between are not), and shown on the preferences page. */
static void set_state(enum state state, const char *detail)
{
    char line[1024];
    g.state = state;
    copy_text(g.detail, sizeof g.detail, detail);
    if (g_plugin)
        corv_plugin_invalidate_preferences(g_plugin);
    if (state == STATE_CONNECTING ||
        (state == g.logged_state && strcmp(g.detail, g.logged_detail) == 0))
        return;
    if (state == STATE_OFF && g.logged_state == STATE_OFF)
        return;
    g.logged_state = state;
    copy_text(g.logged_detail, sizeof g.logged_detail, g.detail);
    switch (state) {
    case STATE_CONNECTED:
        snprintf(line, sizeof line, "Connected to %s:%d as %s", g.settings.host, g.settings.port,
                 g.settings.client_id);
        break;
    case STATE_LOST:
        snprintf(line, sizeof line, "Lost the connection to %s:%d (%s); reconnecting",
                 g.settings.host, g.settings.port, g.detail);
        break;
    case STATE_UNREACHABLE:
        snprintf(line, sizeof line, "Can't connect to %s:%d: %s", g.settings.host, g.settings.port,
                 g.detail);
        break;
    case STATE_REFUSED:
        snprintf(line, sizeof line, "The broker at %s:%d refused the connection: %s",
                 g.settings.host, g.settings.port, g.detail);
        break;
    case STATE_NOT_SET_UP:
        snprintf(line, sizeof line, "Not connecting to %s:%d: %s", g.settings.host, g.settings.port,
                 g.detail);
        break;
    default:
        snprintf(line, sizeof line, "Disconnected from %s:%d", g.settings.host, g.settings.port);
        break;
    }
    if (g_plugin)
        corv_plugin_log(g_plugin,
                        state == STATE_CONNECTED || state == STATE_OFF ? CORV_LOG_INFO
                                                                       : CORV_LOG_WARNING,
                        line);
}

static void free_queued(queued *entry)
{
    free(entry->topic);
    free(entry->payload);
    memset(entry, 0, sizeof *entry);
}

/* Under the lock: keeps a QoS 1 message for the next connection. */
static void enqueue(const char *topic, const char *payload, int size, bool retain)
{
    queued entry;
    if (!g.queue && !(g.queue = (queued *)calloc(QUEUE_LIMIT, sizeof *g.queue)))
        return;
    entry.topic = (char *)malloc(strlen(topic) + 1);
    entry.payload = (char *)malloc((size_t)size + 1);
    entry.size = size;
    entry.retain = retain;
    if (!entry.topic || !entry.payload) {
        free_queued(&entry);
        return;
    }
    strcpy(entry.topic, topic);
    memcpy(entry.payload, payload, (size_t)size);
    if (g.queue_count == QUEUE_LIMIT) {
        free_queued(&g.queue[g.queue_head]);
        g.queue_head = (g.queue_head + 1) % QUEUE_LIMIT;
        --g.queue_count;
        if (!g.queue_warned && g_plugin) {
            char line[160];
            snprintf(line, sizeof line,
                     "More than %d messages are waiting for the broker; dropping the oldest",
                     QUEUE_LIMIT);
            corv_plugin_log(g_plugin, CORV_LOG_WARNING, line);
        }
        g.queue_warned = true;
    }
    g.queue[(g.queue_head + g.queue_count) % QUEUE_LIMIT] = entry;
    ++g.queue_count;
}

/* Under the lock, connected: brings the broker's subscriptions in line with
 * the nodes. A session the broker kept still holds what was subscribed
 * before; subscribing again would only resend the retained messages. */
static void sync_subscriptions(struct mosquitto *mosq, bool session_kept)
{
    filter_use **link = &g.filters;
    while (*link) {
        filter_use *use = *link;
        if (!session_kept)
            use->subscribed = false;
        if (use->count > 0) {
            if (!use->subscribed)
                use->subscribed =
                    mosquitto_subscribe(mosq, NULL, use->filter, 1) == MOSQ_ERR_SUCCESS;
            link = &use->next;
            continue;
        }
        if (use->subscribed)
            mosquitto_unsubscribe(mosq, NULL, use->filter);
        *link = use->next;
        free(use->filter);
        free(use);
    }
}

/* Under the lock: one more node uses the filter. */
static void filter_acquire(const char *filter)
{
    filter_use *use;
    for (use = g.filters; use; use = use->next) {
        if (strcmp(use->filter, filter) == 0)
            break;
    }
    if (!use) {
        use = (filter_use *)calloc(1, sizeof *use);
        if (!use || !(use->filter = (char *)malloc(strlen(filter) + 1))) {
            free(use);
            return;
        }
        strcpy(use->filter, filter);
        use->next = g.filters;
        g.filters = use;
    }
    if (use->count++ == 0 && g.connected && !use->subscribed)
        use->subscribed = mosquitto_subscribe(g.mosq, NULL, filter, 1) == MOSQ_ERR_SUCCESS;
}

/* Under the lock: one node less uses the filter. */
static void filter_release(const char *filter)
{
    filter_use **link;
    for (link = &g.filters; *link; link = &(*link)->next) {
        filter_use *use = *link;
        if (strcmp(use->filter, filter) != 0)
            continue;
        if (--use->count > 0)
            return;
        /* While away, a filter the session holds waits for the next connection. */
        if (g.connected || !use->subscribed) {
            if (use->subscribed)
                mosquitto_unsubscribe(g.mosq, NULL, filter);
            *link = use->next;
            free(use->filter);
            free(use);
        }
        return;
    }
}

/* Network thread. */
static void on_connect(struct mosquitto *mosq, void *user, int result, int flags)
{
    (void)user;
    pthread_mutex_lock(&g.lock);
    if (result != 0) {
        set_state(STATE_REFUSED, mosquitto_connack_string(result));
        pthread_mutex_unlock(&g.lock);
        return;
    }
    g.connected = true;
    g.accepted = true;
    set_state(STATE_CONNECTED, "");
    sync_subscriptions(mosq, (flags & 1) != 0); /* session present */
    /* What waited goes out first, in order; a reconnect resends what
     * libmosquitto itself still holds unacknowledged. */
    while (g.queue_count) {
        queued *entry = &g.queue[g.queue_head];
        mosquitto_publish(mosq, NULL, entry->topic, entry->size, entry->payload, 1, entry->retain);
        free_queued(entry);
        g.queue_head = (g.queue_head + 1) % QUEUE_LIMIT;
        --g.queue_count;
    }
    g.queue_warned = false;
    pthread_mutex_unlock(&g.lock);
}

/* Why a connection failed or ended, in the words of the log and the status:
 * the system's for a socket error, our own where the library has none (a
 * broker that stopped answering, or never did). */
static void reason_text(int rc, int error, char *out, size_t size)
{
    if (rc == MOSQ_ERR_ERRNO && error != 0)
        mqtt_error_text(error, out, size);
    else if (rc == MOSQ_ERR_KEEPALIVE || rc == MOSQ_ERR_TIMEOUT)
        copy_text(out, size, "the broker did not answer in time");
    else
        copy_text(out, size, mosquitto_strerror(rc));
}

/* Network thread. */
static void on_disconnect(struct mosquitto *mosq, void *user, int result)
{
    const int error = errno;
    (void)mosq;
    (void)user;
    pthread_mutex_lock(&g.lock);
    if (g.connected && !g.stop) {
        char reason[CORV_TEXT_SIZE];
        reason_text(result, error, reason, sizeof reason);
        set_state(STATE_LOST, reason);
    }
    g.connected = false;
    pthread_mutex_unlock(&g.lock);
}

typedef struct incoming {
    corv_event *event;
} incoming;

static void add_member(void *user, const char *key, const char *value)
{
    incoming *in = (incoming *)user;
    /* The message's own topic and payload stand. */
    if (strcmp(key, "topic") != 0 && strcmp(key, "payload") != 0)
        corv_event_set(in->event, key, value);
}

/* Network thread: one event per message, to every subscribe node it matches. */
static void on_message(struct mosquitto *mosq, void *user, const struct mosquitto_message *message)
{
    incoming in;
    char *payload;
    subscriber *node;
    (void)mosq;
    (void)user;
    if (!message || !message->topic || message->payloadlen < 0)
        return;
    payload = (char *)malloc((size_t)message->payloadlen + 1);
    if (!payload)
        return;
    if (message->payloadlen)
        memcpy(payload, message->payload, (size_t)message->payloadlen);
    payload[message->payloadlen] = '\0';
    in.event = corv_event_create();
    corv_event_set(in.event, "topic", message->topic);
    corv_event_set(in.event, "payload", payload);
    mqtt_json_read_object(payload, (size_t)message->payloadlen, add_member, &in);
    free(payload);
    pthread_mutex_lock(&g.lock);
    for (node = g.subscribers; node; node = node->next) {
        bool match = false;
        if (node->filter[0] &&
            mosquitto_topic_matches_sub(node->filter, message->topic, &match) == MOSQ_ERR_SUCCESS &&
            match)
            corv_event_post(node->children, in.event);
    }
    pthread_mutex_unlock(&g.lock);
    corv_event_destroy(in.event);
}

static bool should_stop(void)
{
    bool stop;
    pthread_mutex_lock(&g.lock);
    stop = g.stop;
    pthread_mutex_unlock(&g.lock);
    return stop;
}

static double seconds_now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

/* The network thread: connect, run the loop until the connection ends, wait,
 * try again. libmosquitto's own reconnect offers no doubling delay, so the
 * thread runs the same loop itself. */
static void *network_main(void *arg)
{
    int backoff = BACKOFF_FIRST;
    bool first = true;
    (void)arg;
    pthread_mutex_lock(&g.lock);
    while (!g.stop) {
        settings s = g.settings;
        const double started = seconds_now();
        const double patience = s.keepalive > 10 ? s.keepalive : 10;
        int rc;
        int error;
        g.accepted = false;
        set_state(STATE_CONNECTING, "");
        pthread_mutex_unlock(&g.lock);
        errno = 0;
        rc = first ? mosquitto_connect_async(g.mosq, s.host, s.port, s.keepalive)
                   : mosquitto_reconnect_async(g.mosq);
        error = errno;
        first = false;
        while (rc == MOSQ_ERR_SUCCESS && !should_stop()) {
            bool connected;
            errno = 0;
            rc = mosquitto_loop(g.mosq, 1000, 1);
            error = errno;
            pthread_mutex_lock(&g.lock);
            connected = g.connected;
            pthread_mutex_unlock(&g.lock);
            /* A broker that never answers the connect. */
            if (rc == MOSQ_ERR_SUCCESS && !connected && seconds_now() - started > patience) {
                rc = MOSQ_ERR_TIMEOUT;
                mosquitto_disconnect(g.mosq);
            }
        }
        pthread_mutex_lock(&g.lock);
        if (g.stop)
            break;
        if (g.connected || (!g.accepted && g.state != STATE_REFUSED)) {
            /* The loop ended: a connection lost without telling (the socket
             * went away), or one that never came about. */
            const enum state next = g.connected ? STATE_LOST : STATE_UNREACHABLE;
            char reason[CORV_TEXT_SIZE];
            reason_text(rc, error, reason, sizeof reason);
            g.connected = false;
            set_state(next, reason);
        }
        if (g.accepted)
            backoff = BACKOFF_FIRST;
        {
            struct timespec until;
            clock_gettime(CLOCK_REALTIME, &until);
            until.tv_sec += backoff;
            while (!g.stop && pthread_cond_timedwait(&g.wake, &g.lock, &until) != ETIMEDOUT) {
            }
        }
        backoff = backoff * 2 > BACKOFF_LIMIT ? BACKOFF_LIMIT : backoff * 2;
    }
    g.connected = false;
    pthread_mutex_unlock(&g.lock);
    return NULL;
}

/* Main thread: connects with the settings of the preferences, once. */
static void client_start(void)
{
    settings s;
    struct mosquitto *mosq;
    if (g.running || !g_plugin)
        return;
    g.wanted = true;
    settings_from_store(corv_plugin_preferences_store(g_plugin), &s);
    mosq = mosquitto_new(s.client_id, false, NULL);
    if (!mosq) {
        pthread_mutex_lock(&g.lock);
        g.settings = s;
        set_state(STATE_REFUSED, "can't create a client with this client id");
        pthread_mutex_unlock(&g.lock);
        return;
    }
    mosquitto_threaded_set(mosq, true);
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_with_flags_callback_set(mosq, on_connect);
    mosquitto_disconnect_callback_set(mosq, on_disconnect);
    mosquitto_message_callback_set(mosq, on_message);
    if (s.user[0])
        mosquitto_username_pw_set(mosq, s.user, s.password[0] ? s.password : NULL);
    if (s.tls) {
        /* TLS that can't be set up (a CA file that can't be read, a
         * libmosquitto built without TLS) means no connection, never one in
         * the clear with the password. */
        const int rc = s.ca_file[0] ? mosquitto_tls_set(mosq, s.ca_file, NULL, NULL, NULL, NULL)
                                    : mosquitto_int_option(mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
        if (rc != MOSQ_ERR_SUCCESS) {
            pthread_mutex_lock(&g.lock);
            g.settings = s;
            set_state(STATE_NOT_SET_UP, rc == MOSQ_ERR_NOT_SUPPORTED ? "this build has no TLS"
                                        : s.ca_file[0]               ? "can't read the CA file"
                                                                     : mosquitto_strerror(rc));
            pthread_mutex_unlock(&g.lock);
            mosquitto_destroy(mosq);
            return;
        }
    }
    pthread_mutex_lock(&g.lock);
    g.mosq = mosq;
    g.settings = s;
    g.stop = false;
    g.connected = false;
    g.running = pthread_create(&g.thread, NULL, network_main, NULL) == 0;
    if (!g.running) {
        g.mosq = NULL;
        set_state(STATE_UNREACHABLE, "can't start the network thread");
    }
    pthread_mutex_unlock(&g.lock);
    if (!g.running)
        mosquitto_destroy(mosq);
}

/* Main thread: ends the connection; the queue and the subscriptions stay. */
static void client_stop(void)
{
    if (!g.running)
        return;
    pthread_mutex_lock(&g.lock);
    g.stop = true;
    pthread_cond_broadcast(&g.wake);
    pthread_mutex_unlock(&g.lock);
    mosquitto_disconnect(g.mosq); /* wakes the loop */
    pthread_join(g.thread, NULL);
    mosquitto_destroy(g.mosq);
    pthread_mutex_lock(&g.lock);
    g.mosq = NULL;
    g.running = false;
    g.connected = false;
    set_state(STATE_OFF, "");
    pthread_mutex_unlock(&g.lock);
}

/* Main thread: sends one message, or keeps it (QoS 1) until the connection is back. */
static void client_publish(const char *topic, const char *payload, int size, int qos, bool retain)
{
    pthread_mutex_lock(&g.lock);
    if (g.connected) {
        const int rc = mosquitto_publish(g.mosq, NULL, topic, size, payload, qos, retain);
        /* A QoS 1 message that finds the connection just gone stays with
         * libmosquitto, which sends it again after reconnecting. */
        if (rc != MOSQ_ERR_SUCCESS && !(rc == MOSQ_ERR_NO_CONN && qos == 1)) {
            char line[CORV_TEXT_SIZE + 64];
            snprintf(line, sizeof line, "Can't publish to \"%s\": %s", topic,
                     mosquitto_strerror(rc));
            corv_plugin_log(g_plugin, CORV_LOG_WARNING, line);
        }
    } else if (qos == 1) {
        enqueue(topic, payload, size, retain);
    }
    pthread_mutex_unlock(&g.lock);
}

/* ---- Nodes -------------------------------------------------------------- */

static corv_icon plugin_icon_record(void)
{
    corv_icon icon;
    icon.format = CORV_IMAGE_PNG;
    icon.data = mqtt_icon_plugin;
    icon.size = mqtt_icon_plugin_size;
    return icon;
}

/* The state line of a panel: where to and how it goes. */
static void state_text(char *out)
{
    /* Each text takes the address, and the last three the reason as well. */
    static const char *const keys[] = {
        [STATE_CONNECTING] = "MqttState.Connecting.%1",
        [STATE_CONNECTED] = "MqttState.Connected.%1",
        [STATE_LOST] = "MqttState.Lost.%1",
        [STATE_UNREACHABLE] = "MqttState.Unreachable.%1.%2",
        [STATE_REFUSED] = "MqttState.Refused.%1.%2",
        [STATE_NOT_SET_UP] = "MqttState.NotSetUp.%1.%2",
    };
    enum state state;
    char address[CORV_TEXT_SIZE + 16];
    char detail[CORV_TEXT_SIZE];
    corv_tr_builder *text;
    pthread_mutex_lock(&g.lock);
    state = g.state;
    snprintf(address, sizeof address, "%s:%d", g.settings.host, g.settings.port);
    copy_text(detail, sizeof detail, g.detail);
    pthread_mutex_unlock(&g.lock);
    if (state == STATE_OFF) {
        copy_text(out, CORV_TEXT_SIZE, corv_plugin_tr(g_plugin, "MqttState.Off"));
        return;
    }
    text = corv_tr_str(corv_plugin_tr_arg(g_plugin, keys[state]), address);
    if (state == STATE_UNREACHABLE || state == STATE_REFUSED || state == STATE_NOT_SET_UP)
        text = corv_tr_str(text, detail);
    corv_tr_end_str(text, out);
}

static void state_label(cui_generate_context *context)
{
    char text[CORV_TEXT_SIZE];
    size_t waiting;
    state_text(text);
    cui_label(context, corv_plugin_tr(g_plugin, "MqttPrefs.StateField"), text);
    pthread_mutex_lock(&g.lock);
    waiting = g.queue_count;
    pthread_mutex_unlock(&g.lock);
    if (waiting) {
        corv_plugin_tr_plural_str(g_plugin, "MqttPrefs.Queued.%1", (int)waiting, text);
        cui_label(context, "", text);
    }
}

/* -- Publish -- */

typedef struct publish_node {
    corv_node *node;
    char topic[CORV_TEXT_SIZE]; /* the template */
    int qos;
    bool retain;
    char refused_topic[CORV_TEXT_SIZE]; /* the last topic logged as unusable */
} publish_node;

static void *publish_create(corv_node *node)
{
    publish_node *self = (publish_node *)calloc(1, sizeof *self);
    if (!self)
        return NULL;
    self->node = node;
    copy_text(self->topic, sizeof self->topic, "corvane/events");
    self->qos = 1;
    client_start();
    return self;
}

static void publish_destroy(void *data)
{
    free(data);
}

static void publish_name(void *data, char *buffer)
{
    const publish_node *self = (const publish_node *)data;
    corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(g_plugin, "MqttPublish.Name.%1"), self->topic),
                    buffer);
}

static uint32_t publish_decoration(void *data)
{
    (void)data;
    return CORV_DECORATION_PASSES_THROUGH | CORV_DECORATION_TAKES_EVENTS |
           CORV_DECORATION_PASSES_RETURNED;
}

static void publish_build(void *data, cui_generate_context *context)
{
    publish_node *self = (publish_node *)data;
    const char *qos_items[2];
    const char *topic;
    qos_items[0] = corv_plugin_tr(g_plugin, "MqttPublish.Qos0");
    qos_items[1] = corv_plugin_tr(g_plugin, "MqttPublish.Qos1");
    topic = cui_text(context, "!topic", corv_plugin_tr(g_plugin, "MqttPublish.TopicField"),
                     "corvane/events");
    if (strcmp(topic, self->topic) != 0) {
        copy_text(self->topic, sizeof self->topic, topic);
        corv_node_invalidate_name(self->node);
    }
    self->qos = cui_radio_group(context, "!qos", corv_plugin_tr(g_plugin, "MqttPublish.QosField"),
                                qos_items, 2, 1) == 0
                    ? 0
                    : 1;
    self->retain = cui_checkbox(context, "!retain",
                                corv_plugin_tr(g_plugin, "MqttPublish.RetainField"), false);
    cui_label(context, "", corv_plugin_tr(g_plugin, "MqttPublish.Help"));
    state_label(context);
}

static void pass_on(corv_node *node, corv_event *event)
{
    corv_event_post(corv_node_parent_sink(node), event);
    corv_event_destroy(event);
}

static void publish_on_event(void *data, corv_event *event)
{
    publish_node *self = (publish_node *)data;
    char topic[CORV_TEXT_SIZE];
    mqtt_buffer json = {0};
    uint64_t i;
    const uint64_t count = corv_event_count(event);
    corv_expression_str(self->topic, event, topic);
    if (mosquitto_pub_topic_check(topic) != MOSQ_ERR_SUCCESS) {
        if (strcmp(topic, self->refused_topic) != 0) {
            char line[CORV_TEXT_SIZE + 96];
            copy_text(self->refused_topic, sizeof self->refused_topic, topic);
            snprintf(line, sizeof line,
                     "Can't publish to \"%s\": not a topic (empty, or with + or #)", topic);
            corv_plugin_log(g_plugin, CORV_LOG_WARNING, line);
        }
        pass_on(self->node, event);
        return;
    }
    mqtt_json_begin(&json);
    for (i = 0; i < count; ++i) {
        const char *key = corv_event_get_key(event, i);
        mqtt_json_member(&json, key, corv_event_get(event, key));
    }
    mqtt_json_end(&json);
    if (!json.failed && json.size <= 0x7fffffff)
        client_publish(topic, json.data, (int)json.size, self->qos, self->retain);
    mqtt_buffer_free(&json);
    pass_on(self->node, event);
}

static void publish_on_children_returned(void *data, corv_event *event)
{
    pass_on(((publish_node *)data)->node, event);
}

/* -- Subscribe -- */

typedef struct subscribe_node {
    corv_node *node;
    subscriber entry;           /* in g.subscribers from create to destroy */
    char shown[CORV_TEXT_SIZE]; /* the filter as typed */
} subscribe_node;

static void *subscribe_create(corv_node *node)
{
    subscribe_node *self = (subscribe_node *)calloc(1, sizeof *self);
    if (!self)
        return NULL;
    self->node = node;
    self->entry.children = corv_node_child_sink(node);
    pthread_mutex_lock(&g.lock);
    {
        subscriber **end = &g.subscribers;
        while (*end)
            end = &(*end)->next;
        *end = &self->entry; /* in creation order */
    }
    pthread_mutex_unlock(&g.lock);
    client_start();
    return self;
}

static void subscribe_destroy(void *data)
{
    subscribe_node *self = (subscribe_node *)data;
    subscriber **link;
    if (!self)
        return;
    /* After this no message reaches the node's sink. */
    pthread_mutex_lock(&g.lock);
    for (link = &g.subscribers; *link; link = &(*link)->next) {
        if (*link == &self->entry) {
            *link = self->entry.next;
            break;
        }
    }
    if (self->entry.filter[0])
        filter_release(self->entry.filter);
    pthread_mutex_unlock(&g.lock);
    free(self);
}

static void subscribe_name(void *data, char *buffer)
{
    const subscribe_node *self = (const subscribe_node *)data;
    corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(g_plugin, "MqttSubscribe.Name.%1"), self->shown),
                    buffer);
}

static uint32_t subscribe_decoration(void *data)
{
    (void)data;
    return CORV_DECORATION_PASSES_THROUGH | CORV_DECORATION_RUNS_CHILDREN |
           CORV_DECORATION_PASSES_RETURNED;
}

static void subscribe_build(void *data, cui_generate_context *context)
{
    subscribe_node *self = (subscribe_node *)data;
    const char *filter = cui_text(
        context, "!topic", corv_plugin_tr(g_plugin, "MqttSubscribe.FilterField"), "corvane/#");
    const bool valid = filter[0] && mosquitto_sub_topic_check(filter) == MOSQ_ERR_SUCCESS;
    if (strcmp(filter, self->shown) != 0) {
        copy_text(self->shown, sizeof self->shown, filter);
        pthread_mutex_lock(&g.lock);
        if (self->entry.filter[0])
            filter_release(self->entry.filter);
        copy_text(self->entry.filter, sizeof self->entry.filter, valid ? filter : "");
        if (valid)
            filter_acquire(filter);
        pthread_mutex_unlock(&g.lock);
        corv_node_invalidate_name(self->node);
    }
    if (!valid)
        cui_label(context, "", corv_plugin_tr(g_plugin, "MqttSubscribe.InvalidFilter"));
    cui_label(context, "", corv_plugin_tr(g_plugin, "MqttSubscribe.Help"));
    state_label(context);
}

static void subscribe_on_event(void *data, corv_event *event)
{
    pass_on(((subscribe_node *)data)->node, event);
}

/* ---- Preferences -------------------------------------------------------- */

/* The preferences hold a password: the file is the user's alone. */
static void make_user_only(bool create)
{
    char path[1200];
    if (!g_plugin)
        return;
    snprintf(path, sizeof path, "%s/prefs.xml", corv_plugin_get_data_dir(g_plugin));
    mqtt_make_user_only(path, create);
}

CPLUGIN_EXPORT void cplugin_build_preferences(cui_generate_context *context)
{
    char client_id[CORV_TEXT_SIZE];
    bool tls;
    default_client_id(client_id, sizeof client_id);
    cui_text(context, "host", corv_plugin_tr(g_plugin, "MqttPrefs.HostField"), "127.0.0.1");
    cui_int(context, "port", corv_plugin_tr(g_plugin, "MqttPrefs.PortField"), 1883, 1, 65535);
    cui_text(context, "clientid", corv_plugin_tr(g_plugin, "MqttPrefs.ClientIdField"), client_id);
    cui_text(context, "user", corv_plugin_tr(g_plugin, "MqttPrefs.UserField"), "");
    cui_password(context, "password", corv_plugin_tr(g_plugin, "MqttPrefs.PasswordField"));
    cui_int(context, "keepalive", corv_plugin_tr(g_plugin, "MqttPrefs.KeepAliveField"), 30, 5,
            65535);
    tls = cui_checkbox(context, "tls", corv_plugin_tr(g_plugin, "MqttPrefs.TlsField"), false);
    cui_open_file(context, "cafile", corv_plugin_tr(g_plugin, "MqttPrefs.CaFileField"),
                  corv_plugin_tr(g_plugin, "MqttPrefs.CaFileFilter"), "");
    cui_set_enabled(context, tls);
    cui_label(context, "", corv_plugin_tr(g_plugin, "MqttPrefs.Applies"));
    cui_separator(context);
    state_label(context);
}

/* New settings take effect at once: the connection is made again. */
CPLUGIN_EXPORT void cplugin_confirm_preferences(corv_store *store)
{
    settings next;
    bool changed;
    settings_from_store(store, &next);
    pthread_mutex_lock(&g.lock);
    changed = memcmp(&next, &g.settings, sizeof next) != 0;
    pthread_mutex_unlock(&g.lock);
    /* Also when the last settings could not be used at all. */
    if (changed && (g.running || g.wanted)) {
        client_stop();
        client_start();
    }
}

CPLUGIN_EXPORT void cplugin_migrate_save_preferences(corv_store *store)
{
    (void)store;
    make_user_only(true);
}

/* ---- Entry points ------------------------------------------------------- */

CPLUGIN_EXPORT int cplugin_sdk_version(void)
{
    return CORV_SDK_VERSION;
}

CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin)
{
    g_plugin = plugin;
    pthread_mutex_init(&g.lock, NULL);
    pthread_cond_init(&g.wake, NULL);
}

CPLUGIN_EXPORT void cplugin_get_info(corv_plugin_info *info)
{
    static corv_icon icon;
    icon = plugin_icon_record();
    info->id = MQTT_ID;
    info->name = "MQTT";
    info->version = "1.0.0";
    info->author = "Marrowfield";
    info->update_url = "https://updates.marrowfield.example/plugins/mqtt/manifest.json";
    info->description = "Publish and subscribe through an MQTT broker: racks on several machines.";
    info->website = "https://marrowfield.example/corvane/plugins/mqtt";
    info->icon = &icon;
}

CPLUGIN_EXPORT int cplugin_load(corv_registration *registration)
{
    corv_node_type publish = {0};
    corv_node_type subscribe = {0};
    corv_icon publish_icon = {CORV_IMAGE_PNG, NULL, 0};
    corv_icon subscribe_icon = {CORV_IMAGE_PNG, NULL, 0};
    const char *category = corv_plugin_tr(g_plugin, "MqttCategory");
    if (mosquitto_lib_init() != MOSQ_ERR_SUCCESS)
        return 1;
    publish_icon.data = mqtt_icon_publish;
    publish_icon.size = mqtt_icon_publish_size;
    subscribe_icon.data = mqtt_icon_subscribe;
    subscribe_icon.size = mqtt_icon_subscribe_size;

    publish.id = PUBLISH_ID;
    publish.name = corv_plugin_tr(g_plugin, "MqttPublish.Type");
    publish.category = category;
    publish.icon = &publish_icon;
    publish.create = publish_create;
    publish.destroy = publish_destroy;
    publish.get_instance_name = publish_name;
    publish.get_decoration = publish_decoration;
    publish.build = publish_build;
    publish.on_event = publish_on_event;
    publish.on_children_returned = publish_on_children_returned;
    corv_register_node(registration, &publish);

    subscribe.id = SUBSCRIBE_ID;
    subscribe.name = corv_plugin_tr(g_plugin, "MqttSubscribe.Type");
    subscribe.category = category;
    subscribe.icon = &subscribe_icon;
    subscribe.create = subscribe_create;
    subscribe.destroy = subscribe_destroy;
    subscribe.get_instance_name = subscribe_name;
    subscribe.get_decoration = subscribe_decoration;
    subscribe.build = subscribe_build;
    subscribe.on_event = subscribe_on_event;
    subscribe.on_children_returned = subscribe_on_event;
    corv_register_node(registration, &subscribe);
    return 0;
}

CPLUGIN_EXPORT void cplugin_postload(void)
{
    make_user_only(false);
}

CPLUGIN_EXPORT void cplugin_unload(void)
{
    filter_use *use;
    size_t i;
    client_stop();
    g.wanted = false;
    pthread_mutex_lock(&g.lock);
    if (g.queue_count && g_plugin) {
        char line[128];
        snprintf(line, sizeof line,
                 "%lu messages for the broker were not sent before shutting down",
                 (unsigned long)g.queue_count);
        corv_plugin_log(g_plugin, CORV_LOG_WARNING, line);
    }
    for (i = 0; g.queue && i < QUEUE_LIMIT; ++i)
        free_queued(&g.queue[i]);
    free(g.queue);
    g.queue = NULL;
    g.queue_count = 0;
    while ((use = g.filters) != NULL) {
        g.filters = use->next;
        free(use->filter);
        free(use);
    }
    g.subscribers = NULL;
    pthread_mutex_unlock(&g.lock);
    mosquitto_lib_cleanup();
    g_plugin = NULL;
}
