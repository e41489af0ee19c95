#include "exprs/cache.h"

#include "locale/translator.h"

#include <pthread.h>

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

namespace {

// Frees a thread's cache when the thread ends. A thread_local object with a
// destructor would do the same, but MinGW-w64 can free a thread's
// thread-local block before it runs such destructors (a crash when a
// worker thread that evaluated templates ends); a thread-specific key gets
// the cache itself.
pthread_key_t cache_key()
{
    static const pthread_key_t key = [] {
        pthread_key_t created;
        pthread_key_create(&created, [](void *cache) { delete static_cast<TemplateCache *>(cache); });
        return created;
    }();
    return key;
}

} // namespace

std::shared_ptr<const Template> cached_template(QByteArrayView text)
{
    thread_local TemplateCache *cache = nullptr;
    if (!cache) {
        cache = new TemplateCache;
        pthread_setspecific(cache_key(), cache);
    }
    return cache->get(text);
}

} // namespace corv::exprs
