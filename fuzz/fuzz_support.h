#pragma once

// What every fuzz target shares: a quiet log, a loud failure, and the
// libFuzzer start-up hook. Include it in exactly one file per target.

#include <QByteArray>
#include <QtGlobal>

#include <cstdio>
#include <cstdlib>

namespace corv::fuzz {

// Readers log what they refuse; at millions of inputs that is only noise.
inline void silent(QtMsgType, const QMessageLogContext &, const QString &) {}

// An invariant that must hold for every input does not: print it with the
// input that broke it and stop, so libFuzzer keeps the input as a crash.
[[noreturn]] inline void broken(const char *what, const QByteArray &detail)
{
    std::fprintf(stderr, "invariant broken: %s\n%s\n", what, detail.constData());
    std::abort();
}

} // namespace corv::fuzz

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler(corv::fuzz::silent);
    return 0;
}
