#pragma once

#include <QByteArray>
#include <QByteArrayView>

namespace corv::exprs {

// Where an expression reads event keys from. Values are UTF-8 bytes; a key
// that is absent reads as empty text.
class KeySource
{
public:
    virtual ~KeySource() = default;
    virtual bool has(QByteArrayView key) const = 0;
    virtual QByteArray value(QByteArrayView key) const = 0;
};

// A source with no keys (a null event).
const KeySource &no_keys();

// Evaluates a template: text with { expression } holes, "{{" and "}}" for
// literal braces. On a parse or evaluation error the whole result is empty and
// one warning is logged: Expression error in "<text>" at column <n>: <message>.
// Parsed templates are kept in a small cache keyed by their text.
QByteArray evaluate(QByteArrayView text, const KeySource &keys);

// The same, parsing text afresh without the cache.
QByteArray evaluate_uncached(QByteArrayView text, const KeySource &keys);

} // namespace corv::exprs
