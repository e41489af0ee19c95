#pragma once

// Small pieces the benchmarks share: building projects, timing, CPU time.

#include "bench/bench_platform.h"
#include "model/project.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QUuid>
#include <QXmlStreamReader>

#include <algorithm>
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

} // namespace corv::bench
