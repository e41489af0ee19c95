#include "engine/logging.h"

namespace corv::engine {
Q_LOGGING_CATEGORY(lc_engine, "corv.engine")
} // namespace corv::engine
