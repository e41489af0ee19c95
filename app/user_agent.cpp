#include "app/user_agent.h"

#include "app/identity.h"

#include <QLoggingCategory>
#include <QSysInfo>

namespace corv {

const QByteArray &user_agent()
{
    static const QByteArray agent = [] {
        const QByteArray built = QByteArray(kApplicationName) + '/' + kApplicationVersion + " (" +
                                 QSysInfo::prettyProductName().toUtf8() + ')';
        qDebug("Using user agent '%s'", built.constData());
        return built;
    }();
    return agent;
}

} // namespace corv
