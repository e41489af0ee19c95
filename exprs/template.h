#pragma once

// A parsed template: the pieces of literal text and the expression holes
// between them, each hole a small tree of nodes. Parsed once (see cache.h),
// evaluated any number of times, from any thread.

#include "exprs/value.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

namespace corv::exprs {

class KeySource;

// Where and why parsing or evaluating stopped: a byte offset in the template
// text and a message.
struct Failure
{
    qsizetype offset = 0;
    QByteArray message;
};

enum class Op : unsigned char {
    Literal, // the node's value
    Key,     // the event key named by value.text
    Negate,
    Not,
    Concat,
    Add,
    Subtract,
    Multiply,
    Divide,
    Modulo,
    Equal,
    NotEqual,
    Less,
    LessEqual,
    Greater,
    GreaterEqual,
    And,
    Or,
    Choose, // a ? b : c
    Call,
};

enum class Function : unsigned char {
    Len, Upper, Lower, Trim, Substr, Replace, Contains, StartsWith, EndsWith, Find, Pad, Repeat,
    Number, Abs, Floor, Ceil, Round, Min, Max, Pow, Sqrt, Clamp, Fixed,
    If, Has, Default, Key, Text,
    Now, Time, Unix,
};

struct FunctionInfo
{
    const char *name;
    Function function;
    int min_args;
    int max_args; // -1: no limit
};

// The function of that name, or null.
const FunctionInfo *find_function(QByteArrayView name);

struct Node
{
    Op op = Op::Literal;
    Function function = Function::Len; // Op::Call
    qsizetype offset = 0;              // of the node's token in the template text
    int a = -1, b = -1, c = -1;        // operands (node indices)
    int first_arg = 0, arg_count = 0;  // Op::Call: indices into Template::args
    Value value;                       // Op::Literal, and the key name of Op::Key
};

class Template
{
public:
    // Parses text; a parse failure is kept and reported by every evaluation.
    explicit Template(QByteArrayView text);

    const QByteArray &source() const { return m_source; }

    // Writes the result to out, or returns the failure (out is then empty).
    std::optional<Failure> evaluate(const KeySource &keys, QByteArray &out) const;

    // The warning for a failure: Expression error in "<text>" at column <n>: <message>.
    // Columns count code points of the template text from 1.
    QString warning(const Failure &failure) const;

    struct Piece
    {
        QByteArray text; // literal text, when node < 0
        int node = -1;   // a hole
    };

    // Read by the evaluator; written by the parser.
    std::vector<Node> nodes;
    std::vector<int> args;
    std::vector<Piece> pieces;

private:
    QByteArray m_source;
    std::optional<Failure> m_parse_failure;
    qsizetype m_literal_size = 0; // bytes of literal text in all pieces
};

// Parses text into t's nodes and pieces. Throws Failure.
void parse_template(QByteArrayView text, Template &t);

// Upper bounds: the depth of an expression tree, and the length of any text
// a function or operator makes (so a template can't exhaust memory).
inline constexpr int max_depth = 200;
inline constexpr qsizetype max_text = 16 * 1024 * 1024;

} // namespace corv::exprs
