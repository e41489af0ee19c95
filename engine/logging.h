#pragma once

#include <QLoggingCategory>

namespace corv::engine {
// Debug output of the engine; the fixed message texts go through it as well.
Q_DECLARE_LOGGING_CATEGORY(lc_engine)
} // namespace corv::engine
