#include "cui/logging.h"

namespace corv::cui {
Q_LOGGING_CATEGORY(lc_cui, "corv.cui")
} // namespace corv::cui
