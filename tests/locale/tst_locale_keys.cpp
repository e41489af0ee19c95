// Checks that every translation key the program uses exists in the shipped
// locale files.
//
// Keys are found by scanning the C and C++ sources of the repository (all but
// tests/, examples/ and build folders) for these calls, whose key argument is
// a string literal (adjacent literals are joined):
//   translate("Key", ...)               corv::locale::translate, Translator::translate
//   CORV_TR_KEY("Key")                  keys kept in tables or assembled at run time
//   corv_plugin_tr(plugin, "Key")       and corv_plugin_tr_arg, corv_plugin_tr_plural,
//                                       corv_plugin_tr_plural_str
//   plugin_tr(translator, "Key")        and plugin_tr_arg, plugin_tr_plural,
//                                       plugin_tr_plural_str (corv::locale's core)
// A call whose key is not a literal is not checked. Where the call shows that
// argument N is a count (a plural(...) argument of translate; the count of the
// *_plural shorthands; corv_tr_int_plural / corv_tr_float_plural wrapped
// directly around a *_tr_arg call), the key's ".Singular" forms for %N are
// required too.
#include "locale/locale_file.h"
#include "locale/tr_builder.h"
#include "locale/translator.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <map>
#include <set>

namespace {

using corv::locale::TrArg;

struct Token
{
    enum Kind { Ident, String, Punct };
    Kind kind;
    QByteArray text; // identifier, punctuation character, or the literal's content
    int line;
};

bool is_ident_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// A small C/C++ lexer: enough to skip comments, character literals and
// string literals (raw ones too) and to see calls with their arguments.
QList<Token> tokenize(QByteArrayView src)
{
    QList<Token> tokens;
    int line = 1;
    qsizetype i = 0;
    const qsizetype n = src.size();
    auto read_quoted = [&](char quote) {
        QByteArray text;
        ++i;
        while (i < n && src[i] != quote && src[i] != '\n') {
            if (src[i] == '\\' && i + 1 < n) {
                ++i;
                if (src[i] == '\n')
                    ++line;
            }
            text += src[i++];
        }
        ++i;
        return text;
    };
    while (i < n) {
        const char c = src[i];
        if (c == '\n') {
            ++line;
            ++i;
        } else if (c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
            ++i;
        } else if (c == '/' && i + 1 < n && src[i + 1] == '/') {
            while (i < n && src[i] != '\n')
                ++i;
        } else if (c == '/' && i + 1 < n && src[i + 1] == '*') {
            i += 2;
            while (i < n && !(src[i] == '*' && i + 1 < n && src[i + 1] == '/')) {
                if (src[i] == '\n')
                    ++line;
                ++i;
            }
            i += 2;
        } else if (c == '"') {
            const int start_line = line;
            tokens.append({Token::String, read_quoted('"'), start_line});
        } else if (c == '\'') {
            read_quoted('\'');
        } else if (is_ident_char(c)) {
            const qsizetype start = i;
            while (i < n && is_ident_char(src[i]))
                ++i;
            const QByteArray word = src.sliced(start, i - start).toByteArray();
            const bool prefix = word == "u8" || word == "u" || word == "U" || word == "L";
            const bool raw = word == "R" || word == "u8R" || word == "uR" || word == "UR" || word == "LR";
            if (i < n && src[i] == '"' && raw) {
                const qsizetype open = src.indexOf('(', i);
                const QByteArray end = ')' + src.sliced(i + 1, open - i - 1).toByteArray() + '"';
                const qsizetype close = src.indexOf(end, open);
                const qsizetype stop = close < 0 ? n : close;
                const QByteArray text = src.sliced(open + 1, stop - open - 1).toByteArray();
                tokens.append({Token::String, text, line});
                line += int(text.count('\n'));
                i = close < 0 ? n : close + end.size();
            } else if (i < n && src[i] == '"' && prefix) {
                const int start_line = line;
                tokens.append({Token::String, read_quoted('"'), start_line});
            } else {
                tokens.append({Token::Ident, word, line});
            }
        } else {
            tokens.append({Token::Punct, QByteArray(1, c), line});
            ++i;
        }
    }
    return tokens;
}

struct KeyUse
{
    QByteArray key;
    QSet<int> counts; // placeholder numbers known to receive a count
    int line;
};

const QSet<QByteArray> kKeyFirst = {"translate", "CORV_TR_KEY"};
const QSet<QByteArray> kKeySecond = {"corv_plugin_tr",        "corv_plugin_tr_arg", "corv_plugin_tr_plural",
                                     "corv_plugin_tr_plural_str", "plugin_tr",      "plugin_tr_arg",
                                     "plugin_tr_plural",      "plugin_tr_plural_str"};
const QSet<QByteArray> kCountShorthand = {"corv_plugin_tr_plural", "corv_plugin_tr_plural_str",
                                          "plugin_tr_plural", "plugin_tr_plural_str"};
const QSet<QByteArray> kArgBuilder = {"corv_plugin_tr_arg", "plugin_tr_arg"};
const QSet<QByteArray> kAppend = {"corv_tr_str", "corv_tr_int", "corv_tr_float", "tr_str", "tr_int", "tr_float"};
const QSet<QByteArray> kAppendCount = {"corv_tr_int_plural", "corv_tr_float_plural", "tr_int_plural",
                                       "tr_float_plural"};

QList<KeyUse> find_keys(QByteArrayView source)
{
    const QList<Token> t = tokenize(source);
    // For every "(": its ")" and the "(" it is nested in.
    std::map<qsizetype, qsizetype> close_of;
    std::map<qsizetype, qsizetype> parent_of;
    QList<qsizetype> stack;
    for (qsizetype i = 0; i < t.size(); ++i) {
        if (t[i].kind != Token::Punct)
            continue;
        if (t[i].text == "(") {
            parent_of[i] = stack.isEmpty() ? -1 : stack.last();
            stack.append(i);
        } else if (t[i].text == ")" && !stack.isEmpty()) {
            close_of[stack.takeLast()] = i;
        }
    }
    auto is_punct = [&](qsizetype i, char c) {
        return i >= 0 && i < t.size() && t[i].kind == Token::Punct && t[i].text.size() == 1 && t[i].text[0] == c;
    };

    QList<KeyUse> uses;
    for (qsizetype i = 0; i + 1 < t.size(); ++i) {
        if (t[i].kind != Token::Ident || !is_punct(i + 1, '(') || !close_of.count(i + 1))
            continue;
        const QByteArray &name = t[i].text;
        const int key_index = kKeyFirst.contains(name) ? 0 : kKeySecond.contains(name) ? 1 : -1;
        if (key_index < 0)
            continue;

        // Split the arguments at top-level commas.
        const qsizetype close = close_of[i + 1];
        QList<QPair<qsizetype, qsizetype>> args; // [begin, end)
        qsizetype begin = i + 2;
        int depth = 0;
        for (qsizetype j = i + 2; j < close; ++j) {
            if (is_punct(j, '(') || is_punct(j, '[') || is_punct(j, '{'))
                ++depth;
            else if (is_punct(j, ')') || is_punct(j, ']') || is_punct(j, '}'))
                --depth;
            else if (depth == 0 && is_punct(j, ',')) {
                args.append({begin, j});
                begin = j + 1;
            }
        }
        args.append({begin, close});
        if (args.size() <= key_index)
            continue;

        KeyUse use{{}, {}, t[i].line};
        bool literal = args[key_index].first < args[key_index].second;
        for (qsizetype j = args[key_index].first; j < args[key_index].second; ++j) {
            if (t[j].kind != Token::String)
                literal = false;
            else
                use.key += t[j].text;
        }
        if (!literal)
            continue;

        if (kCountShorthand.contains(name))
            use.counts.insert(1);
        if (name == "translate") {
            // translate(key, a, plural(n), ...): argument k is %k.
            for (int k = 1; k < args.size(); ++k) {
                for (qsizetype j = args[k].first; j < args[k].second; ++j) {
                    if (t[j].kind == Token::Ident && t[j].text == "plural" && is_punct(j + 1, '(')) {
                        use.counts.insert(k);
                        break;
                    }
                    if (t[j].kind != Token::Ident && !is_punct(j, ':'))
                        break;
                }
            }
        }
        if (kArgBuilder.contains(name)) {
            // corv_tr_x(corv_tr_y(corv_plugin_tr_arg(p, key), a), b): walk out
            // through the calls that take the builder as first argument.
            qsizetype call = i; // identifier of the current call
            int position = 0;
            for (;;) {
                const qsizetype outer_open = parent_of[call + 1];
                if (outer_open < 1 || outer_open + 1 != call || t[outer_open - 1].kind != Token::Ident)
                    break;
                const QByteArray &outer = t[outer_open - 1].text;
                if (kAppendCount.contains(outer))
                    use.counts.insert(++position);
                else if (kAppend.contains(outer))
                    ++position;
                else
                    break;
                call = outer_open - 1;
            }
        }
        uses.append(use);
    }
    return uses;
}

// The key and, for each non-empty set of count placeholders that the key
// has, the form with those placeholders replaced by "Singular".
QByteArrayList required_forms(const KeyUse &use)
{
    QByteArrayList forms{use.key};
    QList<int> present;
    for (int n : use.counts) {
        if (use.key.contains('%' + QByteArray::number(n)))
            present.append(n);
    }
    std::sort(present.begin(), present.end());
    const int max = present.isEmpty() ? 0 : *std::max_element(present.begin(), present.end());
    for (int mask = 1; mask < (1 << present.size()); ++mask) {
        QList<TrArg> args(max);
        for (int b = 0; b < present.size(); ++b) {
            if (mask & (1 << b))
                args[present[b] - 1] = TrArg{TrArg::PluralInt, {}, 1, 0.0};
        }
        forms.append(corv::locale::singular_key(use.key, args));
    }
    return forms;
}

QString source_dir()
{
    return qEnvironmentVariable("CORV_SOURCE_DIR");
}

corv::locale::Table read_table(const QString &path)
{
    corv::locale::Table table;
    if (!corv::locale::read_locale_file(path, table))
        qFatal("cannot read %s", qPrintable(path));
    return table;
}

QList<int> placeholders(QByteArrayView text)
{
    QList<int> numbers;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
        } else if (text[i] == '%') {
            int n = 0;
            qsizetype j = i + 1;
            while (j < text.size() && text[j] >= '0' && text[j] <= '9')
                n = n * 10 + (text[j++] - '0');
            if (j > i + 1)
                numbers.append(n);
            i = j - 1;
        }
    }
    return numbers;
}

// The delay node assembles its name keys from pieces; these are all of them.
QByteArrayList delay_keys()
{
    QByteArrayList keys;
    const QByteArrayList parts{"", ".%2", ".%2.%3"};
    for (const QByteArray &delay : parts) {
        keys.append("DelayNode.Name.NotRunning.%1" + delay);
        for (const QByteArray &left : {QByteArray(".%4"), QByteArray(".%4.%5"), QByteArray(".%4.%5.%6")})
            keys.append("DelayNode.Name.Running.%1" + delay + left);
    }
    return keys;
}

} // namespace

class TstLocaleKeys : public QObject
{
    Q_OBJECT

private:
    corv::locale::Table m_en;
    corv::locale::Table m_de;

    QString files_dir() const { return source_dir() + QStringLiteral("/locale/files"); }

private Q_SLOTS:
    void initTestCase()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        if (source_dir().isEmpty())
            QSKIP("CORV_SOURCE_DIR is not set");
        m_en = read_table(files_dir() + QStringLiteral("/en-US.ini"));
        m_de = read_table(files_dir() + QStringLiteral("/de-DE.ini"));
    }

    void scanner_data()
    {
        QTest::addColumn<QByteArray>("code");
        QTest::addColumn<QByteArrayList>("expected");

        QTest::newRow("translate") << QByteArray("x = corv::locale::translate(\"Menu.File\");")
                                   << QByteArrayList{"Menu.File"};
        QTest::newRow("member translate") << QByteArray("tr->translate(\"A.B\", name);") << QByteArrayList{"A.B"};
        QTest::newRow("translate with count")
            << QByteArray("translate(\"U.%1.%2\", corv::locale::plural(n), name);")
            << QByteArrayList{"U.%1.%2", "U.Singular.%2"};
        QTest::newRow("translate with two counts")
            << QByteArray("translate(\"U.%1.%2\", plural(n), plural(m));")
            << QByteArrayList{"U.%1.%2", "U.Singular.%2", "U.%1.Singular", "U.Singular.Singular"};
        QTest::newRow("count not in key") << QByteArray("translate(\"K\", plural(n));") << QByteArrayList{"K"};
        QTest::newRow("marker") << QByteArray("static const char *k[] = {CORV_TR_KEY(\"T.A\"), CORV_TR_KEY(\"T.B\")};")
                                << QByteArrayList{"T.A", "T.B"};
        QTest::newRow("plugin lookup") << QByteArray("cui_label(ctx, corv_plugin_tr(plugin, \"Node.Label\"));")
                                       << QByteArrayList{"Node.Label"};
        QTest::newRow("plural shorthand") << QByteArray("corv_plugin_tr_plural_str(p, \"C.%1\", n, buf);")
                                          << QByteArrayList{"C.%1", "C.Singular"};
        QTest::newRow("builder chain, first count")
            << QByteArray("corv_tr_end(corv_tr_str(corv_tr_int_plural(corv_plugin_tr_arg(p, \"R.%1.%2\"), n), s));")
            << QByteArrayList{"R.%1.%2", "R.Singular.%2"};
        QTest::newRow("builder chain, second count")
            << QByteArray("corv_tr_end_str(corv_tr_float_plural(corv_tr_str(corv_plugin_tr_arg(p, \"V.%1.%2\"), s), x), b);")
            << QByteArrayList{"V.%1.%2", "V.%1.Singular"};
        QTest::newRow("builder without counts")
            << QByteArray("corv_tr_end(corv_tr_float(corv_plugin_tr_arg(p, \"D.%1\"), d));") << QByteArrayList{"D.%1"};
        QTest::newRow("joined literals") << QByteArray("translate(\"Long.\" \"Key\");") << QByteArrayList{"Long.Key"};
        QTest::newRow("dynamic key is skipped") << QByteArray("translate(key); translate(\"A.\" + x);")
                                                << QByteArrayList{};
        QTest::newRow("comments are skipped")
            << QByteArray("// translate(\"No.One\")\n/* corv_plugin_tr(p, \"No.Two\") */ translate(\"Yes\");")
            << QByteArrayList{"Yes"};
        QTest::newRow("strings are skipped") << QByteArray("s = \"translate(\\\"No\\\")\"; c = '\"'; translate(\"Yes\");")
                                             << QByteArrayList{"Yes"};
        QTest::newRow("raw strings are skipped") << QByteArray("s = R\"x(translate(\"No\"))x\"; translate(\"Yes\");")
                                                 << QByteArrayList{"Yes"};
        QTest::newRow("other tr functions are not ours") << QByteArray("QObject::tr(\"Qt\"); my_translate(\"No\");")
                                                         << QByteArrayList{};
    }

    void scanner()
    {
        QFETCH(QByteArray, code);
        QFETCH(QByteArrayList, expected);
        QByteArrayList found;
        for (const KeyUse &use : find_keys(code))
            found += required_forms(use);
        QCOMPARE(found, expected);
    }

    void used_keys_exist_in_every_locale()
    {
        QStringList missing;
        int files = 0;
        int keys = 0;
        const QDir root(source_dir());
        QDirIterator it(source_dir(), {QStringLiteral("*.c"), QStringLiteral("*.cc"), QStringLiteral("*.cpp"),
                                       QStringLiteral("*.cxx"), QStringLiteral("*.h"), QStringLiteral("*.hpp")},
                        QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QString relative = root.relativeFilePath(path);
            const QString top = relative.section(QLatin1Char('/'), 0, 0);
            if (!relative.contains(QLatin1Char('/')) || top == QLatin1String("tests")
                || top == QLatin1String("examples") || top.startsWith(QLatin1String("build"))
                || top.startsWith(QLatin1Char('.')))
                continue;
            QFile file(path);
            QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(path));
            ++files;
            for (const KeyUse &use : find_keys(file.readAll())) {
                for (const QByteArray &key : required_forms(use)) {
                    ++keys;
                    const QString where = QStringLiteral("%1:%2: %3").arg(relative).arg(use.line).arg(QString::fromUtf8(key));
                    if (!m_en.count(key))
                        missing.append(where + QStringLiteral(" (en-US)"));
                    if (!m_de.count(key))
                        missing.append(where + QStringLiteral(" (de-DE)"));
                }
            }
        }
        QVERIFY2(missing.isEmpty(), qPrintable(QStringLiteral("keys missing from locale files:\n") + missing.join(QLatin1Char('\n'))));
        // The scan must see the program: at least the new rack name of locale/.
        QVERIFY(files > 0);
        QVERIFY(keys > 0);
        qInfo("%d keys in %d source files checked", keys, files);
    }

    void assembled_keys_exist_in_every_locale()
    {
        const QByteArrayList keys = delay_keys();
        QCOMPARE(keys.size(), 12);
        for (const QByteArray &key : keys) {
            QVERIFY2(m_en.count(key), key.constData());
            QVERIFY2(m_de.count(key), key.constData());
        }
    }

    void locales_have_the_same_keys()
    {
        QStringList only_en, only_de;
        for (const auto &[key, text] : m_en) {
            if (!m_de.count(key))
                only_en.append(QString::fromUtf8(key));
        }
        for (const auto &[key, text] : m_de) {
            if (!m_en.count(key))
                only_de.append(QString::fromUtf8(key));
        }
        only_en.sort();
        only_de.sort();
        QVERIFY2(only_en.isEmpty(), qPrintable(QStringLiteral("only in en-US: ") + only_en.join(QStringLiteral(", "))));
        QVERIFY2(only_de.isEmpty(), qPrintable(QStringLiteral("only in de-DE: ") + only_de.join(QStringLiteral(", "))));
    }

    // A text may only use the arguments its key announces: "%N" of the key,
    // or one more where a placeholder became "Singular".
    void texts_use_only_announced_arguments()
    {
        QStringList wrong;
        for (const corv::locale::Table *table : {&m_en, &m_de}) {
            for (const auto &[key, text] : *table) {
                const QList<int> in_key = placeholders(key);
                int allowed = in_key.isEmpty() ? 0 : *std::max_element(in_key.begin(), in_key.end());
                if (key.contains("Singular"))
                    allowed += int(key.count("Singular"));
                for (int n : placeholders(text)) {
                    if (n < 1 || n > allowed)
                        wrong.append(QString::fromUtf8(key + " = " + text));
                }
            }
        }
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join(QLatin1Char('\n'))));
    }

    // Every line of a shipped file is a comment, blank or an entry: a line
    // that lost its "=" would silently drop a text.
    void shipped_files_have_no_stray_lines_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("locale list") << QStringLiteral("locale.ini");
        QTest::newRow("en-US") << QStringLiteral("en-US.ini");
        QTest::newRow("de-DE") << QStringLiteral("de-DE.ini");
    }

    void shipped_files_have_no_stray_lines()
    {
        QFETCH(QString, name);
        QFile file(files_dir() + QLatin1Char('/') + name);
        QVERIFY(file.open(QIODevice::ReadOnly));
        int line_number = 0;
        while (!file.atEnd()) {
            const QByteArray line = file.readLine().trimmed();
            ++line_number;
            if (line.isEmpty() || line.startsWith('#') || line.startsWith(';') || line.startsWith('['))
                continue;
            QVERIFY2(line.contains('='), qPrintable(QStringLiteral("%1:%2").arg(name).arg(line_number)));
        }
    }

    void locale_list_names_shipped_locales()
    {
        QFile file(files_dir() + QStringLiteral("/locale.ini"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const auto list = corv::locale::LocaleList::from_data(file.readAll());
        QCOMPARE(list.find("en-US")->name, QStringLiteral("English (United States)"));
        QCOMPARE(list.find("de-DE")->name, QStringLiteral("Deutsch (Deutschland)"));
        for (const auto &locale : list.locales()) {
            QVERIFY2(QFile::exists(files_dir() + QLatin1Char('/') + QString::fromUtf8(locale.id) + QStringLiteral(".ini")),
                     locale.id.constData());
        }
    }
};

QTEST_GUILESS_MAIN(TstLocaleKeys)
#include "tst_locale_keys.moc"
