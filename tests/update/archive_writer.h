#pragma once

// Real tar archives for the updater tests, made in-process (no `tar` needed):
// ustar headers with whatever names, modes and types a test asks for, gzip
// through zlib, and a bomb of zeros deflated piece by piece.
#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QList>

#include <zlib.h>

#include <cstring>

namespace archive_writer {

struct Member {
    Member(QByteArray name, QByteArray data = {}, int mode = 0644, char type = '0',
           QByteArray link = {})
        : name(std::move(name)), data(std::move(data)), mode(mode), type(type),
          link(std::move(link))
    {}
    QByteArray name;
    QByteArray data;
    int mode;
    char type; // '0' file, '5' folder, '1' hard link, '2' symlink, '3' device, '6' fifo
    QByteArray link;
};

inline QByteArray header(const Member &member, qint64 size)
{
    QByteArray block(512, '\0');
    auto put = [&](int at, int length, const QByteArray &text) {
        std::memcpy(block.data() + at, text.constData(), size_t(qMin<qsizetype>(length, text.size())));
    };
    auto octal = [&](int at, int length, qint64 value) {
        put(at, length, QByteArray::number(value, 8).rightJustified(length - 1, '0'));
    };
    QByteArray name = member.name;
    if (name.size() > 100) { // the ustar prefix takes what precedes a slash
        const qsizetype slash = name.indexOf('/', name.size() - 101);
        put(345, 155, name.left(slash));
        name = name.mid(slash + 1);
    }
    put(0, 100, name);
    octal(100, 8, member.mode);
    octal(108, 8, 0);
    octal(116, 8, 0);
    octal(124, 12, size);
    octal(136, 12, 1700000000);
    block[156] = member.type;
    put(157, 100, member.link);
    put(257, 6, QByteArray("ustar\0", 6));
    put(263, 2, "00");
    put(265, 32, "root");
    put(297, 32, "root");
    std::memset(block.data() + 148, ' ', 8);
    unsigned sum = 0;
    for (char c : block)
        sum += static_cast<unsigned char>(c);
    put(148, 7, QByteArray::number(sum, 8).rightJustified(6, '0') + '\0');
    return block;
}

inline QByteArray padding(qint64 size)
{
    return QByteArray((512 - size % 512) % 512, '\0');
}

inline QByteArray tar(const QList<Member> &members)
{
    QByteArray out;
    for (const Member &member : members) {
        out += header(member, member.data.size());
        out += member.data + padding(member.data.size());
    }
    return out + QByteArray(1024, '\0');
}

// Deflates pieces into one gzip stream.
class Gzip {
public:
    Gzip()
    {
        std::memset(&m_stream, 0, sizeof m_stream);
        deflateInit2(&m_stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    }
    ~Gzip() { deflateEnd(&m_stream); }
    void add(const QByteArray &data, bool last = false)
    {
        m_stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.constData()));
        m_stream.avail_in = uInt(data.size());
        char buffer[16384];
        int status = Z_OK;
        do {
            m_stream.next_out = reinterpret_cast<Bytef *>(buffer);
            m_stream.avail_out = sizeof buffer;
            status = deflate(&m_stream, last ? Z_FINISH : Z_NO_FLUSH);
            m_out.append(buffer, qsizetype(sizeof buffer - m_stream.avail_out));
        } while (m_stream.avail_out == 0 || (last && status != Z_STREAM_END));
    }
    QByteArray finish()
    {
        add({}, true);
        return m_out;
    }

private:
    z_stream m_stream;
    QByteArray m_out;
};

inline QByteArray gzip(const QByteArray &data)
{
    Gzip out;
    out.add(data);
    return out.finish();
}

// One file of `size` zero bytes, gzipped without ever holding it whole.
inline QByteArray zero_bomb(const QByteArray &name, qint64 size)
{
    Gzip out;
    out.add(header({name}, size));
    const QByteArray zeros(1024 * 1024, '\0');
    for (qint64 left = size; left > 0; left -= zeros.size())
        out.add(left >= zeros.size() ? zeros : zeros.left(left));
    out.add(padding(size) + QByteArray(1024, '\0'));
    return out.finish();
}

// A gzipped tarball of the files below `folder`, as "./name" with the
// executable bit of each file.
inline QByteArray tarball(const QString &folder)
{
    QList<Member> members{{"./", {}, 0755, '5'}};
    QDirIterator it(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QByteArray name = "./" + QDir(folder).relativeFilePath(info.filePath()).toUtf8();
        if (info.isDir()) {
            members.append({name + '/', {}, 0755, '5'});
            continue;
        }
        QFile file(info.filePath());
        file.open(QIODevice::ReadOnly);
        members.append({name, file.readAll(), info.isExecutable() ? 0755 : 0644});
    }
    return gzip(tar(members));
}

} // namespace archive_writer
