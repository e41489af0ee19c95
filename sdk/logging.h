#pragma once

#include <QLoggingCategory>

namespace corv::engine {
// "corv.sdk": the plugin loader and the exported C interface. The fixed
// message texts go through it as well.
Q_DECLARE_LOGGING_CATEGORY(lc_sdk)
} // namespace corv::engine
