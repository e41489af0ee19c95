/*
 * An example Corvane plugin, written in plain C99 against the public SDK
 * header only, the way an outside author writes one.
 *
 * It brings two node types:
 *   Tag     sets one key of every event that reaches it (key and value come
 *           from its properties "!key" and "!value") and passes it on; the
 *           value is an expression template, so "run {repeat * 10}" reads
 *           the event's own keys;
 *   Repeat  runs its children "!count" times with each event (every run
 *           carries "repeat" = 1, 2, ...) and passes on what they hand back.
 * and a migration that turns the retired "io.marrowfield.example.label" type
 * into a Tag. All names come from the plugin's own locale files.
 *
 * Installed as plugins/io.marrowfield.example/io.marrowfield.example.so (or
 * .dll) with its locale/ folder beside it.
 */
#include <corvane/corvane_sdk.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* corvane_add_plugin() passes the id the plugin is built under, so the id it
 * reports always matches the folder and library name. */
#ifdef CORVANE_PLUGIN_ID
#define EXAMPLE_ID CORVANE_PLUGIN_ID
#else
#define EXAMPLE_ID "io.marrowfield.example"
#endif
#define TAG_ID EXAMPLE_ID ".tag"
#define REPEAT_ID EXAMPLE_ID ".repeat"
#define RETIRED_LABEL_ID EXAMPLE_ID ".label"

/* How often one Repeat node may run its children per event. */
#define REPEAT_MAX 1000

static corv_plugin *g_plugin = NULL;

/* A 16x16 PNG: the icon of the plugin and of both node types. */
static const unsigned char icon_png[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48,
    0x44, 0x52, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x10, 0x08, 0x06, 0x00, 0x00,
    0x00, 0x1f, 0xf3, 0xff, 0x61, 0x00, 0x00, 0x00, 0x24, 0x49, 0x44, 0x41, 0x54, 0x78,
    0xda, 0x63, 0x60, 0x18, 0x34, 0xe0, 0xa0, 0xa0, 0xe0, 0x7f, 0x52, 0x30, 0xed, 0x0c,
    0xf8, 0xf2, 0xe4, 0x04, 0x5e, 0x3c, 0x6a, 0xc0, 0xc8, 0x30, 0x60, 0xe0, 0x52, 0xe2,
    0x80, 0x01, 0x00, 0xc6, 0xd8, 0x7e, 0x70, 0xe6, 0x77, 0x6e, 0xf2, 0x00, 0x00, 0x00,
    0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

static const corv_icon icon = {CORV_IMAGE_PNG, icon_png, sizeof icon_png};

/* The state every node of this plugin keeps: its node handle and its store.
 * The store comes with load, which only nodes present when a project opens
 * get; the others use the defaults. */
typedef struct example_node {
    corv_node *node;
    corv_store *store;
} example_node;

static void *example_create(corv_node *node)
{
    example_node *self = (example_node *)calloc(1, sizeof *self);
    if (self)
        self->node = node;
    return self;
}

static void example_destroy(void *data)
{
    free(data);
}

static void example_load(void *data, corv_store *store)
{
    ((example_node *)data)->store = store;
}

static const char *store_text(const example_node *self, const char *key, const char *fallback)
{
    const char *text = self->store ? corv_store_get_string(self->store, key) : NULL;
    return text ? text : fallback;
}

/* ---- Tag ---------------------------------------------------------------- */

static const char *tag_key(const example_node *self)
{
    return store_text(self, "!key", "tag");
}

static const char *tag_value(const example_node *self)
{
    return store_text(self, "!value", "");
}

static void tag_get_instance_name(void *data, char *buffer)
{
    const example_node *self = (const example_node *)data;
    corv_tr_builder *text = corv_plugin_tr_arg(g_plugin, "ExampleTag.Name.%1.%2");
    corv_tr_end_str(corv_tr_str(corv_tr_str(text, tag_key(self)), tag_value(self)), buffer);
}

static uint32_t tag_get_decoration(void *data)
{
    (void)data;
    return CORV_DECORATION_TAKES_EVENTS | CORV_DECORATION_PASSES_LATER;
}

static void tag_on_event(void *data, corv_event *event)
{
    const example_node *self = (const example_node *)data;
    char *value = corv_expression(tag_value(self), event);
    corv_event_set(event, tag_key(self), value);
    corv_string_destroy(value);
    corv_event_post(corv_node_parent_sink(self->node), event);
    corv_event_destroy(event);
}

/* ---- Repeat ------------------------------------------------------------- */

static int repeat_count(const example_node *self)
{
    int count = 2;
    if (self->store && corv_store_has_int(self->store, "!count"))
        count = corv_store_get_int(self->store, "!count");
    if (count < 0)
        return 0;
    return count > REPEAT_MAX ? REPEAT_MAX : count;
}

static void repeat_get_instance_name(void *data, char *buffer)
{
    const example_node *self = (const example_node *)data;
    corv_plugin_tr_plural_str(g_plugin, "ExampleRepeat.Name.%1", repeat_count(self), buffer);
}

static uint32_t repeat_get_decoration(void *data)
{
    (void)data;
    return CORV_DECORATION_TAKES_EVENTS | CORV_DECORATION_RUNS_CHILDREN
           | CORV_DECORATION_PASSES_RETURNED;
}

static void repeat_on_event(void *data, corv_event *event)
{
    const example_node *self = (const example_node *)data;
    const int count = repeat_count(self);
    int run;
    if (count == 0) {
        /* Nothing to run: the event goes straight on. */
        corv_event_post(corv_node_parent_sink(self->node), event);
        corv_event_destroy(event);
        return;
    }
    for (run = 1; run <= count; ++run) {
        char number[16];
        /* Each run gets a handle of its own: setting a key on it copies the
         * event, so the runs never see each other's numbers. */
        corv_event *copy = corv_event_clone(event);
        snprintf(number, sizeof number, "%d", run);
        corv_event_set(copy, "repeat", number);
        corv_event_post(corv_node_child_sink(self->node), copy);
        corv_event_destroy(copy);
    }
    corv_event_destroy(event);
}

static void repeat_on_children_returned(void *data, corv_event *event)
{
    const example_node *self = (const example_node *)data;
    corv_event_post(corv_node_parent_sink(self->node), event);
    corv_event_destroy(event);
}

/* ---- The retired Label type -------------------------------------------- */

/* Label nodes kept their text under "io.marrowfield.example.label.text" and
 * always wrote it to the key "label": a Tag does the same. */
static bool label_to_tag(void *user_data, corv_store *store, char *out_id)
{
    const char *text = corv_store_get_string(store, RETIRED_LABEL_ID ".text");
    (void)user_data;
    corv_store_set_string(store, "!key", "label");
    corv_store_set_string(store, "!value", text ? text : "");
    strcpy(out_id, TAG_ID);
    return true;
}

/* ---- Entry points ------------------------------------------------------- */

CPLUGIN_EXPORT int cplugin_sdk_version(void)
{
    return CORV_SDK_VERSION;
}

CPLUGIN_EXPORT void cplugin_set_handle(corv_plugin *plugin)
{
    g_plugin = plugin;
}

CPLUGIN_EXPORT void cplugin_get_info(corv_plugin_info *info)
{
    info->id = EXAMPLE_ID;
    info->name = "Example Nodes";
    info->version = "1.0.0";
    info->author = "Marrowfield";
    info->update_url = "https://updates.marrowfield.example/plugins/example/manifest.json";
    info->description = "Tag and Repeat, built against the public SDK only.";
    info->website = "https://marrowfield.example/corvane/plugins/example";
    info->icon = &icon;
}

CPLUGIN_EXPORT int cplugin_load(corv_registration *registration)
{
    corv_node_type tag = {0};
    corv_node_type repeat = {0};
    corv_node_migration label = {0};
    /* Translated once: a type's name and category are copied at registration. */
    const char *category = corv_plugin_tr(g_plugin, "ExampleCategory");

    tag.id = TAG_ID;
    tag.name = corv_plugin_tr(g_plugin, "ExampleTag.Type");
    tag.category = category;
    tag.icon = &icon;
    tag.create = example_create;
    tag.destroy = example_destroy;
    tag.get_instance_name = tag_get_instance_name;
    tag.get_decoration = tag_get_decoration;
    tag.on_event = tag_on_event;
    tag.load = example_load;
    corv_register_node(registration, &tag);

    repeat.id = REPEAT_ID;
    repeat.name = corv_plugin_tr(g_plugin, "ExampleRepeat.Type");
    repeat.category = category;
    repeat.icon = &icon;
    repeat.create = example_create;
    repeat.destroy = example_destroy;
    repeat.get_instance_name = repeat_get_instance_name;
    repeat.get_decoration = repeat_get_decoration;
    repeat.on_event = repeat_on_event;
    repeat.on_children_returned = repeat_on_children_returned;
    repeat.load = example_load;
    corv_register_node(registration, &repeat);

    label.id = RETIRED_LABEL_ID;
    label.mapper = label_to_tag;
    corv_register_node_migration(registration, &label);
    return 0;
}

CPLUGIN_EXPORT void cplugin_unload(void)
{
    g_plugin = NULL;
}
