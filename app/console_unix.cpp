#include "app/console.h"

namespace corv {

void release_own_console() {}

} // namespace corv
