#include "resources/resources.h"

#include <QFile>
#include <QString>

namespace corv::resources {

bool available()
{
    return QFile::exists(QString::fromLatin1(kApplicationIcon));
}

} // namespace corv::resources
