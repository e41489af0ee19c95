// Build-time tool: renders SVG icon sources to PNG files.
//   corv_render_icons [--ico] OUT_DIR SIZE FILE.svg...
// writes OUT_DIR/FILE.png for each source, SIZE pixels square, with an
// alpha channel; with --ico also OUT_DIR/FILE.ico, a Windows icon holding
// the source at 256, 48, 32 and 16 pixels. Exits non-zero when a source
// does not render.

#include <QBuffer>
#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <cstdio>

namespace {

QImage render(QSvgRenderer &renderer, int size)
{
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter);
    painter.end();
    return image;
}

void put16(QByteArray &out, int value)
{
    out.append(char(value & 0xff)).append(char((value >> 8) & 0xff));
}

void put32(QByteArray &out, qint64 value)
{
    put16(out, int(value & 0xffff));
    put16(out, int((value >> 16) & 0xffff));
}

// An .ico file whose images are PNG streams, as Windows reads them since
// Vista: a header, one directory entry per image, then the images.
bool write_ico(QSvgRenderer &renderer, const QString &target)
{
    const int sizes[] = {256, 48, 32, 16};
    QList<QByteArray> images;
    for (int size : sizes) {
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        if (!render(renderer, size).save(&buffer, "PNG"))
            return false;
        images.append(png);
    }
    QByteArray out;
    put16(out, 0);
    put16(out, 1);
    put16(out, int(images.size()));
    qint64 offset = 6 + 16 * images.size();
    for (qsizetype i = 0; i < images.size(); ++i) {
        const int size = sizes[i] >= 256 ? 0 : sizes[i];
        out.append(char(size)).append(char(size)).append(char(0)).append(char(0));
        put16(out, 1);
        put16(out, 32);
        put32(out, images[i].size());
        put32(out, offset);
        offset += images[i].size();
    }
    for (const QByteArray &png : images)
        out.append(png);
    QFile file(target);
    return file.open(QIODevice::WriteOnly) && file.write(out) == out.size();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments();
    const bool ico = args.size() > 1 && args[1] == QLatin1StringView("--ico");
    if (ico)
        args.removeAt(1);
    if (args.size() < 4) {
        std::fprintf(stderr, "usage: %s [--ico] OUT_DIR SIZE FILE.svg...\n", argv[0]);
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
        const QString base = out.filePath(QFileInfo(args[i]).completeBaseName());
        const QString target = base + QStringLiteral(".png");
        if (!render(renderer, size).save(target, "PNG")) {
            std::fprintf(stderr, "can't write %s\n", qUtf8Printable(target));
            return 1;
        }
        if (ico && !write_ico(renderer, base + QStringLiteral(".ico"))) {
            std::fprintf(stderr, "can't write %s.ico\n", qUtf8Printable(base));
            return 1;
        }
    }
    return 0;
}
