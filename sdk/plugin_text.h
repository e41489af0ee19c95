#pragma once
// Texts as plugins hand them to the exports: NUL-terminated, possibly null.

#include <QByteArrayView>

#include <cstring>

namespace corv::sdk {

// A plugin's text in place, without a copy; null reads as "".
inline QByteArrayView view_of(const char *text)
{
    return text ? QByteArrayView(text, qsizetype(std::strlen(text))) : QByteArrayView("");
}

} // namespace corv::sdk
