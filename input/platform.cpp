#include "input/platform.h"

#include <QString>

#include <atomic>
#include <mutex>

namespace corv::input {

Q_LOGGING_CATEGORY(lc_input, "corv.input")

namespace {

std::mutex g_mutex;
BackendFactory g_factory;
std::atomic<bool> g_reported{false};

// Reads characters through a backend of its own, used by one thread at a
// time under g_mutex.
std::unique_ptr<KeyboardBackend> g_mapper;
bool g_mapper_tried = false;

// global_input_available(): 0 not asked, 1 yes, 2 no.
std::atomic<int> g_available{0};

} // namespace

std::unique_ptr<KeyboardBackend> open_backend()
{
    BackendFactory factory;
    {
        std::lock_guard lock(g_mutex);
        factory = g_factory;
    }
    if (factory)
        return factory();
    NativeOpening opening = open_native_backend();
    if (!opening.problem.empty() && !g_reported.exchange(true)) {
        if (opening.backend)
            qCWarning(lc_input, "Keyboard input: %s", opening.problem.c_str());
        else
            qCWarning(lc_input, "Global keyboard input is not available: %s; hotkey nodes stay idle",
                      opening.problem.c_str());
    }
    return std::move(opening.backend);
}

bool global_input_available()
{
    if (g_available.load() == 0)
        g_available.store(open_backend() ? 1 : 2);
    return g_available.load() == 1;
}

void set_backend_factory(BackendFactory factory)
{
    g_available.store(0);
    std::lock_guard lock(g_mutex);
    g_factory = std::move(factory);
    g_mapper.reset();
    g_mapper_tried = false;
}

std::optional<Hotkey> hotkey_from_text(std::string_view text)
{
    std::unique_lock lock(g_mutex);
    if (!g_mapper_tried) {
        g_mapper_tried = true;
        BackendFactory factory = g_factory;
        lock.unlock();
        std::unique_ptr<KeyboardBackend> mapper = factory ? factory() : open_backend();
        lock.lock();
        if (!g_mapper)
            g_mapper = std::move(mapper);
    }
    KeyboardBackend *mapper = g_mapper.get();
    return parse_hotkey(text, mapper ? ScanChar([mapper](char32_t ch) { return mapper->scan_char(ch); })
                                     : ScanChar());
}

} // namespace corv::input
