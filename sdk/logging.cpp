#include "sdk/logging.h"

namespace corv::engine {
Q_LOGGING_CATEGORY(lc_sdk, "corv.sdk")
} // namespace corv::engine
