// The template language over a fixed set of event keys: every row is
// evaluated twice through the cache and once parsed afresh, and all three
// must agree (an error gives empty text and one warning each time).

#include "exprs/expression.h"

#include <QDateTime>
#include <QHash>
#include <QRegularExpression>
#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

using namespace corv::exprs;

namespace {

class MapKeys final : public KeySource
{
public:
    QHash<QByteArray, QByteArray> keys{
        {"level", "3"},       {"name", "Ada"},         {"empty", ""},
        {"zero", "0"},        {"zerof", " 0.0 "},      {"word", "false"},
        {"nan", "nan"},       {"big", "1e3"},          {"file.path", "/tmp/a b.txt"},
        {"odd key", "x"},     {"uni", "héllo wörld"},
    };
    bool has(QByteArrayView key) const override { return keys.contains(key.toByteArray()); }
    QByteArray value(QByteArrayView key) const override { return keys.value(key.toByteArray()); }
};

} // namespace

class TstExpression : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void evaluates_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<QString>("error"); // "<column>: <message>", or empty
        auto row = [](const char *name, const QByteArray &text, const QByteArray &result) {
            QTest::newRow(name) << text << result << QString();
        };
        auto error = [](const char *name, const QByteArray &text, const char *message) {
            QTest::newRow(name) << text << QByteArray() << QString::fromUtf8(message);
        };

        // Templates
        row("plain text", "no holes, no {{ ", "no holes, no { ");
        row("holes", "Level {level}: {level * 2}", "Level 3: 6");
        row("functions in holes", "{upper(name)} ({len(name)})", "ADA (3)");
        row("doubled braces", "{{a}} {{{level}}}", "{a} {3}");
        row("lone closing brace", "a}b", "a}b");
        row("braces in strings", "{'}' & \"{\" & '}}'}", "}{}}");
        row("dotted name", "{file.path}", "/tmp/a b.txt");
        row("missing key", "[{count}] {count + 1}", "[] 1");
        row("key that is no name", "{key('odd key')}", "x");
        // Precedence and associativity
        row("* before +", "{1 + 2 * 3} {(1 + 2) * 3}", "7 9");
        row("- and / group left", "{10 - 4 - 3} {8 / 4 / 2} {2 * 3 % 4}", "3 1 2");
        row("unary minus", "{-level + 1} {--2}", "-2 2");
        row("& below +", "{1 + 2 & 3}", "33");
        row("== below &", "{1 & 2 == 12}", "true");
        row("== below <", "{1 < 2 == true}", "true");
        row("and before or", "{true or false and false} {true || false && false}", "true true");
        row("not binds tightest", "{not false and false} {!0 == true}", "false true");
        row("?: groups right", "{1 ? 0 : 1 ? 'b' : 'c'}", "0");
        row("?: below or", "{false or true ? 'y' : 'n'}", "y");
        // Short-circuit: the right side would fail
        row("and stops", "{false and number('x')} {0 && 1 + 'x'}", "false false");
        row("or stops", "{true or number('x')} {1 || 1 + 'x'}", "true true");
        row("?: and if take one side", "{true ? 1 : number('x')} {if(0, number('x'), 2)}", "1 2");
        row("default is lazy", "{default(name, number('x'))} {default(empty, 'none')}", "Ada none");
        error("and goes on", "{true and number('x')}", "18: 'x' is not a number");
        // Comparisons
        row("numbers", "{10 > 9} {'10' > '9'} {'1.0' == 1} {zerof == 0}", "true true true true");
        row("texts byte-wise", "{'10' > '9a'} {'abc' < 'abd'} {'é' > 'z'}", "false true true");
        row("empty is text", "{empty == ''} {zero == ''} {count == 0}", "true false false");
        row("NaN", "{nan == nan} {nan != nan} {nan < 1}", "false true false");
        row("booleans as text", "{true == 'true'} {has('x') == false}", "true true");
        // Numbers as text, and texts as numbers
        row("whole numbers", "{9007199254740991} {-0} {big * 2} {1e3}",
            "9007199254740991 0 2000 1000");
        row("15 digits", "{0.1 + 0.2} {1/3} {9007199254740992 + 0}",
            "0.3 0.333333333333333 9.00719925474099e15");
        row("exponents", "{1e21} {0.00001} {-2.5e-300}", "1e21 1e-5 -2.5e-300");
        row("past the range", "{1e400} {-1e-400} {1" + QByteArray(1309, '0') + "e-1000}", "inf 0 inf");
        row("IEEE", "{1/0} {-1/0} {0/0} {5 % 0} {-7 % 3}", "inf -inf nan nan -1");
        row("texts that read", "{' 12.5 ' + 0} {'INF' - 1} {'-nan' * 1} {.5 + '+1.'} {'\t\n\r\v\f 7' * 1}",
            "12.5 inf nan 1.5 7");
        error("text in arithmetic", "Level {level + name}", "16: 'Ada' is not a number");
        error("bad exponent", "{'1e' * 1}", "2: '1e' is not a number");
        error("boolean in arithmetic", "{true + 1}", "2: 'true' is not a number");
        row("truth", "{!'0.0'} {!word} {!'False'} {!'nan'} {!(0/0)} {!empty}",
            "true true false false true true");
        // Parse errors, with columns counting characters
        error("column after é", "héllo {x +}", "11: unexpected '}'");
        error("%1 in the text", "%1 %2 {%3}", "8: unexpected '%'");
        error("unknown function", "{foo(1)}", "2: unknown function 'foo'");
        error("too few arguments", "{len()}", "2: 'len' takes 1 argument, not 0");
        error("optional arguments", "{substr('a')}", "2: 'substr' takes 2 or 3 arguments, not 1");
        error("open list", "{min()}", "2: 'min' takes at least 1 argument, not 0");
        error("no arguments", "{now(1)}", "2: 'now' takes no arguments, not 1");
        error("unterminated string", "ab{'}", "4: unterminated string");
        error("unknown escape", "{'a\\q'}", "4: unknown escape '\\q'");
        error("unclosed hole", "x{1 +", "2: '{' is never closed");
        error("empty hole", "a{ }", "4: empty expression");
        error("single =", "{level = 1}", "8: unexpected '=' (compare with '==')");
        error("malformed number", "{12abc}", "2: malformed number '12abc'");
        error("missing )", "{(1 2}", "5: expected ')', found '2'");
        error("missing :", "{1 ? 2}", "7: expected ':', found '}'");
        error("two operands", "{name level}", "7: unexpected 'level'");
        error("two strings", "{'a' 'b'}", "6: unexpected ''b''");
        error("single |", "{1 | 2}", "4: unexpected character '|'");
        error("brace in a hole", "{{1}}{2{}", "8: unexpected character '{'");
        error("keyword as operand", "{and}", "2: unexpected 'and'");
        error("nested too deeply", "{" + QByteArray(300, '(') + "1" + QByteArray(300, ')') + "}",
              "202: expression nested too deeply");
        // Functions at their edges (positions count code points)
        row("substr", "{substr(uni, 1, 4)}|{substr(uni, -5)}|{substr(uni, 20)}"
            "|{substr(uni, 1, -1)}|{substr(uni, 1.9, 1)}",
            "éllo|wörld|||é");
        row("len and find", "{len(uni)} {len('')} {find(uni, 'w')} {find(uni, 'z')}"
            " {find('a', '')}",
            "11 0 6 -1 0");
        row("case and trim", "{upper('straße')} {lower('ÄB')} [{trim(' \ta b \t')}]",
            "STRASSE äb [a b]");
        row("replace", "{replace('aaa', 'a', 'bb')} {replace('abc', '', 'x')}", "bbbbbb abc");
        row("contains, starts, ends", "{contains('abc', '')} {startswith(name, 'Ad')} {endswith(name, 'x')}"
            " {contains('abc', 'x')} {startswith(name, 'da')} {endswith(name, 'da')}",
            "true true false false false true");
        row("pad", "{pad(7, 3, '0')} {pad('ab', -4, '.')} {pad('abcd', 2)} {pad('é', 3, 'üx')}"
            " {pad('a', 3, '')}|{pad('a', 2)}",
            "007 ab.. abcd üüé a| a");
        row("repeat", "{repeat('ab', 3)}[{repeat('ab', -1)}]", "ababab[]");
        error("repeat too long", "{repeat('ab', 1e12)}", "2: text longer than 16777216 bytes");
        row("number", "{number(' 4 ') + 1} {number('')}", "5 0");
        error("number of a word", "{number(name)}", "9: 'Ada' is not a number");
        row("abs floor ceil", "{abs(-2.5)} {floor(-1.5)} {ceil(-1.5)}", "2.5 -2 -1");
        row("round", "{round(2.5)} {round(-2.5)} {round(1234.5678, 2)} {round(1234, -2)}"
            " {round(1.5, 400)}",
            "3 -3 1234.57 1200 1.5");
        row("min max", "{min(3, 1, 2)} {max(3, 1, 2)} {min(1, 0/0)} {max(0/0, 1)} {max(1)}",
            "1 3 nan nan 1");
        error("max of a word", "{max(3, 'x')}", "9: 'x' is not a number");
        row("pow sqrt clamp", "{pow(2, 10)} {sqrt(-1)} {clamp(5, 1, 3)} {clamp(-5, 1, 3)}",
            "1024 nan 3 1");
        row("fixed", "{fixed(2.5, 2)} {fixed(-0.001, 2)} {fixed(1/0, 2)} {fixed(1.5, -1)}",
            "2.50 0.00 inf 2");
        row("has key default text", "{has('file.path')} {has('count')} {default(zero, 1)}"
            " {text(1.50)} {text(true)}",
            "true false 0 1.5 true");
    }

    void evaluates()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, result);
        QFETCH(QString, error);
        const MapKeys keys;
        if (!error.isEmpty()) {
            const QString warning = QStringLiteral("Expression error in \"%1\" at column %2")
                                        .arg(QString::fromUtf8(text), error);
            for (int i = 0; i < 3; ++i)
                QTest::ignoreMessage(QtWarningMsg, qUtf8Printable(warning));
        }
        QCOMPARE(evaluate(text, keys), result);
        QCOMPARE(evaluate(text, keys), result); // from the cache
        QCOMPARE(evaluate_uncached(text, keys), result);
    }

    // Every function with the fewest and the most arguments it takes, and
    // refused with one fewer and one more, naming the count it was given.
    void argument_counts()
    {
        const QByteArray counts = "len:1 upper:1 lower:1 trim:1 substr:2-3 replace:3 contains:2 "
                                  "startswith:2 endswith:2 find:2 pad:2-3 repeat:2 number:1 abs:1 "
                                  "floor:1 ceil:1 round:1-2 min:1+ max:1+ pow:2 sqrt:1 clamp:3 "
                                  "fixed:2 if:3 has:1 default:2 key:1 text:1 now:0 time:1 unix:0";
        for (const QByteArray &entry : counts.split(' ')) {
            const QByteArray name = entry.left(entry.indexOf(':'));
            const QByteArray range = entry.mid(entry.indexOf(':') + 1);
            const int min = range.left(1).toInt();
            const int max = range.endsWith('+') ? -1 : range.right(1).toInt();
            const auto call = [&name](int n) {
                QByteArray arguments;
                for (int i = 0; i < n; ++i)
                    arguments += i ? ", 1" : "1";
                return "{" + name + "(" + arguments + ")}";
            };
            for (int n : {min, max < 0 ? min + 3 : max})
                evaluate_uncached(call(n), no_keys()); // any warning fails the test
            for (int n : {min - 1, max < 0 ? -1 : max + 1}) {
                if (n < 0)
                    continue;
                QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("'%1' takes .*, not %2$")
                                                                          .arg(QString::fromLatin1(name))
                                                                          .arg(n)));
                QCOMPARE(evaluate_uncached(call(n), no_keys()), QByteArray());
            }
        }
    }

    void time_functions()
    {
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        const QByteArray now = evaluate("{now()}|{time('yyyy')}|{unix()}", no_keys());
        const QList<QByteArray> parts = now.split('|');
        QCOMPARE(parts.size(), 3);
        QVERIFY2(QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d$"))
                     .match(QString::fromLatin1(parts[0]))
                     .hasMatch(),
                 parts[0].constData());
        QCOMPARE(parts[1], parts[0].left(4));
        QVERIFY(parts[2].toLongLong() >= before);
        QVERIFY(parts[2].toLongLong() <= QDateTime::currentSecsSinceEpoch());
    }

    void threads_share_nothing()
    {
        // More templates than a cache holds, from several threads at once.
        std::vector<std::thread> threads;
        std::atomic<int> wrong{0};
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t, &wrong] {
                for (int i = 0; i < 1000; ++i) {
                    const int n = (i * 7 + t) % 300;
                    const QByteArray text = "{" + QByteArray::number(n) + " * 2}";
                    if (evaluate(text, no_keys()) != QByteArray::number(n * 2))
                        ++wrong;
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(wrong.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TstExpression)
#include "tst_expression.moc"
