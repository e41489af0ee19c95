#include "exprs/tokenizer.h"

#include "exprs/template.h"

#include <charconv>

namespace corv::exprs {

namespace {

bool is_name_start(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool is_name_char(char c)
{
    return is_name_start(c) || is_digit(c);
}

[[noreturn]] void fail(qsizetype offset, QByteArray message)
{
    throw Failure{offset, std::move(message)};
}

// A character as a message shows it: printable ASCII as itself, the rest
// (control characters, bytes of a multi-byte character) whole or in hex.
QByteArray shown(QByteArrayView text, qsizetype at)
{
    const uchar c = uchar(text[at]);
    if (c >= 0x20 && c < 0x7F)
        return QByteArray(1, char(c));
    if (c >= 0x80)
        return text.sliced(at, utf8::step(text, at)).toByteArray();
    return "\\x" + QByteArray::number(c, 16).rightJustified(2, '0');
}

Token make_token(Tok kind, qsizetype offset, qsizetype length)
{
    Token token;
    token.kind = kind;
    token.offset = offset;
    token.length = length;
    return token;
}

} // namespace

Token Tokenizer::next()
{
    while (m_at < m_text.size()
           && (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\n'
               || m_text[m_at] == '\r'))
        ++m_at;
    const qsizetype start = m_at;
    if (m_at >= m_text.size())
        return make_token(Tok::End, start, 0);

    const char c = m_text[m_at];
    const char following = m_at + 1 < m_text.size() ? m_text[m_at + 1] : '\0';
    if (is_digit(c) || (c == '.' && is_digit(following)))
        return number(start);
    if (c == '"' || c == '\'')
        return string(start);
    if (is_name_start(c))
        return name(start);

    auto single = [&](Tok kind) {
        m_at += 1;
        return make_token(kind, start, 1);
    };
    auto pair = [&](Tok kind) {
        m_at += 2;
        return make_token(kind, start, 2);
    };
    switch (c) {
    case '}': return single(Tok::CloseBrace);
    case '(': return single(Tok::LParen);
    case ')': return single(Tok::RParen);
    case ',': return single(Tok::Comma);
    case '?': return single(Tok::Question);
    case ':': return single(Tok::Colon);
    case '+': return single(Tok::Plus);
    case '-': return single(Tok::Minus);
    case '*': return single(Tok::Star);
    case '/': return single(Tok::Slash);
    case '%': return single(Tok::Percent);
    case '&': return following == '&' ? pair(Tok::AndAnd) : single(Tok::Amp);
    case '|':
        if (following == '|')
            return pair(Tok::OrOr);
        break;
    case '!': return following == '=' ? pair(Tok::BangEqual) : single(Tok::Bang);
    case '=':
        if (following == '=')
            return pair(Tok::EqualEqual);
        fail(start, "unexpected '=' (compare with '==')");
    case '<': return following == '=' ? pair(Tok::LessEqual) : single(Tok::Less);
    case '>': return following == '=' ? pair(Tok::GreaterEqual) : single(Tok::Greater);
    default: break;
    }
    fail(start, "unexpected character '" + shown(m_text, start) + "'");
}

Token Tokenizer::number(qsizetype start)
{
    qsizetype i = start;
    while (i < m_text.size() && is_digit(m_text[i]))
        ++i;
    if (i < m_text.size() && m_text[i] == '.') {
        ++i;
        while (i < m_text.size() && is_digit(m_text[i]))
            ++i;
    }
    bool malformed = false;
    if (i < m_text.size() && (m_text[i] == 'e' || m_text[i] == 'E')) {
        ++i;
        if (i < m_text.size() && (m_text[i] == '+' || m_text[i] == '-'))
            ++i;
        const qsizetype exponent = i;
        while (i < m_text.size() && is_digit(m_text[i]))
            ++i;
        malformed = i == exponent;
    }
    // "12abc" or "1.2.3" is one malformed number, not a number and a name.
    while (i < m_text.size() && (is_name_char(m_text[i]) || m_text[i] == '.')) {
        malformed = true;
        ++i;
    }
    const QByteArrayView digits = m_text.sliced(start, i - start);
    const std::optional<double> value = malformed ? std::nullopt : read_number(digits);
    if (!value)
        fail(start, "malformed number '" + digits.toByteArray() + "'");
    m_at = i;
    Token token = make_token(Tok::Number, start, i - start);
    token.number = *value;
    return token;
}

Token Tokenizer::string(qsizetype start)
{
    const char quote = m_text[start];
    QByteArray text;
    qsizetype i = start + 1;
    while (true) {
        if (i >= m_text.size())
            fail(start, "unterminated string");
        const char c = m_text[i];
        if (c == quote)
            break;
        if (c != '\\') {
            // Copy the run up to the next quote or backslash at once.
            qsizetype run = i + 1;
            while (run < m_text.size() && m_text[run] != quote && m_text[run] != '\\')
                ++run;
            text += m_text.sliced(i, run - i);
            i = run;
            continue;
        }
        if (i + 1 >= m_text.size())
            fail(start, "unterminated string");
        switch (m_text[i + 1]) {
        case 'n': text += '\n'; break;
        case 't': text += '\t'; break;
        case '\\': text += '\\'; break;
        case '"': text += '"'; break;
        case '\'': text += '\''; break;
        default: fail(i, "unknown escape '\\" + shown(m_text, i + 1) + "'");
        }
        i += 2;
    }
    m_at = i + 1;
    Token token = make_token(Tok::String, start, m_at - start);
    token.text = std::move(text);
    return token;
}

Token Tokenizer::name(qsizetype start)
{
    // name(.part)*, where a part may also start with a digit ("axis.0").
    qsizetype i = start + 1;
    while (true) {
        while (i < m_text.size() && is_name_char(m_text[i]))
            ++i;
        if (i + 1 < m_text.size() && m_text[i] == '.' && is_name_char(m_text[i + 1]))
            ++i;
        else
            break;
    }
    m_at = i;
    Token token = make_token(Tok::Name, start, i - start);
    token.text = m_text.sliced(start, i - start).toByteArray();
    return token;
}

} // namespace corv::exprs
