// Build-time tool: renders SVG icon sources to PNG files.
//   corv_render_icons OUT_DIR SIZE FILE.svg...
// writes OUT_DIR/FILE.png for each source, SIZE pixels square, with an
// alpha channel. Exits non-zero when a source does not render.

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4) {
        std::fprintf(stderr, "usage: %s OUT_DIR SIZE FILE.svg...\n", argv[0]);
        return 2;
    }
    const QDir out(args[1]);
    const int size = args[2].toInt();
    if (!QDir().mkpath(out.path()) || size <= 0) {
        std::fprintf(stderr, "bad output folder or size\n");
        return 2;
    }
    for (qsizetype i = 3; i < args.size(); ++i) {
        QSvgRenderer renderer(args[i]);
        if (!renderer.isValid()) {
            std::fprintf(stderr, "can't read %s\n", qUtf8Printable(args[i]));
            return 1;
        }
        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        renderer.render(&painter);
        painter.end();
        const QString target = out.filePath(QFileInfo(args[i]).completeBaseName() + QStringLiteral(".png"));
        if (!image.save(target, "PNG")) {
            std::fprintf(stderr, "can't write %s\n", qUtf8Printable(target));
            return 1;
        }
    }
    return 0;
}
