#pragma once

#include <QLoggingCategory>

namespace corv::update {
// Log lines of the updater, the plugin installer and the update host.
Q_DECLARE_LOGGING_CATEGORY(lc_update)
} // namespace corv::update
