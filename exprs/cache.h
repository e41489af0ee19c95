#pragma once

#include "exprs/template.h"

#include <memory>

namespace corv::exprs {

// The parsed template of text: from this thread's cache, or parsed now and
// kept there. Each thread has a cache of its own (plugins evaluate from worker
// threads too), holding the most recently used templates.
std::shared_ptr<const Template> cached_template(QByteArrayView text);

inline constexpr int cache_capacity = 128;
// Longer texts are parsed on every use rather than kept.
inline constexpr qsizetype cache_max_text = 16 * 1024;

} // namespace corv::exprs
