/* A node type and a migration written in plain C against the public SDK
 * header, as a plugin author would: proves the header is C99. */
#include "sdk/include/corvane/corvane_sdk.h"

#include <string.h>

static void *c_create(corv_node *node)
{
    return node;
}

static uint32_t c_decoration(void *data)
{
    (void)data;
    return CORV_DECORATION_TAKES_EVENTS | CORV_DECORATION_RUNS_CHILDREN;
}

static bool c_mapper(void *user_data, corv_store *store, char *out_id)
{
    (void)store;
    strcpy(out_id, (const char *)user_data);
    return true;
}

static const unsigned char no_image[] = {1, 2, 3};
static const corv_icon c_icon = {CORV_IMAGE_PNG, no_image, sizeof no_image};

void c_plugin_fill(corv_node_type *type, corv_node_migration *migration)
{
    corv_node_type filled = {0};
    corv_node_migration mapped = {0};
    filled.id = "c.node";
    filled.name = "C node";
    filled.category = NULL;
    filled.icon = &c_icon;
    filled.create = c_create;
    filled.get_decoration = c_decoration;
    *type = filled;
    mapped.id = "c.retired";
    mapped.user_data = (void *)"c.node";
    mapped.mapper = c_mapper;
    *migration = mapped;
}
