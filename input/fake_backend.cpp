#include "input/fake_backend.h"

#include "input/key_table.h"

namespace corv::input {

class FakeBackend final : public KeyboardBackend
{
public:
    explicit FakeBackend(std::shared_ptr<FakeKeyboard> keyboard) : m_keyboard(std::move(keyboard)) {}

    bool snapshot(KeySet &down, const KeySet &wanted, std::vector<KeyRecord> *edges) override
    {
        ++m_keyboard->m_snapshots;
        std::lock_guard lock(m_keyboard->m_mutex);
        down = m_keyboard->m_down;
        if (!edges) {
            m_primed = false;
            return true;
        }
        const std::vector<KeyRecord> &changes = m_keyboard->m_changes;
        if (m_primed && !m_keyboard->m_windows_edges) {
            edges->insert(edges->end(), changes.begin() + std::ptrdiff_t(m_read), changes.end());
        } else if (m_primed) {
            KeySet pressed;
            for (std::size_t i = m_read; i < changes.size(); ++i)
                if (!changes[i].up && changes[i].vk < 256)
                    pressed.set(changes[i].vk);
            const KeySet both = m_wanted & wanted;
            edges_from_recent_presses(m_before & both, down & both, pressed & both, *edges);
        }
        m_primed = true;
        m_read = changes.size();
        m_before = down;
        m_wanted = wanted;
        return true;
    }

    bool send(const KeyRecord *records, std::size_t count) override
    {
        std::lock_guard lock(m_keyboard->m_mutex);
        for (std::size_t i = 0; i < count; ++i) {
            m_keyboard->m_sent.push_back(records[i]);
            if (records[i].vk < 256) {
                m_keyboard->m_down[records[i].vk] = !records[i].up;
                m_keyboard->m_changes.push_back(records[i]);
            }
        }
        return true;
    }

    // The US layout, from the key table.
    std::int32_t scan_char(char32_t ch) override
    {
        if (ch >= 0x80)
            return -1;
        const char c = char(ch);
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 'A';
        if (c >= 'A' && c <= 'Z')
            return 0x100 | c;
        if (const KeyRow *row = row_for_name(std::string_view(&c, 1), false))
            return std::int32_t(row->vk);
        if (const KeyRow *row = row_for_shifted(c))
            return 0x100 | std::int32_t(row->vk);
        return -1;
    }

private:
    std::shared_ptr<FakeKeyboard> m_keyboard;
    // The reads with edges: how far the changes were read, and the state
    // and keys of that read.
    bool m_primed = false;
    std::size_t m_read = 0;
    KeySet m_before;
    KeySet m_wanted;
};

void FakeKeyboard::press(std::uint32_t vk)
{
    std::lock_guard lock(m_mutex);
    m_down[vk] = true;
    m_changes.push_back({vk, false});
}

void FakeKeyboard::release(std::uint32_t vk)
{
    std::lock_guard lock(m_mutex);
    m_down[vk] = false;
    m_changes.push_back({vk, true});
}

void FakeKeyboard::apply(const std::vector<KeyRecord> &changes)
{
    std::lock_guard lock(m_mutex);
    for (const KeyRecord &change : changes) {
        if (change.vk >= 256)
            continue;
        m_down[change.vk] = !change.up;
        m_changes.push_back(change);
    }
}

void FakeKeyboard::release_all()
{
    std::lock_guard lock(m_mutex);
    for (std::size_t vk = 0; vk < 256; ++vk)
        if (m_down[vk])
            m_changes.push_back({std::uint32_t(vk), true});
    m_down.reset();
}

KeySet FakeKeyboard::down() const
{
    std::lock_guard lock(m_mutex);
    return m_down;
}

std::vector<KeyRecord> FakeKeyboard::sent() const
{
    std::lock_guard lock(m_mutex);
    return m_sent;
}

void FakeKeyboard::clear_sent()
{
    std::lock_guard lock(m_mutex);
    m_sent.clear();
}

std::unique_ptr<KeyboardBackend> FakeKeyboard::make_backend()
{
    return std::make_unique<FakeBackend>(shared_from_this());
}

} // namespace corv::input
