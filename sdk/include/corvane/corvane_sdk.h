/*
 * Corvane plugin SDK, version 1.
 *
 * A plugin is a native library in a folder of its own inside the application's
 * "plugins" folder; folder and library carry the plugin's id. The executable
 * loads it at start-up and calls its entry points; the plugin talks back
 * through the functions that the executable exports (declared in this header).
 * Everything is plain C: handles are opaque pointers, strings are
 * zero-terminated UTF-8, records are structs of named fields.
 *
 * A minimal plugin with one node type that passes every event on:
 *
 *     #include <corvane/corvane_sdk.h>
 *
 *     static void *pass_create(corv_node *node) { return node; }
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
 *     }
 *     CPLUGIN_EXPORT int cplugin_load(corv_registration *context)
 *     {
 *         corv_node_type type = {0};
 *         type.id = "com.example.pass";
 *         type.name = "Pass on";
 *         type.create = pass_create;
 *         type.on_event = pass_on_event;
 *         corv_register_node(context, &type);
 *         return 0;
 *     }
 *
 * Entry points of a plugin (exported with CPLUGIN_EXPORT):
 *   Required: cplugin_sdk_version, cplugin_set_handle, cplugin_get_info.
 *   Optional: cplugin_load, cplugin_postload, cplugin_unload,
 *             cplugin_build_preferences, cplugin_confirm_preferences,
 *             cplugin_migrate_load_preferences, cplugin_migrate_save_preferences.
 *
 * Threads: every callback runs on the application's main thread. The event
 * functions (corv_event_*) may be called from any thread, one thread per
 * handle at a time; everything else belongs to the main thread.
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

#ifdef __cplusplus
#define CORV_EXTERN_C extern "C"
#else
#define CORV_EXTERN_C
#endif

/* CORV_API marks a function that the executable exports to plugins;
 * CPLUGIN_EXPORT marks an entry point that a plugin exports. */
#if defined(_WIN32)
#if defined(CORV_SDK_BUILDING)
#define CORV_API CORV_EXTERN_C __declspec(dllexport)
#else
#define CORV_API CORV_EXTERN_C __declspec(dllimport)
#endif
#define CPLUGIN_EXPORT CORV_EXTERN_C __declspec(dllexport)
#else
#define CORV_API CORV_EXTERN_C __attribute__((visibility("default")))
#define CPLUGIN_EXPORT CORV_EXTERN_C __attribute__((visibility("default")))
#endif

/* Opaque handles. */
typedef struct corv_plugin corv_plugin;                   /* a loaded plugin (cplugin_set_handle) */
typedef struct corv_registration corv_registration;       /* valid only during cplugin_load */
typedef struct corv_node corv_node;                       /* one live node instance */
typedef struct corv_event corv_event;                     /* one counted reference to an event */
typedef struct corv_sink corv_sink;                       /* where events are posted */
typedef struct corv_store corv_store;                     /* a property store view */
typedef struct corv_rack corv_rack;                       /* a running rack */
typedef struct cui_generate_context cui_generate_context; /* one build of a property panel */

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
typedef void (*corv_node_get_instance_name_fn)(void *data, char *buffer /* [256] */);
typedef uint32_t (*corv_node_get_decoration_fn)(void *data);
typedef void (*corv_node_build_fn)(void *data, cui_generate_context *context);
typedef void (*corv_node_on_event_fn)(void *data, corv_event *event);
typedef void (*corv_node_on_children_returned_fn)(void *data, corv_event *event);
typedef void (*corv_node_load_fn)(void *data, corv_store *store);
typedef void (*corv_node_unload_fn)(void *data, corv_store *store);

/* Decoration bits returned by get_decoration (bit 4 is not read). */
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
    corv_node_create_fn create;   /* make the instance data for a node; the node handle lives as long */
    corv_node_destroy_fn destroy; /* free the instance data */
    corv_node_get_instance_name_fn get_instance_name; /* write the node's display name into 256 bytes */
    corv_node_get_decoration_fn get_decoration;       /* the corv_decoration bits of the node */
    corv_node_build_fn build;                         /* declare the node's property panel */
    corv_node_on_event_fn on_event; /* an event from the parent; the callee owns the handle */
    corv_node_on_children_returned_fn on_children_returned; /* an event back from the children; owned */
    corv_node_load_fn load;     /* the node's store after the project was opened */
    corv_node_unload_fn unload; /* the node's store before the instance is replaced */
} corv_node_type;

/* Maps a node of a retired type to a new type id: write the id as
 * zero-terminated UTF-8 into out_id (256 bytes, first byte zero) and return true. */
typedef bool (*corv_node_mapper_fn)(void *user_data, corv_store *store, char *out_id /* [256] */);

/* A migration of a retired node type, passed to corv_register_node_migration. */
typedef struct corv_node_migration {
    const char *id;              /* the retired node type id */
    void *user_data;             /* handed back to mapper */
    corv_node_mapper_fn mapper;  /* may be null: the migration then always fails */
} corv_node_migration;

#endif /* CORVANE_SDK_H */
