#include "locale/translate.h"

#include <QMutex>

#include <memory>
#include <vector>

namespace corv::locale {

namespace {

struct AppState
{
    QMutex mutex;
    Translator *current = nullptr;
    // Every translator made here lives until the process ends: callers may
    // hold texts borrowed from an earlier one.
    std::vector<std::unique_ptr<Translator>> owned;
};

AppState &app_state()
{
    static AppState s;
    return s;
}

Translator *make_default(AppState &s)
{
    s.owned.push_back(std::make_unique<Translator>(QByteArray(kApplicationTranslatorName),
                                                   application_dir() + QStringLiteral("/locale")));
    return s.owned.back().get();
}

} // namespace

Translator *install_application_translator()
{
    AppState &s = app_state();
    QMutexLocker lock(&s.mutex);
    s.current = make_default(s);
    return s.current;
}

void set_application_translator(Translator *translator)
{
    AppState &s = app_state();
    QMutexLocker lock(&s.mutex);
    s.current = translator;
}

Translator *application_translator()
{
    AppState &s = app_state();
    QMutexLocker lock(&s.mutex);
    if (!s.current)
        s.current = make_default(s);
    return s.current;
}

bool apply_language_preference(qsizetype position)
{
    return application_translator()->load_at(position);
}

qsizetype default_language_position()
{
    return locale_list().index_of(kFallbackLocale);
}

QString rack_name(int n)
{
    return translate("NewRackName.%1", n);
}

} // namespace corv::locale
