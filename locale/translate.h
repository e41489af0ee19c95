#pragma once

#include "locale/keys.h"
#include "locale/translator.h"

#include <QString>

// The application's own translator and the lookups of the user interface.
//
//   corv::locale::translate("Menu.File.Open")
//   corv::locale::translate("RackPanel.Title.%1", rack->name())
//   corv::locale::translate("UpdateWindow.RequiresCaption.%1.%2", corv::locale::plural(n), name)
//
// Keys are written as string literals in these calls (or marked with
// CORV_TR_KEY) so that the locale key check can find them.
namespace corv::locale {

// The name of the application's translator in log lines: the id of the
// executable's own plugin.
inline constexpr char kApplicationTranslatorName[] = "io.marrowfield.corvane";

// Creates the application's translator over "<application dir>/locale"
// (loading "en-US" as its fallback) and makes it the application's one. Call
// once at start-up, after the application object exists; calling again
// replaces it (any earlier one stays alive until the process ends).
Translator *install_application_translator();

// Makes `translator` (not owned, must outlive its use) the application's
// translator; null brings back the default, made on next use.
void set_application_translator(Translator *translator);

// The application's translator; made as by install_application_translator()
// on first use when none is set.
Translator *application_translator();

// Loads the locale at `position` of the locale list (the "language"
// preference) into the application's translator; false when out of range.
bool apply_language_preference(qsizetype position);
// The position of "en-US" in the locale list: the preference's default.
qsizetype default_language_position();

template <typename... Args>
QString translate(const char *key, const Args &...args)
{
    return application_translator()->translate(key, args...);
}

// The name proposed for the n-th new rack: "NewRackName.%1" with n. Meant for
// corv::model::set_rack_name_source().
QString rack_name(int n);

} // namespace corv::locale
