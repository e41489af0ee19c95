#include "test_panel.h"

#include <math.h>
#include <string.h>

static void keep(char *out, const char *text)
{
    strncpy(out, text ? text : "", 255);
    out[255] = 0;
}

void test_panel_build(void *data, cui_generate_context *context)
{
    static const char *const modes[] = {"Off", "Slow", "Fast"};
    static const int32_t mode_values[] = {10, 20, 30};
    test_panel *panel = (test_panel *)data;

    ++panel->builds;
    cui_label(context, "", "Settings of the test node");
    keep(panel->name, cui_text(context, "!name", "Name", "unnamed"));
    panel->name_editing = cui_is_editing(context);
    panel->name_invalidated = cui_did_invalidate(context);
    if (panel->debounce_name)
        cui_set_invalidate_mode(context, panel->debounce_name);
    panel->level = cui_slider(context, "!level", panel->bare_level ? "" : "Level", 5, 0, 100, 3);
    panel->mode = cui_select(context, "mode", "Mode", modes, mode_values, 3, 20);
    panel->reset = cui_button(context, "", "Reset");
    if (panel->reset)
        ++panel->resets;

    cui_start_group(context, "Details");
    panel->extra_on = cui_checkbox(context, "!extra_on", "Extra", false);
    panel->extra_declared = panel->extra_on;
    if (panel->extra_on)
        panel->extra = cui_int(context, "!extra", "Extra value", 7, 0, 10);
    cui_end_group(context);

    cui_start_columns(context, "Ratio");
    panel->ratio = cui_float(context, "!ratio", "", 0.5, 0.0, INFINITY);
    cui_separator(context);
    cui_end_columns(context);

    keep(panel->hotkey, cui_hotkey(context, "!hotkey", "Hotkey", ""));
    keep(panel->path, cui_open_file(context, "!path", "File", "Text (*.txt)", ""));
}
