#pragma once

#include <QLoggingCategory>

namespace corv::cui {
// Debug output of the declarative property panels.
Q_DECLARE_LOGGING_CATEGORY(lc_cui)
} // namespace corv::cui
