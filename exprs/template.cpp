#include "exprs/template.h"

namespace corv::exprs {

Template::Template(QByteArrayView text) : m_source(text.toByteArray())
{
    try {
        parse_template(m_source, *this);
    } catch (const Failure &failure) {
        nodes.clear();
        args.clear();
        pieces.clear();
        m_parse_failure = failure;
    }
    for (const Piece &piece : pieces)
        m_literal_size += piece.text.size();
}

QString Template::warning(const Failure &failure) const
{
    const qsizetype column = utf8::index_of(m_source, failure.offset) + 1;
    return QStringLiteral("Expression error in \"%1\" at column %2: %3")
        .arg(QString::fromUtf8(m_source), QString::number(column),
             QString::fromUtf8(failure.message));
}

} // namespace corv::exprs
