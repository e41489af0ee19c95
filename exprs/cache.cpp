#include "exprs/cache.h"

#include "locale/translator.h"

#include <string_view>
#include <unordered_map>

namespace corv::exprs {

namespace {

// Keyed by views of the cached templates' own texts, so a lookup copies
// nothing; hashed with FNV-1a, which is cheaper on short texts than QHash's.
class TemplateCache
{
public:
    std::shared_ptr<const Template> get(QByteArrayView text)
    {
        const auto found = m_entries.find(std::string_view(text.data(), std::size_t(text.size())));
        if (found != m_entries.end()) {
            found->second.used = ++m_clock;
            return found->second.parsed;
        }
        auto parsed = std::make_shared<const Template>(text);
        if (text.size() > cache_max_text)
            return parsed;
        if (m_entries.size() >= std::size_t(cache_capacity))
            evict_least_recent();
        const QByteArray &source = parsed->source();
        m_entries.emplace(std::string_view(source.constData(), std::size_t(source.size())),
                          Entry{parsed, ++m_clock});
        return parsed;
    }

private:
    struct Entry
    {
        std::shared_ptr<const Template> parsed;
        quint64 used = 0;
    };
    struct Hash
    {
        std::size_t operator()(std::string_view text) const noexcept
        {
            return std::size_t(
                locale::Fnv1a64::hash(QByteArrayView(text.data(), qsizetype(text.size()))));
        }
    };

    void evict_least_recent()
    {
        auto oldest = m_entries.begin();
        for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
            if (it->second.used < oldest->second.used)
                oldest = it;
        }
        m_entries.erase(oldest);
    }

    std::unordered_map<std::string_view, Entry, Hash> m_entries;
    quint64 m_clock = 0;
};

} // namespace

std::shared_ptr<const Template> cached_template(QByteArrayView text)
{
    thread_local TemplateCache cache;
    return cache.get(text);
}

} // namespace corv::exprs
