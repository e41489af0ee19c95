// Feeds arbitrary bytes to the archive reader of the updater (plain and
// gzipped tar), with small limits. Besides crashes and sanitizer reports it
// checks what must hold for any archive:
//  - every entry handed on has a path that stays below the destination;
//  - a file's content arrives in exactly its announced size, and the sum of
//    all files never passes the unpacked limit;
//  - no more entries than the limit are handed on.
#include "fuzz/fuzz_support.h"
#include "update/archive.h"
#include "update/manifest.h"

#include <QBuffer>
#include <QByteArray>

#include <cstddef>
#include <cstdint>

using namespace corv::update;

using corv::fuzz::broken;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    QBuffer source(&bytes);
    source.open(QIODevice::ReadOnly);
    ArchiveLimits limits;
    limits.max_unpacked = 1024 * 1024;
    limits.max_entries = 64;

    int entries = 0;
    qint64 total = 0;
    qint64 expected = 0; // what the current file still owes
    auto on_entry = [&](const ArchiveEntry &entry) {
        if (expected != 0)
            broken("a file ended before its announced size", bytes);
        if (!is_safe_relative_path(entry.path) || entry.path.contains(u'\\'))
            broken("an unsafe path was handed on", bytes);
        if (++entries > limits.max_entries)
            broken("more entries than the limit were handed on", bytes);
        expected = entry.kind == ArchiveEntry::File ? entry.size : 0;
        return true;
    };
    auto on_data = [&](QByteArrayView piece) {
        expected -= piece.size();
        total += piece.size();
        if (expected < 0)
            broken("a file grew past its announced size", bytes);
        if (total > limits.max_unpacked)
            broken("more than the unpacked limit was handed on", bytes);
        return true;
    };
    QString error;
    if (read_archive(source, limits, on_entry, on_data, &error) && expected != 0)
        broken("the archive ended inside a file", bytes);
    return 0;
}
