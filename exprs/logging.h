#pragma once

#include <QLoggingCategory>

namespace corv::exprs {
// "corv.exprs": expression errors go through it.
Q_DECLARE_LOGGING_CATEGORY(lc)
} // namespace corv::exprs
