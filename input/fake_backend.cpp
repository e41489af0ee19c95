#include "input/fake_backend.h"

#include "input/key_table.h"

namespace corv::input {

class FakeBackend final : public KeyboardBackend
{
public:
    explicit FakeBackend(std::shared_ptr<FakeKeyboard> keyboard) : m_keyboard(std::move(keyboard)) {}

    bool snapshot(KeySet &down, const KeySet &) override
    {
        ++m_keyboard->m_snapshots;
        std::lock_guard lock(m_keyboard->m_mutex);
        down = m_keyboard->m_down;
        return true;
    }

    bool send(const KeyRecord *records, std::size_t count) override
    {
        std::lock_guard lock(m_keyboard->m_mutex);
        for (std::size_t i = 0; i < count; ++i) {
            m_keyboard->m_sent.push_back(records[i]);
            if (records[i].vk < 256)
                m_keyboard->m_down[records[i].vk] = !records[i].up;
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
};

void FakeKeyboard::press(std::uint32_t vk)
{
    std::lock_guard lock(m_mutex);
    m_down[vk] = true;
}

void FakeKeyboard::release(std::uint32_t vk)
{
    std::lock_guard lock(m_mutex);
    m_down[vk] = false;
}

void FakeKeyboard::release_all()
{
    std::lock_guard lock(m_mutex);
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
