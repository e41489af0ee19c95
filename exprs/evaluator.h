#pragma once

// Walks the tree of one hole against the event's keys. Failures are thrown as
// Failure and caught by Template::evaluate.

#include "exprs/template.h"

namespace corv::exprs {

class Evaluator
{
public:
    Evaluator(const Template &t, const KeySource &keys) : m_t(t), m_keys(keys) {}

    Value eval(int node);

    // A node's value converted; a text that is no number fails at the node.
    QByteArray text(int node);
    double number(int node);
    bool truth(int node);

    // Argument i of a call node.
    int arg(const Node &call, int i) const { return m_t.args[std::size_t(call.first_arg + i)]; }

    [[noreturn]] void fail(int node, QByteArray message) const;
    // Fails when a text made by a function would grow beyond max_text.
    void check_size(int node, qsizetype size) const;

    const KeySource &keys() const { return m_keys; }

private:
    Value call(const Node &node, int index); // functions.cpp
    Value compare(const Node &node);

    const Template &m_t;
    const KeySource &m_keys;
};

// A number as the language reads it from a value, or the failure message.
double to_number(const Value &value, bool *ok);
QByteArray not_a_number_message(const QByteArray &text);

} // namespace corv::exprs
