/*
 * Corvane plugin SDK, version 1: declarative property panels (cui).
 *
 * A node type (its `build` callback) or a plugin (cplugin_build_preferences)
 * never makes widgets. Each time its panel is built it declares the panel
 * from top to bottom with the functions below, all taking the build's
 * context. Every value field is bound to a key of the node's (or plugin's)
 * property store and returns the value stored there, so a build callback both
 * draws the panel and reads the settings:
 *
 *     static void delay_build(void *data, cui_generate_context *ctx)
 *     {
 *         struct delay *d = data;
 *         cui_label(ctx, "", "Waits before passing each event on.");
 *         d->seconds = cui_float(ctx, "!seconds", "Seconds", 1.0, 0.0, INFINITY);
 *         if (cui_button(ctx, "", "Reset"))
 *             d->count = 0;
 *     }
 *
 * Keys: a key beginning with "!" is stored as it stands; any other key is
 * stored under the node type's id and "." (nothing for plugin preferences).
 * Elements without a key (labels, spacers, separators, buttons, groups and
 * columns) are told apart by their position among the keyless elements.
 *
 * A panel is built again whenever one of its fields changes (see the trigger
 * bits) or the node calls corv_node_invalidate_properties. Returned strings
 * belong to the store entry: they stay valid until the entry changes or the
 * panel is built again; do not free them.
 *
 * Everything here runs on the application's main thread, inside a build.
 * A null context makes every function do nothing and return zero or "".
 */
#ifndef CORVANE_CUI_H
#define CORVANE_CUI_H

/* Brings the export macro and the cui_generate_context handle; including
 * either header first works. */
#include "corvane_sdk.h"

/* Invalidate triggers: the events on which a field asks for a rebuild. */
enum cui_trigger {
    CUI_TRIGGER_VALUE_CHANGED = 1,    /* the field's stored value changed */
    CUI_TRIGGER_PRESSED = 2,          /* a button was pressed down */
    CUI_TRIGGER_CLICKED = 4,          /* a button was clicked */
    CUI_TRIGGER_SELECTED_RACK = 8,    /* the rack a rack field shows changed (renamed, removed) */
    CUI_TRIGGER_RESERVED = 16,        /* part of the default set; has no effect */
    CUI_TRIGGER_EDITING_STARTED = 32, /* the field's editor gained keyboard focus */
    CUI_TRIGGER_EDITING_FINISHED = 64 /* the field's editor lost keyboard focus */
};

/* The triggers every field starts each build with. */
#define CUI_TRIGGERS_DEFAULT 21u

/* A colour as three fractions (0 to 1 when picked in the colour dialog). */
typedef struct cui_color_value {
    double r;
    double g;
    double b;
} cui_color_value;

/* Operations on the current field (the last field declared in this build). */

/* Replaces the current field's trigger set (cui_trigger bits) until the next build. */
CORV_API void cui_set_invalidate_mode(cui_generate_context *context, uint32_t triggers);
/* True when the current field asked for the rebuild that is running. */
CORV_API bool cui_did_invalidate(cui_generate_context *context);
/* True while the current field's editor has focus; adds the two editing triggers. */
CORV_API bool cui_is_editing(cui_generate_context *context);
/* Enables or disables the current field's editor. */
CORV_API void cui_set_enabled(cui_generate_context *context, bool enabled);

/* Containers: everything declared until the matching end goes inside. */

/* Opens a titled group box. */
CORV_API void cui_start_group(cui_generate_context *context, const char *title);
/* Opens a row whose elements stand side by side; title labels the row. */
CORV_API void cui_start_columns(cui_generate_context *context, const char *title);
/* Closes the innermost group or row. */
CORV_API void cui_end_group(cui_generate_context *context);
/* Closes the innermost group or row (the same as cui_end_group). */
CORV_API void cui_end_columns(cui_generate_context *context);

/* Elements without a value. */

/* A word-wrapped text, with an optional label beside it. */
CORV_API void cui_label(cui_generate_context *context, const char *label, const char *text);
/* A little vertical space. */
CORV_API void cui_spacer(cui_generate_context *context);
/* A horizontal line. */
CORV_API void cui_separator(cui_generate_context *context);
/* A push button; true when a press or click of it caused this build. */
CORV_API bool cui_button(cui_generate_context *context, const char *label, const char *text);

/* Value fields: each returns the stored value after the declaration. */

/* A check box over a bool. */
CORV_API bool cui_checkbox(cui_generate_context *context, const char *key, const char *label,
                           bool default_value);
/* Radio buttons over an int: the index of the checked item (0 if not an int). */
CORV_API int32_t cui_radio_group(cui_generate_context *context, const char *key, const char *label,
                                 const char *const *items, uint32_t count, int32_t default_value);
/* A list over an int: the value of the chosen row; values null means 0, 1, 2, ... */
CORV_API int32_t cui_list(cui_generate_context *context, const char *key, const char *label,
                          const char *const *labels, const int32_t *values, uint32_t count,
                          int32_t default_value);
/* A searchable drop-down over an int: the value of the chosen item; values as cui_list. */
CORV_API int32_t cui_select(cui_generate_context *context, const char *key, const char *label,
                            const char *const *labels, const int32_t *values, uint32_t count,
                            int32_t default_value);
/* A drop-down of the project's racks: the chosen running rack, or null. */
CORV_API corv_rack *cui_select_rack(cui_generate_context *context, const char *key, const char *label);
/* A one-line text. */
CORV_API const char *cui_text(cui_generate_context *context, const char *key, const char *label,
                              const char *default_value);
/* A one-line text shown as bullets, for passwords and tokens. The value is
 * stored like any other text: keep such stores private to the user. */
CORV_API const char *cui_password(cui_generate_context *context, const char *key, const char *label);
/* A multi-line text in a fixed-width font. */
CORV_API const char *cui_text_area(cui_generate_context *context, const char *key, const char *label,
                                   const char *default_value);
/* A path with a button that opens a file dialog; filter as in Qt ("Text (*.txt)"). */
CORV_API const char *cui_open_file(cui_generate_context *context, const char *key, const char *label,
                                   const char *filter, const char *default_value);
/* A folder path with a button that opens a folder dialog. */
CORV_API const char *cui_open_folder(cui_generate_context *context, const char *key, const char *label,
                                     const char *default_value);
/* A path with a button that opens a save dialog. */
CORV_API const char *cui_save_file(cui_generate_context *context, const char *key, const char *label,
                                   const char *filter, const char *default_value);
/* A horizontal slider over an int from min to max in steps of step. */
CORV_API int32_t cui_slider(cui_generate_context *context, const char *key, const char *label,
                            int32_t default_value, int32_t min, int32_t max, int32_t step);
/* A spin box over an int from min to max (0 if the stored value is not an int). */
CORV_API int32_t cui_int(cui_generate_context *context, const char *key, const char *label,
                         int32_t default_value, int32_t min, int32_t max);
/* A spin box over a double with 4 decimals; min and max may be infinite. */
CORV_API double cui_float(cui_generate_context *context, const char *key, const char *label,
                          double default_value, double min, double max);
/* A colour swatch that opens the colour dialog (all zero if not a colour). */
CORV_API cui_color_value cui_color(cui_generate_context *context, const char *key, const char *label,
                                   double default_r, double default_g, double default_b);
/* A key-combination field: the portable text of the keys pressed in it ("Ctrl+Shift+A"). */
CORV_API const char *cui_hotkey(cui_generate_context *context, const char *key, const char *label,
                                const char *default_value);

#endif /* CORVANE_CUI_H */
