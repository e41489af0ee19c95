#include "tests/process_stop.h"

#include <QProcess>

namespace corv::test {

bool ask_to_stop(QProcess &process, int)
{
    if (process.state() != QProcess::Running)
        return false;
    process.terminate();
    return true;
}

} // namespace corv::test
