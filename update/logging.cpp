#include "update/logging.h"

namespace corv::update {
Q_LOGGING_CATEGORY(lc_update, "corv.update")
} // namespace corv::update
