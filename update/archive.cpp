#include "update/archive.h"

#include "update/manifest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace corv::update {

namespace {

constexpr qint64 kBlock = 512;
// Long names and extended headers larger than this are refused.
constexpr qint64 kMaxMetadata = 64 * 1024;

// The archive's bytes, inflated when they start like gzip.
class Input {
public:
    explicit Input(QIODevice &source) : m_source(source)
    {
        std::memset(&m_stream, 0, sizeof m_stream);
    }
    ~Input()
    {
        if (m_gzip)
            inflateEnd(&m_stream);
    }
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    // Reads exactly `size` bytes; false with *error at the end or on damage.
    bool read(char *out, qint64 size, QString *error)
    {
        if (!m_started && !start(error))
            return false;
        while (size > 0) {
            if (!m_gzip) {
                const qint64 got = m_source.read(out, size);
                if (got <= 0)
                    return truncated(error);
                out += got;
                size -= got;
                continue;
            }
            if (m_stream.avail_in == 0 && !m_ended && !refill(error))
                return false;
            if (m_ended) {
                // A further gzip member may follow the first.
                if (m_stream.avail_in == 0 && !refill(error))
                    return false;
                if (m_stream.avail_in == 0)
                    return truncated(error);
                if (inflateReset(&m_stream) != Z_OK)
                    return damaged(error);
                m_ended = false;
            }
            m_stream.next_out = reinterpret_cast<Bytef *>(out);
            m_stream.avail_out = uInt(qMin<qint64>(size, 1 << 30));
            const uInt before = m_stream.avail_out;
            const int status = inflate(&m_stream, Z_NO_FLUSH);
            const qint64 produced = before - m_stream.avail_out;
            out += produced;
            size -= produced;
            if (status == Z_STREAM_END) {
                m_ended = true;
            } else if (status == Z_BUF_ERROR && m_stream.avail_in == 0) {
                if (!refill(error))
                    return false;
                if (m_stream.avail_in == 0)
                    return truncated(error);
            } else if (status != Z_OK) {
                return damaged(error);
            }
        }
        return true;
    }

    // Reads and drops `size` bytes.
    bool skip(qint64 size, QString *error)
    {
        char buffer[4096];
        while (size > 0) {
            const qint64 piece = qMin<qint64>(size, sizeof buffer);
            if (!read(buffer, piece, error))
                return false;
            size -= piece;
        }
        return true;
    }

private:
    bool start(QString *error)
    {
        m_started = true;
        char magic[2];
        if (m_source.peek(magic, 2) == 2 && magic[0] == '\x1f' && magic[1] == '\x8b') {
            // 15 + 16: a gzip wrapper is expected.
            if (inflateInit2(&m_stream, 15 + 16) != Z_OK) {
                *error = QStringLiteral("could not start decompressing");
                return false;
            }
            m_gzip = true;
        }
        return true;
    }
    bool refill(QString *error)
    {
        const qint64 got = m_source.read(m_buffer, sizeof m_buffer);
        if (got < 0) {
            *error = QStringLiteral("could not read the archive: %1").arg(m_source.errorString());
            return false;
        }
        m_stream.next_in = reinterpret_cast<Bytef *>(m_buffer);
        m_stream.avail_in = uInt(got);
        return true;
    }
    static bool truncated(QString *error)
    {
        *error = QStringLiteral("the archive ends early");
        return false;
    }
    bool damaged(QString *error) const
    {
        *error = QStringLiteral("the archive is damaged: %1")
                     .arg(QString::fromLatin1(m_stream.msg ? m_stream.msg : "bad data"));
        return false;
    }

    QIODevice &m_source;
    z_stream m_stream;
    char m_buffer[64 * 1024];
    bool m_started = false;
    bool m_gzip = false;
    bool m_ended = false;
};

// A number field: octal text, or GNU's base-256 with the high bit set.
bool parse_number(const char *field, int length, qint64 &value)
{
    value = 0;
    const auto *bytes = reinterpret_cast<const unsigned char *>(field);
    if (bytes[0] & 0x80) {
        if (bytes[0] != 0x80)
            return false; // negative, or far too large
        for (int i = 1; i < length; ++i) {
            if (value > (qint64(1) << 54))
                return false;
            value = value * 256 + bytes[i];
        }
        return true;
    }
    int i = 0;
    while (i < length && bytes[i] == ' ')
        ++i;
    bool digits = false;
    for (; i < length && bytes[i] >= '0' && bytes[i] <= '7'; ++i) {
        if (value > (qint64(1) << 54))
            return false;
        value = value * 8 + (bytes[i] - '0');
        digits = true;
    }
    for (; i < length; ++i) {
        if (bytes[i] != ' ' && bytes[i] != 0)
            return false;
    }
    return digits;
}

QString field_text(const char *field, int length)
{
    return QString::fromUtf8(field, qsizetype(strnlen(field, size_t(length))));
}

bool checksum_matches(const char *header)
{
    qint64 stored = 0;
    if (!parse_number(header + 148, 8, stored))
        return false;
    qint64 sum = 0;
    for (int i = 0; i < kBlock; ++i)
        sum += (i >= 148 && i < 156) ? ' ' : static_cast<unsigned char>(header[i]);
    return sum == stored;
}

// "length key=value\n" records of a pax extended header.
void read_pax(const QByteArray &data, QString &path, qint64 &size)
{
    qsizetype at = 0;
    while (at < data.size()) {
        const qsizetype space = data.indexOf(' ', at);
        if (space < 0)
            return;
        bool ok = false;
        const qsizetype length = data.mid(at, space - at).toLongLong(&ok);
        // The length counts the whole record: its digits, the space, and the
        // newline that ends it.
        if (!ok || length < space - at + 2 || at + length > data.size() || data[at + length - 1] != '\n')
            return;
        const QByteArray record = data.mid(space + 1, length - (space - at) - 2);
        const qsizetype equals = record.indexOf('=');
        if (equals > 0) {
            const QByteArray key = record.left(equals);
            const QByteArray value = record.mid(equals + 1);
            if (key == "path")
                path = QString::fromUtf8(value);
            else if (key == "size") {
                const qint64 number = value.toLongLong(&ok);
                size = ok && number >= 0 ? number : -2; // -2: refused
            }
        }
        at += length;
    }
}

// The archive's name made relative: "./a/b/" is "a/b"; empty for the root.
QString clean_path(QString path)
{
    while (path.startsWith(QLatin1StringView("./")))
        path.remove(0, 2);
    while (path.endsWith(u'/'))
        path.chop(1);
    return path == u'.' ? QString() : path;
}

} // namespace

bool read_archive(QIODevice &source, const ArchiveLimits &limits,
                  const std::function<bool(const ArchiveEntry &)> &on_entry,
                  const std::function<bool(QByteArrayView)> &on_data, QString *error,
                  const std::atomic_bool *cancel)
{
    Input input(source);
    qint64 unpacked = 0;
    int entries = 0;
    QString long_name;
    QString pax_path;
    qint64 pax_size = -1;
    char header[kBlock];
    QByteArray buffer(64 * 1024, Qt::Uninitialized);
    auto fail = [error](const QString &why) {
        *error = why;
        return false;
    };

    for (;;) {
        if (cancel && cancel->load())
            return fail(QStringLiteral("canceled"));
        if (!input.read(header, kBlock, error))
            return false;
        if (std::all_of(header, header + kBlock, [](char c) { return c == 0; }))
            return true; // the end marker; whatever follows is padding
        if (!checksum_matches(header))
            return fail(QStringLiteral("not a tar archive (a header's checksum is wrong)"));
        if (++entries > limits.max_entries)
            return fail(QStringLiteral("the archive has more than %1 entries")
                            .arg(limits.max_entries));

        qint64 size = 0;
        if (!parse_number(header + 124, 12, size))
            return fail(QStringLiteral("not a tar archive (a size is unreadable)"));
        const char type = header[156];
        const qint64 padded = (size + kBlock - 1) / kBlock * kBlock;

        // Headers that describe the next entry.
        if (type == 'L' || type == 'K' || type == 'x' || type == 'g') {
            if (size > kMaxMetadata)
                return fail(QStringLiteral("an extended header of %1 bytes is too large").arg(size));
            QByteArray data(padded, Qt::Uninitialized);
            if (!input.read(data.data(), padded, error))
                return false;
            data.truncate(size);
            if (type == 'L')
                long_name = QString::fromUtf8(data.constData(),
                                             qsizetype(strnlen(data.constData(), size_t(size))));
            else if (type == 'x')
                read_pax(data, pax_path, pax_size);
            continue;
        }

        QString name;
        if (!pax_path.isEmpty()) {
            name = pax_path;
        } else if (!long_name.isEmpty()) {
            name = long_name;
        } else {
            name = field_text(header, 100);
            // POSIX ustar keeps a prefix; old GNU headers use that space otherwise.
            if (std::memcmp(header + 257, "ustar\0", 6) == 0) {
                const QString prefix = field_text(header + 345, 155);
                if (!prefix.isEmpty())
                    name = prefix + u'/' + name;
            }
        }
        if (pax_size == -2)
            return fail(QStringLiteral("refused %1: its size is unreadable").arg(name));
        if (pax_size >= 0)
            size = pax_size;
        long_name.clear();
        pax_path.clear();
        pax_size = -1;
        const qint64 data_size = (size + kBlock - 1) / kBlock * kBlock;

        ArchiveEntry entry;
        entry.path = clean_path(name);
        if (type == '1' || type == '2')
            return fail(QStringLiteral("refused %1: links are not installed").arg(name));
        if (type == '3' || type == '4' || type == '6')
            return fail(QStringLiteral("refused %1: devices and pipes are not installed").arg(name));
        if (type == '5')
            entry.kind = ArchiveEntry::Folder;
        else if (type == '0' || type == '\0' || type == '7')
            entry.kind = ArchiveEntry::File;
        else
            return fail(QStringLiteral("refused %1: entries of type '%2' are not installed")
                            .arg(name, QString::fromLatin1(&type, 1)));
        if (entry.path.isEmpty() && entry.kind == ArchiveEntry::Folder) {
            if (!input.skip(data_size, error))
                return false;
            continue; // the archive's root, "./"
        }
        if (!is_safe_relative_path(entry.path) || entry.path.contains(u'\\'))
            return fail(QStringLiteral("refused %1: the path leaves the destination").arg(name));

        if (entry.kind == ArchiveEntry::Folder) {
            if (!on_entry(entry) || !input.skip(data_size, error))
                return false;
            continue;
        }
        qint64 mode = 0;
        parse_number(header + 100, 8, mode);
        entry.executable = (mode & 0111) != 0;
        entry.size = size;
        unpacked += size;
        if (unpacked > limits.max_unpacked)
            return fail(QStringLiteral("the archive unpacks to more than %1 bytes")
                            .arg(limits.max_unpacked));
        if (!on_entry(entry))
            return false;
        qint64 left = size;
        while (left > 0) {
            if (cancel && cancel->load())
                return fail(QStringLiteral("canceled"));
            const qint64 piece = qMin<qint64>(left, buffer.size());
            if (!input.read(buffer.data(), piece, error))
                return false;
            if (!on_data(QByteArrayView(buffer.constData(), piece)))
                return false;
            left -= piece;
        }
        if (!input.skip(data_size - size, error))
            return false;
    }
}

bool unpack_archive(const QString &archive, const QString &folder, const ArchiveLimits &limits,
                    QString *error, const std::atomic_bool *cancel)
{
    QFile source(archive);
    if (!source.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("could not open %1: %2").arg(archive, source.errorString());
        return false;
    }
    const QDir root(folder);
    if (!QDir().mkpath(folder)) {
        *error = QStringLiteral("could not create %1").arg(folder);
        return false;
    }
    constexpr QFile::Permissions kFolder = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                           QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                           QFile::ExeOther;
    constexpr QFile::Permissions kFile =
        QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
    constexpr QFile::Permissions kProgram =
        kFile | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther;

    QFile out;
    // Every folder on the way is made here, so none comes from the archive
    // with another mode, and none is a file already.
    auto make_folder = [&](const QString &relative) {
        QString path;
        for (const QString &part : relative.split(u'/', Qt::SkipEmptyParts)) {
            path = path.isEmpty() ? part : path + u'/' + part;
            const QString full = root.filePath(path);
            const QFileInfo info(full);
            if (info.isSymLink() || (info.exists() && !info.isDir())) {
                *error = QStringLiteral("refused %1: a file and a folder of one name").arg(path);
                return false;
            }
            if (!info.exists() && (!root.mkdir(path) || !QFile::setPermissions(full, kFolder))) {
                *error = QStringLiteral("could not create %1").arg(full);
                return false;
            }
        }
        return true;
    };
    auto on_entry = [&](const ArchiveEntry &entry) {
        out.close();
        if (entry.kind == ArchiveEntry::Folder)
            return make_folder(entry.path);
        const qsizetype slash = entry.path.lastIndexOf(u'/');
        if (slash > 0 && !make_folder(entry.path.left(slash)))
            return false;
        const QString full = root.filePath(entry.path);
        const QFileInfo info(full);
        if (info.isSymLink() || info.isDir()) {
            *error = QStringLiteral("refused %1: a file and a folder of one name").arg(entry.path);
            return false;
        }
        out.setFileName(full);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            !out.setPermissions(entry.executable ? kProgram : kFile)) {
            *error = QStringLiteral("could not write %1: %2").arg(full, out.errorString());
            return false;
        }
        return true;
    };
    auto on_data = [&](QByteArrayView data) {
        if (out.write(data.data(), data.size()) != data.size()) {
            *error = QStringLiteral("could not write %1: %2").arg(out.fileName(), out.errorString());
            return false;
        }
        return true;
    };
    const bool ok = read_archive(source, limits, on_entry, on_data, error, cancel);
    if (out.isOpen()) {
        out.close();
        if (ok && out.error() != QFileDevice::NoError) {
            *error = QStringLiteral("could not write %1: %2").arg(out.fileName(), out.errorString());
            return false;
        }
    }
    return ok;
}

} // namespace corv::update
