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
    // Its fonts, where the runner names a folder (Wine, whose Windows
    // programs see no QT_* variable of the caller's).
    if (!qEnvironmentVariableIsSet("QT_QPA_FONTDIR") && qEnvironmentVariableIsSet("CORV_TEST_FONT_DIR"))
        qputenv("QT_QPA_FONTDIR", qgetenv("CORV_TEST_FONT_DIR"));
}
} // namespace

Q_CONSTRUCTOR_FUNCTION(default_to_offscreen)
