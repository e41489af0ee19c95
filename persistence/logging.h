#pragma once

#include <QLoggingCategory>

namespace corv::engine {

// "corv.persistence": reader and writer failures, command refusals.
Q_DECLARE_LOGGING_CATEGORY(lc_persistence)

} // namespace corv::engine
