// Linked into every test that runs without a display server: started by hand
// from the build folder, such a test picks the offscreen platform as CTest
// would, instead of failing for want of an X server. A platform the caller
// chose stays.
#include <QByteArray>
#include <QtGlobal>

namespace {
void default_to_offscreen()
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", QByteArrayLiteral("offscreen"));
}
} // namespace

Q_CONSTRUCTOR_FUNCTION(default_to_offscreen)
