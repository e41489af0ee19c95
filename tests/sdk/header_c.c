/* The public header seen by a C compiler, as a plugin written in C sees it.
 * Built as C99 (no layout checks) and as C11 (the header's _Static_assert
 * checks of the record layouts run). */
#include <corvane/corvane_sdk.h>

void tst_sdk_header_c_fill(corv_plugin_info *info, corv_node_type *type);

void tst_sdk_header_c_fill(corv_plugin_info *info, corv_node_type *type)
{
    corv_plugin_info filled = {0};
    corv_node_type node = {0};
    filled.id = "c.plugin";
    filled.update_url = "https://example.invalid/manifest.json#entry";
    node.id = "c.plugin.node";
    node.category = NULL;
    *info = filled;
    *type = node;
}
