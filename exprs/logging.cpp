#include "exprs/logging.h"

namespace corv::exprs {
Q_LOGGING_CATEGORY(lc, "corv.exprs")
} // namespace corv::exprs
