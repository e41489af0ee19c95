#include "persistence/logging.h"

namespace corv::engine {

Q_LOGGING_CATEGORY(lc_persistence, "corv.persistence")

} // namespace corv::engine
