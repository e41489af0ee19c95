// Checks that every translation key the program uses exists in the shipped
// locale files. Keys are found by scanning the C and C++ sources of the
// repository (all but tests/, examples/ and build folders) for calls whose key
// argument is a string literal (adjacent literals joined): translate("Key"),
// CORV_TR_KEY("Key"), and corv_plugin_tr / plugin_tr (also their _arg, _plural
// and _plural_str forms) with the key second. Where the call shows that
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
#include <vector>

namespace {

using corv::locale::TrArg;

struct Token {
    enum Kind { Ident, String, Punct };
    Kind kind;
    QByteArray text; // identifier, punctuation character, or the literal's content
    int line;
};

bool is_ident_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// A small C/C++ lexer: enough to skip comments, character literals and string
// literals (raw ones too) and to see calls with their arguments.
QList<Token> tokenize(QByteArrayView src)
{
    QList<Token> tokens;
    int line = 1;
    qsizetype i = 0;
    const qsizetype n = src.size();
    auto read_quoted = [&](char quote) {
        QByteArray text;
        for (++i; i < n && src[i] != quote && src[i] != '\n'; text += src[i++]) {
            if (src[i] == '\\' && i + 1 < n && src[++i] == '\n')
                ++line;
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
            for (i += 2; i < n && !(src[i] == '*' && i + 1 < n && src[i + 1] == '/'); ++i)
                line += src[i] == '\n';
            i += 2;
        } else if (c == '"' || c == '\'') {
            const int start_line = line;
            const QByteArray text = read_quoted(c);
            if (c == '"')
                tokens.append({Token::String, text, start_line});
        } else if (is_ident_char(c)) {
            const qsizetype start = i;
            while (i < n && is_ident_char(src[i]))
                ++i;
            const QByteArray word = src.sliced(start, i - start).toByteArray();
            const bool quote = i < n && src[i] == '"';
            if (quote && (word == "R" || word == "u8R" || word == "uR" || word == "UR" || word == "LR")) {
                const qsizetype open = src.indexOf('(', i);
                const QByteArray end = ')' + src.sliced(i + 1, open - i - 1).toByteArray() + '"';
                const qsizetype close = src.indexOf(end, open);
                const QByteArray text = src.sliced(open + 1, (close < 0 ? n : close) - open - 1).toByteArray();
                tokens.append({Token::String, text, line});
                line += int(text.count('\n'));
                i = close < 0 ? n : close + end.size();
            } else if (quote && (word == "u8" || word == "u" || word == "U" || word == "L")) {
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

struct KeyUse {
    QByteArray key;
    QSet<int> counts; // placeholder numbers known to receive a count
    int line;
};

const QSet<QByteArray> kKeyFirst = {"translate", "CORV_TR_KEY"};
const QSet<QByteArray> kKeySecond = {"corv_plugin_tr", "corv_plugin_tr_arg", "corv_plugin_tr_plural",
                                     "corv_plugin_tr_plural_str", "plugin_tr", "plugin_tr_arg",
                                     "plugin_tr_plural", "plugin_tr_plural_str"};
const QSet<QByteArray> kCountShorthand = {"corv_plugin_tr_plural", "corv_plugin_tr_plural_str",
                                          "plugin_tr_plural", "plugin_tr_plural_str"};
const QSet<QByteArray> kArgBuilder = {"corv_plugin_tr_arg", "plugin_tr_arg"};
const QSet<QByteArray> kAppend = {"corv_tr_str", "corv_tr_int", "corv_tr_float", "tr_str", "tr_int", "tr_float"};
const QSet<QByteArray> kAppendCount = {"corv_tr_int_plural", "corv_tr_float_plural", "tr_int_plural",
                                       "tr_float_plural"};

QList<KeyUse> find_keys(QByteArrayView source)
{
    const QList<Token> t = tokenize(source);
    const auto is_punct = [&](qsizetype i, char c) {
        return i >= 0 && i < t.size() && t[i].kind == Token::Punct && t[i].text.size() == 1 && t[i].text[0] == c;
    };
    // For every "(": its ")" and the "(" it is nested in.
    std::map<qsizetype, qsizetype> close_of;
    std::map<qsizetype, qsizetype> parent_of;
    QList<qsizetype> stack;
    for (qsizetype i = 0; i < t.size(); ++i) {
        if (is_punct(i, '(')) {
            parent_of[i] = stack.isEmpty() ? -1 : stack.last();
            stack.append(i);
        } else if (is_punct(i, ')') && !stack.isEmpty()) {
            close_of[stack.takeLast()] = i;
        }
    }

    QList<KeyUse> uses;
    for (qsizetype i = 0; i + 1 < t.size(); ++i) {
        if (t[i].kind != Token::Ident || !is_punct(i + 1, '(') || !close_of.count(i + 1))
            continue;
        const QByteArray &name = t[i].text;
        const int key_index = kKeyFirst.contains(name) ? 0 : kKeySecond.contains(name) ? 1 : -1;
        if (key_index < 0)
            continue;
        // Split the arguments [begin, end) at top-level commas.
        const qsizetype close = close_of[i + 1];
        QList<QPair<qsizetype, qsizetype>> args;
        qsizetype begin = i + 2;
        int depth = 0;
        for (qsizetype j = i + 2; j < close; ++j) {
            if (is_punct(j, '(') || is_punct(j, '[') || is_punct(j, '{')) {
                ++depth;
            } else if (is_punct(j, ')') || is_punct(j, ']') || is_punct(j, '}')) {
                --depth;
            } else if (depth == 0 && is_punct(j, ',')) {
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
            literal = literal && t[j].kind == Token::String;
            use.key += t[j].kind == Token::String ? t[j].text : QByteArray();
        }
        if (!literal)
            continue;
        if (kCountShorthand.contains(name))
            use.counts.insert(1);
        // translate(key, a, plural(n), ...): argument k is %k.
        for (int k = 1; name == "translate" && k < args.size(); ++k) {
            for (qsizetype j = args[k].first; j < args[k].second; ++j) {
                if (t[j].kind == Token::Ident && t[j].text == "plural" && is_punct(j + 1, '(')) {
                    use.counts.insert(k);
                    break;
                }
                if (t[j].kind != Token::Ident && !is_punct(j, ':'))
                    break;
            }
        }
        // corv_tr_x(corv_tr_y(corv_plugin_tr_arg(p, key), a), b): walk out
        // through the calls that take the builder as first argument.
        for (qsizetype call = i, position = 0; kArgBuilder.contains(name);) {
            const qsizetype outer_open = parent_of[call + 1];
            if (outer_open < 1 || outer_open + 1 != call || t[outer_open - 1].kind != Token::Ident)
                break;
            const QByteArray &outer = t[outer_open - 1].text;
            if (kAppendCount.contains(outer))
                use.counts.insert(int(++position));
            else if (kAppend.contains(outer))
                ++position;
            else
                break;
            call = outer_open - 1;
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
    const int max = present.isEmpty() ? 0 : present.last();
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
    return QStringLiteral(CORV_TEST_SOURCE_DIR);
}

// The numbers of the "%N" placeholders of a text (a backslash skips a character).
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
    for (const char *delay : {"", ".%2", ".%2.%3"}) {
        keys.append(QByteArray("DelayNode.Name.NotRunning.%1") + delay);
        for (const char *left : {".%4", ".%4.%5", ".%4.%5.%6"})
            keys.append(QByteArray("DelayNode.Name.Running.%1") + delay + left);
    }
    return keys;
}

} // namespace

class TstLocaleKeys : public QObject
{
    Q_OBJECT

    corv::locale::Table m_en;
    corv::locale::Table m_de;

    QString files_dir() const { return source_dir() + QStringLiteral("/locale/files"); }

private Q_SLOTS:
    void initTestCase()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
        QVERIFY(corv::locale::read_locale_file(files_dir() + QStringLiteral("/en-US.ini"), m_en));
        QVERIFY(corv::locale::read_locale_file(files_dir() + QStringLiteral("/de-DE.ini"), m_de));
    }

    void scanner_data()
    {
        QTest::addColumn<QByteArray>("code");
        QTest::addColumn<QByteArrayList>("expected");
        const auto row = [](const char *name, const char *code, const QByteArrayList &expected) {
            QTest::newRow(name) << QByteArray(code) << expected;
        };
        row("translate", "x = corv::locale::translate(\"Menu.File\");", {"Menu.File"});
        row("translate with count", "translate(\"U.%1.%2\", corv::locale::plural(n), name);",
            {"U.%1.%2", "U.Singular.%2"});
        row("translate with two counts", "translate(\"U.%1.%2\", plural(n), plural(m));",
            {"U.%1.%2", "U.Singular.%2", "U.%1.Singular", "U.Singular.Singular"});
        row("marker", "static const char *k[] = {CORV_TR_KEY(\"T.A\"), CORV_TR_KEY(\"T.B\")};", {"T.A", "T.B"});
        row("plugin lookup", "cui_label(ctx, corv_plugin_tr(plugin, \"Node.Label\"));", {"Node.Label"});
        row("plural shorthand", "corv_plugin_tr_plural_str(p, \"C.%1\", n, buf);", {"C.%1", "C.Singular"});
        row("builder chain, first count",
            "corv_tr_end(corv_tr_str(corv_tr_int_plural(corv_plugin_tr_arg(p, \"R.%1.%2\"), n), s));",
            {"R.%1.%2", "R.Singular.%2"});
        row("builder chain, second count",
            "corv_tr_end_str(corv_tr_float_plural(corv_tr_str(corv_plugin_tr_arg(p, \"V.%1.%2\"), s), x), b);",
            {"V.%1.%2", "V.%1.Singular"});
        row("builder without counts", "corv_tr_end(corv_tr_float(corv_plugin_tr_arg(p, \"D.%1\"), d));", {"D.%1"});
        row("joined literals", "translate(\"Long.\" \"Key\");", {"Long.Key"});
        row("dynamic key is skipped", "translate(key); translate(\"A.\" + x);", {});
        row("comments are skipped",
            "// translate(\"No.One\")\n/* corv_plugin_tr(p, \"No.Two\") */ translate(\"Yes\");", {"Yes"});
        row("strings are skipped", "s = \"translate(\\\"No\\\")\"; c = '\"'; translate(\"Yes\");", {"Yes"});
        row("raw strings are skipped", "s = R\"x(translate(\"No\"))x\"; translate(\"Yes\");", {"Yes"});
        row("other tr functions are not ours", "QObject::tr(\"Qt\"); my_translate(\"No\");", {});
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
        std::map<QString, std::vector<corv::locale::Table>> plugin_tables;
        const QDir root(source_dir());
        // Only the program's folders are walked: build folders hold many
        // thousands of files, which take minutes to list under Wine.
        QStringList folders;
        for (const QString &top : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            if (top != QLatin1String("tests") && top != QLatin1String("examples")
                && !top.startsWith(QLatin1String("build")) && !top.startsWith(u'.'))
                folders << root.filePath(top);
        }
        for (const QString &folder : std::as_const(folders)) {
            QDirIterator it(folder, {"*.c", "*.cc", "*.cpp", "*.cxx", "*.h", "*.hpp"}, QDir::Files,
                            QDirIterator::Subdirectories);
            while (it.hasNext()) {
                const QString relative = root.relativeFilePath(it.next());
                const QString top = relative.section(u'/', 0, 0);
                QFile file(it.filePath());
                QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(relative));
                ++files;
                // A first-party plugin (plugins/<id>/) translates from its own locale folder.
                const corv::locale::Table *en = &m_en;
                const corv::locale::Table *de = &m_de;
                if (top == QLatin1String("plugins") && relative.count(u'/') >= 2) {
                    auto &tables = plugin_tables[relative.section(u'/', 0, 1)];
                    if (tables.empty()) {
                        tables.resize(2);
                        const QString locale =
                            source_dir() + u'/' + relative.section(u'/', 0, 1) + QStringLiteral("/locale/");
                        QVERIFY(corv::locale::read_locale_file(locale + QStringLiteral("en-US.ini"),
                                                               tables[0]));
                        QVERIFY(corv::locale::read_locale_file(locale + QStringLiteral("de-DE.ini"),
                                                               tables[1]));
                    }
                    en = &tables[0];
                    de = &tables[1];
                }
                for (const KeyUse &use : find_keys(file.readAll())) {
                    for (const QByteArray &key : required_forms(use)) {
                        ++keys;
                        const QString where = QStringLiteral("%1:%2: %3").arg(relative).arg(use.line).arg(QString::fromUtf8(key));
                        if (!en->count(key))
                            missing.append(where + QStringLiteral(" (en-US)"));
                        if (!de->count(key))
                            missing.append(where + QStringLiteral(" (de-DE)"));
                    }
                }
            }
        }
        QVERIFY2(missing.isEmpty(), qPrintable("keys missing from locale files:\n" + missing.join(u'\n')));
        // The scan must see the program: at least the new rack name of locale/.
        QVERIFY(files > 0 && keys > 0);
        qInfo("%d keys in %d source files checked", keys, files);
    }

    void assembled_keys_exist_in_every_locale()
    {
        const QByteArrayList keys = delay_keys();
        QCOMPARE(keys.size(), 12);
        for (const QByteArray &key : keys)
            QVERIFY2(m_en.count(key) && m_de.count(key), key.constData());
    }

    void locales_have_the_same_keys()
    {
        QStringList only[2];
        const corv::locale::Table *tables[2] = {&m_en, &m_de};
        for (int t = 0; t < 2; ++t) {
            for (const auto &[key, text] : *tables[t]) {
                if (!tables[1 - t]->count(key))
                    only[t].append(QString::fromUtf8(key));
            }
            only[t].sort();
        }
        QVERIFY2(only[0].isEmpty(), qPrintable("only in en-US: " + only[0].join(QStringLiteral(", "))));
        QVERIFY2(only[1].isEmpty(), qPrintable("only in de-DE: " + only[1].join(QStringLiteral(", "))));
    }

    // The shipped plugins' own locales, like the program's, are complete.
    void plugin_locales_have_the_same_keys_data()
    {
        QTest::addColumn<QString>("folder");
        for (const char *parent : {"plugins", "examples/plugins"}) {
            const QDir dir(source_dir() + u'/' + QLatin1String(parent));
            for (const QString &name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
                if (QFile::exists(dir.filePath(name + QStringLiteral("/locale/en-US.ini"))))
                    QTest::newRow(qPrintable(name))
                        << dir.filePath(name + QStringLiteral("/locale"));
            }
        }
    }

    void plugin_locales_have_the_same_keys()
    {
        QFETCH(QString, folder);
        corv::locale::Table en;
        corv::locale::Table de;
        QVERIFY(corv::locale::read_locale_file(folder + QStringLiteral("/en-US.ini"), en));
        QVERIFY(corv::locale::read_locale_file(folder + QStringLiteral("/de-DE.ini"), de));
        QStringList differ;
        for (const auto &[key, text] : en) {
            if (!de.count(key))
                differ.append(QString::fromUtf8(key) + QStringLiteral(" (not in de-DE)"));
        }
        for (const auto &[key, text] : de) {
            if (!en.count(key))
                differ.append(QString::fromUtf8(key) + QStringLiteral(" (not in en-US)"));
        }
        QVERIFY2(differ.isEmpty(), qPrintable(differ.join(u'\n')));
    }

    // A text may only use the arguments its key announces: "%N" of the key,
    // or one more where a placeholder became "Singular".
    void texts_use_only_announced_arguments()
    {
        QStringList wrong;
        for (const corv::locale::Table *table : {&m_en, &m_de}) {
            for (const auto &[key, text] : *table) {
                const QList<int> in_key = placeholders(key);
                const int allowed = (in_key.isEmpty() ? 0 : *std::max_element(in_key.begin(), in_key.end()))
                                    + int(key.count("Singular"));
                for (int n : placeholders(text)) {
                    if (n < 1 || n > allowed)
                        wrong.append(QString::fromUtf8(key + " = " + text));
                }
            }
        }
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join(u'\n')));
    }

    // Every line of a shipped file is a comment, blank or an entry: a line
    // that lost its "=" would silently drop a text.
    void shipped_files_have_no_stray_lines_data()
    {
        QTest::addColumn<QString>("name");
        for (const char *name : {"locale.ini", "en-US.ini", "de-DE.ini"})
            QTest::newRow(name) << QString::fromLatin1(name);
    }

    void shipped_files_have_no_stray_lines()
    {
        QFETCH(QString, name);
        QFile file(files_dir() + u'/' + name);
        QVERIFY(file.open(QIODevice::ReadOnly));
        for (int line_number = 1; !file.atEnd(); ++line_number) {
            const QByteArray line = file.readLine().trimmed();
            if (!line.isEmpty() && !line.startsWith('#') && !line.startsWith(';') && !line.startsWith('['))
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
        for (const auto &locale : list.locales())
            QVERIFY2(QFile::exists(files_dir() + u'/' + QString::fromUtf8(locale.id) + ".ini"), locale.id.constData());
    }
};

QTEST_GUILESS_MAIN(TstLocaleKeys)
#include "tst_locale_keys.moc"
