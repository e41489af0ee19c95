#include "locale/locale_file.h"

namespace corv::locale {

namespace {

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void append_utf8(QByteArray &out, char32_t cp)
{
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

class Parser
{
public:
    explicit Parser(QByteArrayView data) : m_p(data.data()), m_end(data.data() + data.size())
    {
        // A UTF-8 byte order mark is not part of the first line.
        if (data.startsWith("\xEF\xBB\xBF"))
            m_p += 3;
    }

    QList<LocaleFileItem> run()
    {
        QList<LocaleFileItem> items;
        while (m_p < m_end) {
            parse_line(items);
            skip_rest_of_line();
        }
        return items;
    }

private:
    enum class Stop { LineEnd, Terminator, BadEscape };

    // Length of the line ending at p: LF, CR LF, or a CR that ends the data.
    qsizetype line_end_length(const char *p) const
    {
        if (p >= m_end)
            return 0;
        if (*p == '\n')
            return 1;
        if (*p == '\r') {
            if (p + 1 == m_end)
                return 1;
            if (p[1] == '\n')
                return 2;
        }
        return 0;
    }

    bool at_line_end() const { return m_p >= m_end || line_end_length(m_p) > 0; }

    void skip_rest_of_line()
    {
        while (m_p < m_end && line_end_length(m_p) == 0)
            ++m_p;
        m_p += line_end_length(m_p);
    }

    void skip_blanks()
    {
        while (m_p < m_end && is_blank(*m_p))
            ++m_p;
    }

    // Reads `digits` hex digits after the escape letter; -1 on a bad digit.
    long read_hex(int digits)
    {
        long value = 0;
        for (int i = 0; i < digits; ++i) {
            if (m_p >= m_end)
                return -1;
            const int d = hex_value(*m_p);
            if (d < 0)
                return -1;
            value = value * 16 + d;
            ++m_p;
        }
        return value;
    }

    // \u escapes give UTF-16 units; a surrogate pair written as two escapes
    // becomes one code point, a lone surrogate the replacement character.
    bool read_unicode_escape(QByteArray &out)
    {
        const long unit = read_hex(4);
        if (unit < 0)
            return false;
        char32_t cp = char32_t(unit);
        if (cp >= 0xD800 && cp <= 0xDBFF && m_end - m_p >= 6 && m_p[0] == '\\' && m_p[1] == 'u') {
            const char *save = m_p;
            m_p += 2;
            const long low = read_hex(4);
            if (low >= 0xDC00 && low <= 0xDFFF)
                cp = 0x10000 + ((cp - 0xD800) << 10) + (char32_t(low) - 0xDC00);
            else
                m_p = save;
        }
        if (cp >= 0xD800 && cp <= 0xDFFF)
            cp = 0xFFFD;
        append_utf8(out, cp);
        return true;
    }

    // Reads escaped text up to `terminator` (consumed; -1 for none) or the end
    // of the line (not consumed). `kept` is the length without trailing raw blanks;
    // escaped characters always count as kept.
    Stop read_text(int terminator, QByteArray &out, qsizetype &kept)
    {
        kept = out.size();
        while (!at_line_end()) {
            const char c = *m_p;
            if (terminator >= 0 && c == char(terminator)) {
                ++m_p;
                return Stop::Terminator;
            }
            ++m_p;
            if (c != '\\') {
                out += c;
                if (!is_blank(c))
                    kept = out.size();
                continue;
            }
            if (m_p >= m_end)
                break; // a backslash ending the data escapes nothing
            if (const qsizetype eol = line_end_length(m_p)) {
                m_p += eol; // continuation: the text goes on on the next line
                continue;
            }
            const char e = *m_p++;
            switch (e) {
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u':
                if (!read_unicode_escape(out))
                    return Stop::BadEscape;
                break;
            case 'x': {
                const long byte = read_hex(2);
                if (byte < 0)
                    return Stop::BadEscape;
                append_utf8(out, char32_t(byte));
                break;
            }
            default:
                out += e;
                break;
            }
            kept = out.size();
        }
        return Stop::LineEnd;
    }

    void parse_line(QList<LocaleFileItem> &items)
    {
        skip_blanks();
        if (at_line_end())
            return;
        const char first = *m_p;
        if (first == '#' || first == ';')
            return;

        QByteArray text;
        qsizetype kept = 0;
        if (first == '[') {
            ++m_p;
            // A header without its "]" runs to the end of the line.
            read_text(']', text, kept);
            text.truncate(kept);
            items.append({LocaleFileItem::Kind::Section, text, {}});
            return;
        }

        if (read_text('=', text, kept) != Stop::Terminator)
            return; // no "=" (or the key was cut by a bad escape): not an entry
        text.truncate(kept);

        skip_blanks();
        QByteArray value;
        if (m_p < m_end && *m_p == '"') {
            ++m_p;
            read_text('"', value, kept);
        } else {
            read_text(-1, value, kept);
            value.truncate(kept);
        }
        items.append({LocaleFileItem::Kind::Entry, text, value});
    }

    const char *m_p;
    const char *m_end;
};

} // namespace

QList<LocaleFileItem> parse_locale_file(QByteArrayView data)
{
    return Parser(data).run();
}

} // namespace corv::locale
