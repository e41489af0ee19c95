#pragma once

// Small pieces the benchmarks share: building projects, timing, CPU time.

#include "model/project.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QUuid>
#include <QXmlStreamReader>

#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

namespace corv::bench {

// Adds an empty rack named "Rack <index>" at the end of the project's profile.
inline QUuid add_rack(model::Project &project, int index)
{
    const QUuid id = QUuid::createUuid();
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(QStringLiteral("Rack %1").arg(index));
    project.add_rack(id, std::move(rack));
    project.profile()->insert(project.profile()->count(), id);
    return id;
}

// Every element and attribute of the document, as a bare reader sees them:
// the yardstick for the project reader.
inline qint64 bare_read(const QByteArray &document)
{
    QXmlStreamReader xml(document);
    qint64 seen = 0;
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement)
            seen += 1 + xml.attributes().size();
    }
    return seen;
}

// The fastest of `rounds` runs, in milliseconds.
inline double best_ms(int rounds, const std::function<void()> &run)
{
    double best = 1e18;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        run();
        best = std::min(best, double(timer.nsecsElapsed()) / 1e6);
    }
    return best;
}

// User plus system CPU time of this process so far, in seconds.
inline double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A figure of /proc/self/status such as "VmHWM:", in MiB; -1 when unreadable.
inline double status_mb(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(std::strlen(field))).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return -1;
}

} // namespace corv::bench
