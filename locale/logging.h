#pragma once

#include <QLoggingCategory>

namespace corv::locale {
// Debug output of the locale library ("corv.locale").
Q_DECLARE_LOGGING_CATEGORY(lc)
} // namespace corv::locale
