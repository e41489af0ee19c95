#pragma once

// Splits the inside of one template hole into tokens, from just after its "{"
// up to the "}" that closes it (a "}" inside a string literal does not).

#include <QByteArray>
#include <QByteArrayView>

namespace corv::exprs {

enum class Tok : unsigned char {
    End,        // the template text ended before the hole was closed
    CloseBrace, // "}": the end of the hole
    Number,
    String,
    Name, // a plain or dotted name; also the words and, or, not, true, false
    LParen,
    RParen,
    Comma,
    Question,
    Colon,
    Plus,
    Minus,
    Star,
    Slash,
    Percent,
    Amp,
    AndAnd,
    OrOr,
    Bang,
    EqualEqual,
    BangEqual,
    Less,
    LessEqual,
    Greater,
    GreaterEqual,
};

struct Token
{
    Tok kind = Tok::End;
    qsizetype offset = 0; // in the template text
    qsizetype length = 0;
    double number = 0.0;  // Tok::Number
    QByteArray text;      // Tok::String (unescaped), Tok::Name
};

class Tokenizer
{
public:
    // Reads text from byte offset `at`.
    Tokenizer(QByteArrayView text, qsizetype at) : m_text(text), m_at(at) {}

    // The next token. Throws Failure on a character that starts no token, an
    // unterminated string, an unknown escape or a malformed number.
    Token next();

    // The offset just after the last token read.
    qsizetype position() const { return m_at; }

private:
    Token number(qsizetype start);
    Token string(qsizetype start);
    Token name(qsizetype start);

    QByteArrayView m_text;
    qsizetype m_at;
};

} // namespace corv::exprs
