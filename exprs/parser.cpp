// Template text to pieces and expression trees, by recursive descent over the
// tokens of each hole. Precedence, lowest first: ?:, or ||, and &&, == !=,
// < <= > >=, &, + -, * / %, then unary - not !. Binary operators group to the
// left, ?: to the right.

#include "exprs/template.h"
#include "exprs/tokenizer.h"

#include <algorithm>
#include <cstring>

namespace corv::exprs {

namespace {

const FunctionInfo functions[] = {
    {"len", Function::Len, 1, 1},
    {"upper", Function::Upper, 1, 1},
    {"lower", Function::Lower, 1, 1},
    {"trim", Function::Trim, 1, 1},
    {"substr", Function::Substr, 2, 3},
    {"replace", Function::Replace, 3, 3},
    {"contains", Function::Contains, 2, 2},
    {"startswith", Function::StartsWith, 2, 2},
    {"endswith", Function::EndsWith, 2, 2},
    {"find", Function::Find, 2, 2},
    {"pad", Function::Pad, 2, 3},
    {"repeat", Function::Repeat, 2, 2},
    {"number", Function::Number, 1, 1},
    {"abs", Function::Abs, 1, 1},
    {"floor", Function::Floor, 1, 1},
    {"ceil", Function::Ceil, 1, 1},
    {"round", Function::Round, 1, 2},
    {"min", Function::Min, 1, -1},
    {"max", Function::Max, 1, -1},
    {"pow", Function::Pow, 2, 2},
    {"sqrt", Function::Sqrt, 1, 1},
    {"clamp", Function::Clamp, 3, 3},
    {"fixed", Function::Fixed, 2, 2},
    {"if", Function::If, 3, 3},
    {"has", Function::Has, 1, 1},
    {"default", Function::Default, 2, 2},
    {"key", Function::Key, 1, 1},
    {"text", Function::Text, 1, 1},
    {"now", Function::Now, 0, 0},
    {"time", Function::Time, 1, 1},
    {"unix", Function::Unix, 0, 0},
};

QByteArray plural_arguments(int count)
{
    return QByteArray::number(count) + (count == 1 ? " argument" : " arguments");
}

// "'substr' takes 2 or 3 arguments", "'now' takes no arguments", ...
QByteArray arity_message(const FunctionInfo &info, int given)
{
    QByteArray takes;
    if (info.max_args == 0)
        takes = "no arguments";
    else if (info.max_args < 0)
        takes = "at least " + plural_arguments(info.min_args);
    else if (info.min_args == info.max_args)
        takes = plural_arguments(info.min_args);
    else if (info.max_args == info.min_args + 1)
        takes = QByteArray::number(info.min_args) + " or " + plural_arguments(info.max_args);
    else
        takes = QByteArray::number(info.min_args) + " to " + plural_arguments(info.max_args);
    return "'" + QByteArray(info.name) + "' takes " + takes + ", not " + QByteArray::number(given);
}

class Parser
{
public:
    Parser(QByteArrayView text, qsizetype at, Template &t)
        : m_text(text), m_tokens(text, at), m_t(t), m_first_node(int(t.nodes.size()))
    {
        advance();
    }

    // One hole, from after its "{" through its "}"; returns its root node.
    int hole(qsizetype open_brace)
    {
        m_open_brace = open_brace;
        if (m_token.kind == Tok::CloseBrace)
            fail(m_token.offset, "empty expression");
        const int root = choice();
        if (m_token.kind != Tok::CloseBrace)
            unexpected();
        return root;
    }

    qsizetype position() const { return m_tokens.position(); }

private:
    [[noreturn]] static void fail(qsizetype offset, QByteArray message)
    {
        throw Failure{offset, std::move(message)};
    }

    [[noreturn]] void unexpected() const
    {
        if (m_token.kind == Tok::End)
            fail(m_open_brace, "'{' is never closed");
        fail(m_token.offset, "unexpected '" + token_text() + "'");
    }

    // The token as written, long ones by their start.
    QByteArray token_text() const
    {
        constexpr qsizetype shown = 40;
        const QByteArrayView text = m_text.sliced(m_token.offset, m_token.length);
        if (text.size() <= shown)
            return text.toByteArray();
        return text.first(utf8::offset_of(text, utf8::index_of(text, shown))).toByteArray() + "...";
    }

    void advance() { m_token = m_tokens.next(); }

    bool is_word(const char *word) const
    {
        return m_token.kind == Tok::Name && m_token.text == word;
    }

    void expect(Tok kind, const char *what)
    {
        if (m_token.kind != kind) {
            if (m_token.kind == Tok::End)
                unexpected();
            fail(m_token.offset, "expected " + QByteArray(what) + ", found '" + token_text() + "'");
        }
        advance();
    }

    int depth(int node) const { return node < 0 ? 0 : m_depths[std::size_t(node - m_first_node)]; }

    int add(Node node)
    {
        const int d = 1 + std::max({depth(node.a), depth(node.b), depth(node.c)});
        int nested = d;
        for (int i = 0; i < node.arg_count; ++i)
            nested = std::max(nested, 1 + depth(m_t.args[std::size_t(node.first_arg + i)]));
        if (nested > max_depth)
            fail(node.offset, "expression nested too deeply");
        m_t.nodes.push_back(std::move(node));
        m_depths.push_back(nested);
        return int(m_t.nodes.size()) - 1;
    }

    int binary(Op op, qsizetype offset, int a, int b)
    {
        Node node;
        node.op = op;
        node.offset = offset;
        node.a = a;
        node.b = b;
        return add(std::move(node));
    }

    // Guards the recursion of nested parentheses, unary operators and ?:.
    struct Nesting
    {
        Nesting(Parser &parser, qsizetype offset) : parser(parser)
        {
            if (++parser.m_nesting > max_depth)
                fail(offset, "expression nested too deeply");
        }
        ~Nesting() { --parser.m_nesting; }
        Parser &parser;
    };

    int choice()
    {
        Nesting nesting(*this, m_token.offset);
        const int condition = either();
        if (m_token.kind != Tok::Question)
            return condition;
        Node node;
        node.op = Op::Choose;
        node.offset = m_token.offset;
        advance();
        node.a = condition;
        node.b = choice();
        expect(Tok::Colon, "':'");
        node.c = choice();
        return add(std::move(node));
    }

    int either()
    {
        int left = both();
        while (m_token.kind == Tok::OrOr || is_word("or")) {
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(Op::Or, offset, left, both());
        }
        return left;
    }

    int both()
    {
        int left = equality();
        while (m_token.kind == Tok::AndAnd || is_word("and")) {
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(Op::And, offset, left, equality());
        }
        return left;
    }

    int equality()
    {
        int left = relation();
        while (m_token.kind == Tok::EqualEqual || m_token.kind == Tok::BangEqual) {
            const Op op = m_token.kind == Tok::EqualEqual ? Op::Equal : Op::NotEqual;
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(op, offset, left, relation());
        }
        return left;
    }

    int relation()
    {
        int left = concatenation();
        while (true) {
            Op op;
            switch (m_token.kind) {
            case Tok::Less: op = Op::Less; break;
            case Tok::LessEqual: op = Op::LessEqual; break;
            case Tok::Greater: op = Op::Greater; break;
            case Tok::GreaterEqual: op = Op::GreaterEqual; break;
            default: return left;
            }
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(op, offset, left, concatenation());
        }
    }

    int concatenation()
    {
        int left = sum();
        while (m_token.kind == Tok::Amp) {
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(Op::Concat, offset, left, sum());
        }
        return left;
    }

    int sum()
    {
        int left = product();
        while (m_token.kind == Tok::Plus || m_token.kind == Tok::Minus) {
            const Op op = m_token.kind == Tok::Plus ? Op::Add : Op::Subtract;
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(op, offset, left, product());
        }
        return left;
    }

    int product()
    {
        int left = unary();
        while (true) {
            Op op;
            switch (m_token.kind) {
            case Tok::Star: op = Op::Multiply; break;
            case Tok::Slash: op = Op::Divide; break;
            case Tok::Percent: op = Op::Modulo; break;
            default: return left;
            }
            const qsizetype offset = m_token.offset;
            advance();
            left = binary(op, offset, left, unary());
        }
    }

    int unary()
    {
        Op op;
        if (m_token.kind == Tok::Minus)
            op = Op::Negate;
        else if (m_token.kind == Tok::Bang || is_word("not"))
            op = Op::Not;
        else
            return primary();
        Nesting nesting(*this, m_token.offset);
        Node node;
        node.op = op;
        node.offset = m_token.offset;
        advance();
        node.a = unary();
        return add(std::move(node));
    }

    int literal(qsizetype offset, Value value)
    {
        Node node;
        node.offset = offset;
        node.value = std::move(value);
        return add(std::move(node));
    }

    int primary()
    {
        const qsizetype offset = m_token.offset;
        switch (m_token.kind) {
        case Tok::Number: {
            const double number = m_token.number;
            advance();
            return literal(offset, Value::of_number(number));
        }
        case Tok::String: {
            QByteArray text = std::move(m_token.text);
            advance();
            return literal(offset, Value::of_text(std::move(text)));
        }
        case Tok::LParen: {
            advance();
            const int inner = choice();
            expect(Tok::RParen, "')'");
            return inner;
        }
        case Tok::Name:
            break;
        default:
            unexpected();
        }

        QByteArray name = std::move(m_token.text);
        if (name == "true" || name == "false") {
            advance();
            return literal(offset, Value::of_bool(name == "true"));
        }
        if (name == "and" || name == "or" || name == "not")
            unexpected();
        advance();
        if (m_token.kind != Tok::LParen) {
            Node node;
            node.op = Op::Key;
            node.offset = offset;
            node.value = Value::of_text(std::move(name));
            return add(std::move(node));
        }
        return call(offset, name);
    }

    int call(qsizetype offset, const QByteArray &name)
    {
        const FunctionInfo *info = find_function(name);
        if (!info)
            fail(offset, "unknown function '" + name + "'");
        advance(); // "("
        std::vector<int> arguments;
        if (m_token.kind != Tok::RParen) {
            while (true) {
                arguments.push_back(choice());
                if (m_token.kind == Tok::Comma) {
                    advance();
                    continue;
                }
                expect(Tok::RParen, "',' or ')'");
                break;
            }
        } else {
            advance();
        }
        const int count = int(arguments.size());
        if (count < info->min_args || (info->max_args >= 0 && count > info->max_args))
            fail(offset, arity_message(*info, count));
        Node node;
        node.op = Op::Call;
        node.function = info->function;
        node.offset = offset;
        node.first_arg = int(m_t.args.size());
        node.arg_count = count;
        m_t.args.insert(m_t.args.end(), arguments.begin(), arguments.end());
        return add(std::move(node));
    }

    QByteArrayView m_text;
    Tokenizer m_tokens;
    Template &m_t;
    int m_first_node;
    Token m_token;
    qsizetype m_open_brace = 0;
    int m_nesting = 0;
    std::vector<int> m_depths;
};

} // namespace

const FunctionInfo *find_function(QByteArrayView name)
{
    for (const FunctionInfo &info : functions) {
        if (name == QByteArrayView(info.name))
            return &info;
    }
    return nullptr;
}

void parse_template(QByteArrayView text, Template &t)
{
    QByteArray literal;
    qsizetype i = 0;
    auto flush = [&] {
        if (!literal.isEmpty())
            t.pieces.push_back(Template::Piece{std::move(literal), -1});
        literal.clear();
    };
    while (i < text.size()) {
        // Copy the run of plain characters at once.
        const char *brace = static_cast<const char *>(
            std::memchr(text.data() + i, '{', std::size_t(text.size() - i)));
        const char *close = static_cast<const char *>(
            std::memchr(text.data() + i, '}', std::size_t(text.size() - i)));
        qsizetype next = text.size();
        if (brace)
            next = brace - text.data();
        if (close)
            next = std::min(next, qsizetype(close - text.data()));
        literal += text.sliced(i, next - i);
        i = next;
        if (i >= text.size())
            break;
        const bool doubled = i + 1 < text.size() && text[i + 1] == text[i];
        if (text[i] == '}') {
            // "}}" is one literal brace; a lone "}" stands for itself.
            literal += '}';
            i += doubled ? 2 : 1;
            continue;
        }
        if (doubled) {
            literal += '{';
            i += 2;
            continue;
        }
        flush();
        Parser parser(text, i + 1, t);
        t.pieces.push_back(Template::Piece{QByteArray(), parser.hole(i)});
        i = parser.position();
    }
    flush();
}

} // namespace corv::exprs
