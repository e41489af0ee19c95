#include "locale/logging.h"

namespace corv::locale {
Q_LOGGING_CATEGORY(lc, "corv.locale")
} // namespace corv::locale
