#pragma once

#include <QByteArray>

namespace corv {

// The "User-Agent" header of every network request: "Corvane/0.9.4 (" the
// operating system's pretty name ")". Built once, on first use, and logged
// then ("Using user agent '%s'").
const QByteArray &user_agent();

} // namespace corv
