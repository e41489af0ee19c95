#include "tests/process_stop.h"

#include <QProcess>

#include <signal.h>
#include <sys/types.h>

namespace corv::test {

bool ask_to_stop(QProcess &process, int unix_signal)
{
    return process.processId() > 0 && ::kill(pid_t(process.processId()), unix_signal) == 0;
}

} // namespace corv::test
