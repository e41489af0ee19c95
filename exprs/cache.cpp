#include "exprs/cache.h"

#include <QHash>

namespace corv::exprs {

namespace {

class TemplateCache
{
public:
    std::shared_ptr<const Template> get(QByteArrayView text)
    {
        // Looked up without copying the text.
        const auto found = m_entries.find(QByteArray::fromRawData(text.data(), text.size()));
        if (found != m_entries.end()) {
            found->used = ++m_clock;
            return found->parsed;
        }
        auto parsed = std::make_shared<const Template>(text);
        if (text.size() > cache_max_text)
            return parsed;
        if (m_entries.size() >= cache_capacity)
            evict_least_recent();
        m_entries.insert(parsed->source(), Entry{parsed, ++m_clock});
        return parsed;
    }

private:
    struct Entry
    {
        std::shared_ptr<const Template> parsed;
        quint64 used = 0;
    };

    void evict_least_recent()
    {
        auto oldest = m_entries.begin();
        for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
            if (it->used < oldest->used)
                oldest = it;
        }
        m_entries.erase(oldest);
    }

    QHash<QByteArray, Entry> m_entries;
    quint64 m_clock = 0;
};

} // namespace

std::shared_ptr<const Template> cached_template(QByteArrayView text)
{
    thread_local TemplateCache cache;
    return cache.get(text);
}

} // namespace corv::exprs
