/*
 * Corvane plugin SDK, version 1.
 *
 * A plugin is a native library in a folder of its own inside the application's
 * "plugins" folder; folder and library carry the plugin's id (on Linux
 * "plugins/com.example.pass/com.example.pass.so"). The file name is exactly
 * the folder's name and the platform's suffix: no "lib" prefix. The executable loads it at
 * start-up and calls its entry points; the plugin talks back through the
 * functions that the executable exports, declared in this header. Do not link
 * the plugin against anything: the corv_* symbols are resolved from the running
 * program when the library is loaded (on Windows, link the import library
 * corvane.lib), and a plugin that needs a function the program lacks is
 * refused at load time.
 *
 * Everything is plain C99: handles are opaque pointers, strings are
 * zero-terminated UTF-8, records are structs of named fields. A string that a
 * function returns is borrowed (valid until the thing it belongs to changes
 * or dies) unless the comment says it is yours; yours are released with
 * corv_string_destroy. The "_str" variants write into a caller buffer of
 * CORV_TEXT_SIZE (256) bytes.
 *
 * A minimal complete plugin, one node type that passes every event on
 * (saved as pass.c, built as the shared library "com.example.pass"; in C++
 * zero the records with "= {}" instead of "= {0}"):
 *
 *     #include <corvane/corvane_sdk.h>
 *
 *     static void *pass_create(corv_node *node) { return node; }
 *
 *     static void pass_on_event(void *data, corv_event *event)
 *     {
 *         corv_event_post(corv_node_parent_sink((corv_node *)data), event);
 *         corv_event_destroy(event);
 *     }
 *
 *     CPLUGIN_EXPORT int cplugin_sdk_version(void) { return CORV_SDK_VERSION; }
 *     CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin) { (void)plugin; }
 *     CPLUGIN_EXPORT void cplugin_get_info(corv_plugin_info *info)
 *     {
 *         info->id = "com.example.pass";
 *         info->name = "Pass";
 *         info->version = "1.0.0";
 *         info->author = "Example Author";
 *     }
 *     CPLUGIN_EXPORT int cplugin_load(corv_registration *registration)
 *     {
 *         corv_node_type type = {0};
 *         type.id = "com.example.pass";
 *         type.name = "Pass on";
 *         type.create = pass_create;
 *         type.on_event = pass_on_event;
 *         corv_register_node(registration, &type);
 *         return 0;
 *     }
 *
 * Entry points of a plugin, exported with CPLUGIN_EXPORT under exactly these
 * names (each has a cplugin_*_fn type below):
 *   Required  cplugin_sdk_version       return CORV_SDK_VERSION; called first
 *   Required  cplugin_set_handle        keep the plugin handle; called once, next
 *   Required  cplugin_get_info          fill the info record; called once, next
 *   Optional  cplugin_load              register node types; 0 means success
 *   Optional  cplugin_postload          every plugin has loaded
 *   Optional  cplugin_unload            at shutdown, before the library is unloaded
 *   Optional  cplugin_build_preferences declare the preferences page (cui_*);
 *                                       a plugin that exports it has preferences
 *   Optional  cplugin_confirm_preferences      the preferences window was confirmed
 *   Optional  cplugin_migrate_load_preferences preferences were read from disk
 *   Optional  cplugin_migrate_save_preferences preferences are about to be written
 *
 * Additions to version 1 (a plugin that calls one needs a program that has it):
 *   corv_register_node_acts_outside  a node type acts outside the program
 *   corv_register_node_on_stop       a node's rack stopped: end what it started
 *
 * Order at start-up, for all plugins in turn: version check, handle, info;
 * then three passes: preferences read, cplugin_load, cplugin_postload. A
 * plugin whose cplugin_load fails is unloaded at once (cplugin_unload) and
 * none of what it registered exists.
 *
 * The plugin's data folder (corv_plugin_get_data_dir) is known from
 * cplugin_set_handle on. cplugin_migrate_load_preferences runs in the first
 * pass, right after the plugin's "prefs.xml" was read into its store; not when
 * there is no such file yet (first run) or it could not be read.
 *
 * Lifetimes of what the program hands out:
 *   corv_plugin      from cplugin_set_handle until cplugin_unload returns.
 *   corv_registration  during cplugin_load only.
 *   corv_node        from create until destroy returns.
 *   corv_sink        the sinks of a node (corv_node_parent_sink,
 *                    corv_node_child_sink) as long as its corv_node; a rack's
 *                    sink as long as its corv_rack.
 *   corv_rack        returned by cui_select_rack: until the next build of that
 *                    panel. A rack that goes away rebuilds the panels that
 *                    chose it, so fetch it again in every build and keep it no
 *                    longer than that.
 *   corv_store       the store given to a node's load and unload, and to the
 *                    preferences callbacks: during that call only; do not keep
 *                    it. corv_plugin_preferences_store lives as long as the
 *                    plugin.
 *
 * A node's life: create, then load with its stored properties, then build
 * (its panel is declared right after load, also when the program runs
 * without a window), then events; finally unload and destroy. load and
 * unload run only for the nodes of a project being opened or closed (and when
 * a node's type changes under it): a node the user adds or pastes into a
 * running project is created and built, but never gets load.
 *
 * Threads: every callback runs on the application's main thread. The event
 * functions (corv_event_*) may be called from any thread, one thread per
 * handle at a time, and so may corv_plugin_log, corv_plugin_invalidate_preferences
 * and the expression functions; everything else belongs to the main thread, including
 * corv_node_parent_sink and the other sink getters. A worker thread therefore
 * posts to a sink fetched on the main thread, and is stopped (joined) in
 * destroy, before the sink goes:
 *
 *     typedef struct { corv_sink *out; thrd_t worker; atomic_bool stop; } watch;
 *
 *     static int watch_run(void *arg)            // on the worker thread
 *     {
 *         watch *w = arg;
 *         while (!atomic_load(&w->stop)) {
 *             corv_event *event = corv_event_create();
 *             corv_event_set(event, "what", "tick");
 *             corv_event_post(w->out, event);    // queued for the main thread
 *             corv_event_destroy(event);
 *             thrd_sleep(&(struct timespec){.tv_sec = 1}, NULL);
 *         }
 *         return 0;
 *     }
 *
 *     static void *watch_create(corv_node *node) // on the main thread
 *     {
 *         watch *w = calloc(1, sizeof *w);
 *         w->out = corv_node_parent_sink(node);  // fetched here, used there
 *         thrd_create(&w->worker, watch_run, w);
 *         return w;
 *     }
 *
 *     static void watch_destroy(void *data)
 *     {
 *         watch *w = data;
 *         atomic_store(&w->stop, true);
 *         thrd_join(w->worker, NULL);            // no post after this returns
 *         free(w);
 *     }
 */
#ifndef CORVANE_SDK_H
#define CORVANE_SDK_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

/* The SDK version that cplugin_sdk_version must return. */
#define CORV_SDK_VERSION 1

/* The size of every caller text buffer: at most 255 bytes and a zero. */
#define CORV_TEXT_SIZE 256

#ifdef __cplusplus
#define CORV_EXTERN_C extern "C"
#else
#define CORV_EXTERN_C
#endif

/* CPLUGIN_EXPORT marks an entry point that a plugin exports; it reads the same
 * from C and C++ (extern "C" is added for C++). CORV_API marks a function that
 * the executable exports to plugins. */
#if defined(_WIN32)
#define CPLUGIN_EXPORT CORV_EXTERN_C __declspec(dllexport)
#if defined(CORV_SDK_BUILDING)
#define CORV_API CORV_EXTERN_C __declspec(dllexport)
#else
#define CORV_API CORV_EXTERN_C __declspec(dllimport)
#endif
#else
#define CPLUGIN_EXPORT CORV_EXTERN_C __attribute__((visibility("default")))
#define CORV_API CORV_EXTERN_C __attribute__((visibility("default")))
#endif

/* ------------------------------------------------------------------------ */
/* Handles                                                                  */
/* ------------------------------------------------------------------------ */

typedef struct corv_plugin corv_plugin;                   /* a loaded plugin (cplugin_set_handle) */
typedef struct corv_registration corv_registration;       /* valid only during cplugin_load */
typedef struct corv_node corv_node;                       /* one live node instance */
typedef struct corv_event corv_event;                     /* one counted reference to an event */
typedef struct corv_sink corv_sink;                       /* where events are posted */
typedef struct corv_store corv_store;                     /* a property store view */
typedef struct corv_rack corv_rack;                       /* a running rack */
typedef struct corv_tr_builder corv_tr_builder;           /* a translation being built */
typedef struct cui_generate_context cui_generate_context; /* one build of a property panel */

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* ------------------------------------------------------------------------ */

/* Two and three 64-bit floats, as stores hold them. */
typedef struct corv_vec2 {
    double x;
    double y;
} corv_vec2;

typedef struct corv_vec3 {
    double x;
    double y;
    double z;
} corv_vec3;

/* Image format codes of an icon record. Any other value lets the image reader
 * detect the format from the bytes. */
enum corv_image_format {
    CORV_IMAGE_DETECT = 0,
    CORV_IMAGE_BMP = 1,
    CORV_IMAGE_GIF = 2,
    CORV_IMAGE_JPG = 3,
    CORV_IMAGE_JPEG = 4,
    CORV_IMAGE_PNG = 5
};

/* Encoded image bytes; decoded at once, so the bytes need not outlive the call. */
typedef struct corv_icon {
    uint32_t format;  /* a corv_image_format code */
    const void *data; /* the encoded image */
    uint32_t size;    /* byte length of data */
} corv_icon;

/* Node type callbacks. `data` is what create returned. */
typedef void *(*corv_node_create_fn)(corv_node *node);
typedef void (*corv_node_destroy_fn)(void *data);
typedef void (*corv_node_get_instance_name_fn)(void *data, char *buffer /* [CORV_TEXT_SIZE] */);
typedef uint32_t (*corv_node_get_decoration_fn)(void *data);
typedef void (*corv_node_build_fn)(void *data, cui_generate_context *context);
typedef void (*corv_node_on_event_fn)(void *data, corv_event *event);
typedef void (*corv_node_on_children_returned_fn)(void *data, corv_event *event);
typedef void (*corv_node_load_fn)(void *data, corv_store *store);
typedef void (*corv_node_unload_fn)(void *data, corv_store *store);
typedef void (*corv_node_stop_fn)(void *data);

/* Decoration bits returned by get_decoration (bit 4 is not read). They tell
 * the rack panel how events flow through the node. */
enum corv_decoration {
    CORV_DECORATION_PASSES_THROUGH = 1, /* passes events from its parent straight on */
    CORV_DECORATION_TAKES_EVENTS = 2,   /* takes events from its parent */
    CORV_DECORATION_PASSES_LATER = 4,   /* passes them on later or changed */
    CORV_DECORATION_RUNS_CHILDREN = 8,  /* runs its children */
    CORV_DECORATION_PASSES_RETURNED = 32 /* passes on what its children hand back */
};

/* A node type, passed to corv_register_node. Strings are copied. Every callback may be null. */
typedef struct corv_node_type {
    const char *id;       /* required; unique among all node types, e.g. "com.example.delay" */
    const char *name;     /* display name, already translated */
    const char *category; /* add-node group; null: the plugin's display name */
    const corv_icon *icon; /* null: the plugin's icon */
    corv_node_create_fn create;   /* make the instance data; the node handle lives as long */
    corv_node_destroy_fn destroy; /* free the instance data */
    corv_node_get_instance_name_fn get_instance_name; /* write the node's display name */
    corv_node_get_decoration_fn get_decoration;       /* the corv_decoration bits of the node */
    corv_node_build_fn build;                         /* declare the node's property panel */
    corv_node_on_event_fn on_event; /* an event from the parent; the callee owns the handle */
    corv_node_on_children_returned_fn on_children_returned; /* back from the children; owned */
    corv_node_load_fn load;     /* the node's store, once, when the project was opened; the store
                                   handle is valid during the call only. Nodes added to a
                                   running project never get load. build follows at once. */
    corv_node_unload_fn unload; /* the node's store, before the instance is replaced (project
                                   closed, type changed); valid during the call only */
} corv_node_type;

/* Maps a node of a retired type to a new type id: write the id as
 * zero-terminated UTF-8 into out_id (CORV_TEXT_SIZE bytes, first byte zero)
 * and return true. The store shows the node's properties under their full keys. */
typedef bool (*corv_node_mapper_fn)(void *user_data, corv_store *store, char *out_id);

/* A migration of a retired node type, passed to corv_register_node_migration. */
typedef struct corv_node_migration {
    const char *id;              /* the retired node type id */
    void *user_data;             /* handed back to mapper */
    corv_node_mapper_fn mapper;  /* may be null: the migration then always fails */
} corv_node_migration;

/* What cplugin_get_info fills in. The record is zeroed before the call; the
 * strings are copied right after it, so string literals are fine. */
typedef struct corv_plugin_info {
    const char *id;          /* required; equals the plugin's folder name, e.g. "com.example.pass" */
    const char *name;        /* display name */
    const char *version;     /* e.g. "1.2.0" */
    const char *author;
    const char *update_url;  /* address of the update manifest, with "#entry" if needed; may be null */
    const char *description; /* one line shown on the plugin's preferences page; may be null */
    const char *website;     /* the plugin's home page; may be null */
    const corv_icon *icon;   /* default icon of its node types; may be null */
} corv_plugin_info;

/* ------------------------------------------------------------------------ */
/* Entry points a plugin exports                                            */
/* ------------------------------------------------------------------------ */

#define CPLUGIN_SDK_VERSION_NAME "cplugin_sdk_version"
#define CPLUGIN_SET_HANDLE_NAME "cplugin_set_handle"
#define CPLUGIN_GET_INFO_NAME "cplugin_get_info"
#define CPLUGIN_LOAD_NAME "cplugin_load"
#define CPLUGIN_POSTLOAD_NAME "cplugin_postload"
#define CPLUGIN_UNLOAD_NAME "cplugin_unload"
#define CPLUGIN_BUILD_PREFERENCES_NAME "cplugin_build_preferences"
#define CPLUGIN_CONFIRM_PREFERENCES_NAME "cplugin_confirm_preferences"
#define CPLUGIN_MIGRATE_LOAD_PREFERENCES_NAME "cplugin_migrate_load_preferences"
#define CPLUGIN_MIGRATE_SAVE_PREFERENCES_NAME "cplugin_migrate_save_preferences"

/* Required. Return CORV_SDK_VERSION; any other value refuses the plugin. */
typedef int (*cplugin_sdk_version_fn)(void);
/* Required. The handle for the corv_plugin_* functions; valid until unload.
 * The install and data folders can be asked for from here on. */
typedef void (*cplugin_set_handle_fn)(corv_plugin *plugin);
/* Required. Fill in the zeroed info record. */
typedef void (*cplugin_get_info_fn)(corv_plugin_info *info);
/* Optional. Register node types and migrations; return 0 on success. Any
 * other value discards every registration and unloads the plugin. */
typedef int (*cplugin_load_fn)(corv_registration *registration);
/* Optional. All plugins have loaded. */
typedef void (*cplugin_postload_fn)(void);
/* Optional. The program shuts down (or the load failed); free everything. */
typedef void (*cplugin_unload_fn)(void);
/* Optional. Declare the plugin's preferences page with the cui_* functions;
 * the fields edit corv_plugin_preferences_store. Runs again after every
 * corv_plugin_invalidate_preferences. */
typedef void (*cplugin_build_preferences_fn)(cui_generate_context *context);
/* Optional. The user confirmed the preferences window; the store holds the
 * values to apply. They are written to disk right after. */
typedef void (*cplugin_confirm_preferences_fn)(corv_store *store);
/* Optional. The preferences were read from disk into the store: convert what
 * another version of the plugin wrote. Runs at start-up, in the preferences
 * pass before any cplugin_load, and only when a "prefs.xml" was read; the
 * store handle is valid during the call. */
typedef void (*cplugin_migrate_load_preferences_fn)(corv_store *store);
/* Optional. The preferences are about to be written from the store: add
 * anything a later version needs to read them (e.g. a format number). */
typedef void (*cplugin_migrate_save_preferences_fn)(corv_store *store);

/* ------------------------------------------------------------------------ */
/* Events: string keys to string values, keys in first-set order.           */
/* Any thread may use these, one thread per handle at a time.              */
/* ------------------------------------------------------------------------ */

/* A new empty event; yours, release it with corv_event_destroy. */
CORV_API corv_event *corv_event_create(void);
/* Releases one handle; null is allowed. */
CORV_API void corv_event_destroy(corv_event *event);
/* Sets key to value (null: ""); an existing key keeps its position. Other
 * handles sharing the event keep what they saw (copy on write). */
CORV_API void corv_event_set(corv_event *event, const char *key, const char *value);
/* The value of key, borrowed until the handle is next written; null when absent. */
CORV_API const char *corv_event_get(corv_event *event, const char *key);
/* The number of keys. */
CORV_API uint64_t corv_event_count(corv_event *event);
/* The key at a position of the insertion order; null when index >= count. */
CORV_API const char *corv_event_get_key(corv_event *event, uint64_t index);
/* A new handle to the same event (no copy); yours. */
CORV_API corv_event *corv_event_clone(corv_event *event);
/* Queues the event for a sink; delivery runs later on the main thread. You
 * keep your handle and must still destroy it. */
CORV_API void corv_event_post(corv_sink *sink, corv_event *event);

/* ------------------------------------------------------------------------ */
/* Stores. A node's store prefixes plain keys with the node type id and "."; */
/* a key starting with "!" is absolute and stored as it stands. Reading     */
/* falls back from "key" to "!key" (and from "!key" to the prefixed key).   */
/* Missing keys and other types give zero values.                          */
/* ------------------------------------------------------------------------ */

/* True when the key holds a value of exactly that type. */
CORV_API bool corv_store_has_string(corv_store *store, const char *key);
CORV_API bool corv_store_has_bool(corv_store *store, const char *key);
CORV_API bool corv_store_has_int(corv_store *store, const char *key);
CORV_API bool corv_store_has_float(corv_store *store, const char *key);
CORV_API bool corv_store_has_vec2(corv_store *store, const char *key);
CORV_API bool corv_store_has_vec3(corv_store *store, const char *key);
CORV_API bool corv_store_has_buffer(corv_store *store, const char *key);

/* Borrowed until the value changes; null when absent, "" when of another type. */
CORV_API const char *corv_store_get_string(corv_store *store, const char *key);
CORV_API bool corv_store_get_bool(corv_store *store, const char *key);
CORV_API int32_t corv_store_get_int(corv_store *store, const char *key);
CORV_API double corv_store_get_float(corv_store *store, const char *key);
CORV_API corv_vec2 corv_store_get_vec2(corv_store *store, const char *key);
/* x and y of the stored value; z always comes back as 0. */
CORV_API corv_vec3 corv_store_get_vec3(corv_store *store, const char *key);
/* The bytes (borrowed) and their count. Absent: *data null, 0; another type:
 * *data non-null, 0. */
CORV_API uint64_t corv_store_get_buffer(corv_store *store, const char *key, const void **data);

/* Creates or replaces the value under the key (never a "!" or parent fallback). */
CORV_API void corv_store_set_string(corv_store *store, const char *key, const char *value);
CORV_API void corv_store_set_bool(corv_store *store, const char *key, bool value);
CORV_API void corv_store_set_int(corv_store *store, const char *key, int32_t value);
CORV_API void corv_store_set_float(corv_store *store, const char *key, double value);
CORV_API void corv_store_set_vec2(corv_store *store, const char *key, corv_vec2 value);
CORV_API void corv_store_set_vec3(corv_store *store, const char *key, corv_vec3 value);
/* Only the low 32 bits of size count, as a signed length. */
CORV_API void corv_store_set_buffer(corv_store *store, const char *key, const void *data, uint64_t size);

/* ------------------------------------------------------------------------ */
/* Nodes and racks                                                          */
/* ------------------------------------------------------------------------ */

/* Asks get_instance_name again. */
CORV_API void corv_node_invalidate_name(corv_node *node);
/* Asks get_decoration again. */
CORV_API void corv_node_invalidate_decoration(corv_node *node);
/* Rebuilds the node's property panel (build) on the next turn of the event loop. */
CORV_API void corv_node_invalidate_properties(corv_node *node);
/* Posting here passes an event on to the node's next sibling. The sink is
 * valid as long as the node (until destroy returns); fetch it on the main
 * thread, post to it from any thread. */
CORV_API corv_sink *corv_node_parent_sink(corv_node *node);
/* Posting here runs the node's children from the first. */
CORV_API corv_sink *corv_node_child_sink(corv_node *node);

/* The rack's current name; borrowed until the rack is renamed. */
CORV_API const char *corv_rack_name(corv_rack *rack);
/* Posting here runs the rack's top-level nodes from the first. Valid as long
 * as the corv_rack it came from. */
CORV_API corv_sink *corv_rack_sink(corv_rack *rack);

/* ------------------------------------------------------------------------ */
/* The plugin itself                                                        */
/* ------------------------------------------------------------------------ */

/* The plugin's preferences; null when it exports no cplugin_build_preferences. */
CORV_API corv_store *corv_plugin_preferences_store(corv_plugin *plugin);
/* Rebuilds the preferences page on the next turn of the event loop (calls
 * before then are merged); nothing without preferences. Any thread may call
 * this (a worker that changed what the page shows, for one). */
CORV_API void corv_plugin_invalidate_preferences(corv_plugin *plugin);
/* The plugin's folder (borrowed). */
CORV_API const char *corv_plugin_get_install_dir(corv_plugin *plugin);
/* A folder for the plugin's own files, "<application data>/plugins/<id>",
 * made on first request (borrowed; valid as long as the plugin). Known from
 * cplugin_set_handle on. */
CORV_API const char *corv_plugin_get_data_dir(corv_plugin *plugin);

/* Levels of corv_plugin_log. */
enum corv_log_level {
    CORV_LOG_DEBUG = 0,  /* progress, in the console only */
    CORV_LOG_INFO = 1,   /* a success or a change worth keeping in the log file */
    CORV_LOG_WARNING = 2 /* something the user should look at */
};

/* Writes one line to the program's log as "<plugin id>: <text>". Any thread
 * may call this. Never log secrets: log files are kept and shared. */
CORV_API void corv_plugin_log(corv_plugin *plugin, int level, const char *text);

/* ------------------------------------------------------------------------ */
/* Registration and memory                                                  */
/* ------------------------------------------------------------------------ */

/* Registers a node type; only during cplugin_load. The outcome is logged. */
CORV_API void corv_register_node(corv_registration *registration, const corv_node_type *type);
/* Registers a migration of a retired type id; only during cplugin_load. */
CORV_API void corv_register_node_migration(corv_registration *registration,
                                           const corv_node_migration *migration);
/* Declares that the nodes of a type this plugin registered (corv_register_node
 * first) act outside the program: they run programs, open files or addresses,
 * change the clipboard. The program then delivers them no events until the
 * user allows them for the project: the window asks once per project and
 * machine, a headless run needs --allow-run. Only during cplugin_load. */
CORV_API void corv_register_node_acts_outside(corv_registration *registration, const char *type_id);
/* Gives a type this plugin registered a stop callback: it runs when a node's
 * rack stops running (the user disabled the rack or paused every rack), so
 * that the node ends what it set going outside the program, such as programs
 * still running. The instance stays; events come again once the rack runs.
 * Only during cplugin_load. */
CORV_API void corv_register_node_on_stop(corv_registration *registration, const char *type_id,
                                         corv_node_stop_fn on_stop);
/* Frees a string that a function handed to you. Null is allowed. */
CORV_API void corv_string_destroy(char *string);

/* ------------------------------------------------------------------------ */
/* Translation, from the plugin's "locale" folder: "en-US.ini" is the     */
/* fallback, other files are named by locale id ("de-DE.ini"). Texts use   */
/* %1, %2 ... for arguments; a plural argument equal to 1 looks the key up */
/* with that placeholder replaced by "Singular". With the lines            */
/*     Repeat.Name.%1 = Repeat %1 times                                     */
/*     Repeat.Name.Singular = Repeat once                                   */
/* and key = "Repeat.Name.%1", this writes "Repeat 3 times" for 3:          */
/*     char name[CORV_TEXT_SIZE];                                           */
/*     corv_tr_end_str(corv_tr_int_plural(corv_plugin_tr_arg(plugin, key),  */
/*                                        count), name);                    */
/* ------------------------------------------------------------------------ */

/* The text of key (borrowed until the language changes); null key: "". */
CORV_API const char *corv_plugin_tr(corv_plugin *plugin, const char *key);
/* Starts a text with arguments; end it with corv_tr_end or corv_tr_end_str. */
CORV_API corv_tr_builder *corv_plugin_tr_arg(corv_plugin *plugin, const char *key);
/* Append the next argument; each returns the builder. */
CORV_API corv_tr_builder *corv_tr_str(corv_tr_builder *builder, const char *value);
CORV_API corv_tr_builder *corv_tr_int(corv_tr_builder *builder, int value);
CORV_API corv_tr_builder *corv_tr_int_plural(corv_tr_builder *builder, int value);
CORV_API corv_tr_builder *corv_tr_float(corv_tr_builder *builder, double value);
CORV_API corv_tr_builder *corv_tr_float_plural(corv_tr_builder *builder, double value);
/* Formats and frees the builder; the text is yours (corv_string_destroy). */
CORV_API char *corv_tr_end(corv_tr_builder *builder);
/* Formats into out (CORV_TEXT_SIZE bytes) and frees the builder. */
CORV_API void corv_tr_end_str(corv_tr_builder *builder, char *out);
/* Shorthands for one plural count. */
CORV_API char *corv_plugin_tr_plural(corv_plugin *plugin, const char *key, int count);
CORV_API void corv_plugin_tr_plural_str(corv_plugin *plugin, const char *key, int count, char *out);

/* ------------------------------------------------------------------------ */
/* Expressions: a text template whose {holes} read event keys, e.g.        */
/* "Level {level * 2}" or "{upper(name)} ({len(name)})"; "{{" and "}}" are  */
/* literal braces. A null text gives "", a null event has no keys, and an   */
/* error gives "" and logs one warning. Any thread may call these.          */
/* ------------------------------------------------------------------------ */

/* The result; yours (corv_string_destroy). */
CORV_API char *corv_expression(const char *text, corv_event *event);
/* The result in out (CORV_TEXT_SIZE bytes), cut at a character boundary. */
CORV_API void corv_expression_str(const char *text, corv_event *event, char *out);
/* The result set as the event's key (as corv_event_set), without a copy in
 * between: what an evaluate node does with each event. */
CORV_API void corv_event_set_expression(corv_event *event, const char *key, const char *text);

/* ------------------------------------------------------------------------ */
/* Record layout. The records above are part of the binary interface: on a  */
/* 64-bit target their sizes and field offsets must never change.           */
/* ------------------------------------------------------------------------ */

#if defined(__cplusplus) && __cplusplus >= 201103L
#define CORV_SDK_STATIC_ASSERT(condition, message) static_assert(condition, message)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define CORV_SDK_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

#if defined(CORV_SDK_STATIC_ASSERT) && defined(UINTPTR_MAX) && UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
CORV_SDK_STATIC_ASSERT(sizeof(corv_vec2) == 16 && sizeof(corv_vec3) == 24, "corv_vec layout");
CORV_SDK_STATIC_ASSERT(sizeof(corv_icon) == 24 && offsetof(corv_icon, data) == 8
                           && offsetof(corv_icon, size) == 16,
                       "corv_icon layout");
CORV_SDK_STATIC_ASSERT(sizeof(corv_node_type) == 104 && offsetof(corv_node_type, create) == 32
                           && offsetof(corv_node_type, on_event) == 72
                           && offsetof(corv_node_type, unload) == 96,
                       "corv_node_type layout");
CORV_SDK_STATIC_ASSERT(sizeof(corv_node_migration) == 24
                           && offsetof(corv_node_migration, mapper) == 16,
                       "corv_node_migration layout");
CORV_SDK_STATIC_ASSERT(sizeof(corv_plugin_info) == 64 && offsetof(corv_plugin_info, update_url) == 32
                           && offsetof(corv_plugin_info, icon) == 56,
                       "corv_plugin_info layout");
#endif

/* The declarative property panel functions (cui_*). */
#include "corvane_cui.h"

#endif /* CORVANE_SDK_H */
