/* A property panel written as a plugin writes one: a plain C build callback
 * that declares its fields with the cui_* functions and keeps what they
 * return. The cui tests run it with and without widgets. */
#ifndef CORV_TEST_PANEL_H
#define CORV_TEST_PANEL_H

#include "sdk/include/corvane/corvane_cui.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct test_panel {
    int builds;           /* build calls so far */
    char name[256];       /* cui_text "!name" */
    int32_t level;        /* cui_slider "!level", 0..100 step 3 */
    int32_t mode;         /* cui_select "mode" (values 10, 20, 30) */
    bool reset;           /* cui_button "Reset" caused this build */
    int resets;           /* builds that saw the button */
    bool extra_on;        /* cui_checkbox "!extra_on" */
    bool extra_declared;  /* the "!extra" field exists only while extra_on */
    int32_t extra;        /* cui_int "!extra" */
    double ratio;         /* cui_float "!ratio", 0..infinity */
    char hotkey[256];     /* cui_hotkey "!hotkey" */
    char path[256];       /* cui_open_file "!path" */
    bool name_editing;    /* cui_is_editing on "!name" */
    bool name_invalidated; /* cui_did_invalidate on "!name" */
    uint32_t debounce_name; /* triggers to set on "!name"; 0 keeps the default */
    bool bare_level;      /* "!level" declared without its label */
} test_panel;

/* The build callback of a node type: data is the test_panel. */
void test_panel_build(void *data, cui_generate_context *context);

#ifdef __cplusplus
}
#endif

#endif
