#pragma once

#include "locale/tr_builder.h"
#include "locale/translator.h"

// The translation functions of the plugin SDK, over a translator instead of a
// plugin handle. The SDK's exports ("corv_plugin_tr", "corv_tr_str", ...) map
// the plugin to its translator and forward here. All take C types only, never
// throw, and accept null handles: a null builder or translator yields null or
// empty results instead of a crash.
namespace corv::locale {

// The text of `key`, borrowed from the table (valid until the next load);
// a null key gives "", a missing key the key itself.
const char *plugin_tr(const Translator *translator, const char *key) noexcept;

// A new builder on `key`, with no arguments; freed by tr_end / tr_end_str.
TrBuilder *plugin_tr_arg(const Translator *translator, const char *key) noexcept;

// Append an argument and return the builder.
TrBuilder *tr_str(TrBuilder *builder, const char *utf8) noexcept;
TrBuilder *tr_int(TrBuilder *builder, int value) noexcept;
TrBuilder *tr_int_plural(TrBuilder *builder, int value) noexcept;
TrBuilder *tr_float(TrBuilder *builder, double value) noexcept;
TrBuilder *tr_float_plural(TrBuilder *builder, double value) noexcept;

// Formats, frees the builder and returns a malloc'ed NUL-terminated text for
// the caller to free() (what "corv_string_destroy" does). A null builder
// gives an empty text.
char *tr_end(TrBuilder *builder) noexcept;
// Formats into the caller's buffer of kTextBufferSize (256) bytes and frees
// the builder. The text is cut to 255 bytes at a UTF-8 character boundary.
void tr_end_str(TrBuilder *builder, char *out) noexcept;

// A builder with one plural int argument, ended as tr_end / tr_end_str.
char *plugin_tr_plural(const Translator *translator, const char *key, int count) noexcept;
void plugin_tr_plural_str(const Translator *translator, const char *key, int count, char *out) noexcept;

} // namespace corv::locale
