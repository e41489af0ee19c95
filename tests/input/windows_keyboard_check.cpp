// The Windows keyboard backend on its own, without Qt: cross-compiled with
// MinGW-w64 and run under Wine on a private X server by
// scripts/wine-input-check.sh. It presses keys with SendInput, reads them
// back with GetAsyncKeyState, and reads hotkey text through VkKeyScanW.
// Prints one line per check and exits 0 when all pass.

#include "input/active_window.h"
#include "input/hotkey.h"
#include "input/windows_backend.h"

#include <cstdio>
#include <string>

using namespace corv::input;

namespace {

int g_failures = 0;

void check(bool ok, const std::string &what)
{
    std::printf("%s %s\n", ok ? "ok  " : "FAIL", what.c_str());
    if (!ok)
        ++g_failures;
}

KeySet read(KeyboardBackend &backend)
{
    KeySet all;
    all.set();
    all.reset(0);
    KeySet down;
    backend.snapshot(down, all);
    return down;
}

void send(KeyboardBackend &backend, std::vector<KeyRecord> records)
{
    check(backend.send(records.data(), records.size()), "SendInput took " + std::to_string(records.size()) + " records");
}

} // namespace

int main()
{
    std::unique_ptr<KeyboardBackend> backend = open_windows_backend();
    const ScanChar scan = [&](char32_t ch) { return backend->scan_char(ch); };

    // VkKeyScanW through hotkey text.
    struct Text {
        const char *text;
        Hotkey hotkey;
    };
    for (const Text &t : {Text{"Ctrl+Shift+K", {'K', kCtrlBit | kShiftBit}}, Text{"Ctrl+1", {'1', kCtrlBit}},
                          Text{"Shift+!", {'1', kShiftBit}}, Text{"Ctrl+,", {0xBC, kCtrlBit}},
                          Text{"Ctrl++", {0xBB, kCtrlBit | kShiftBit}}, Text{"Meta+F5", {0x74, kWinBit}},
                          Text{"Alt+Num+7", {0x67, kAltBit}}}) {
        const std::optional<Hotkey> hotkey = parse_hotkey(t.text, scan);
        check(hotkey && *hotkey == t.hotkey, std::string("reads ") + t.text);
    }
    check(backend->scan_char(U'k') == 'K', "VkKeyScanW k");
    check(backend->scan_char(U'K') == (0x100 | 'K'), "VkKeyScanW K needs Shift");

    // SendInput presses seen by GetAsyncKeyState, and exact matching.
    const Hotkey ctrl_k{'K', kCtrlBit};
    const Hotkey ctrl_shift_k{'K', kCtrlBit | kShiftBit};
    check(read(*backend).none(), "nothing down at start");
    send(*backend, {{kVkControl, false}, {'K', false}});
    KeySet down = read(*backend);
    check(down[kVkControl] && down['K'], "Ctrl and K down");
    check(matches(ctrl_k, down) && !matches(ctrl_shift_k, down), "Ctrl+K matches, Ctrl+Shift+K not");
    send(*backend, {{kVkShift, false}});
    down = read(*backend);
    check(!matches(ctrl_k, down) && matches(ctrl_shift_k, down), "with Shift: only Ctrl+Shift+K");
    send(*backend, {{kVkRightWin, false}});
    check(!matches(ctrl_shift_k, read(*backend)), "an extra Win key prevents the match");
    send(*backend, {{kVkRightWin, true}, {'K', true}, {kVkShift, true}, {kVkControl, true}});
    check(read(*backend).none(), "all released");

    // A press of Ctrl+C while the user holds Ctrl sends only C down and up,
    // and leaves the user's Ctrl down.
    send(*backend, {{kVkControl, false}});
    Injection injection(Hotkey{'C', kCtrlBit});
    const std::vector<KeyRecord> press = injection.press(read(*backend));
    check(press.size() == 1 && press[0].vk == 'C' && !press[0].up, "press plan: C down only");
    send(*backend, press);
    down = read(*backend);
    check(down['C'] && down[kVkControl] && matches(Hotkey{'C', kCtrlBit}, down), "Ctrl+C held");
    const std::vector<KeyRecord> release = injection.release();
    check(release.size() == 1 && release[0].vk == 'C' && release[0].up, "release plan: C up only");
    send(*backend, release);
    down = read(*backend);
    check(!down['C'] && down[kVkControl], "C up, the user's Ctrl still down");
    send(*backend, {{kVkControl, true}});

    // From a free keyboard the same job presses and releases Ctrl as well.
    Injection full(Hotkey{'C', kCtrlBit | kAltBit | kWinBit});
    send(*backend, full.press(read(*backend)));
    check(matches(Hotkey{'C', kCtrlBit | kAltBit | kWinBit}, read(*backend)), "Ctrl+Alt+Win+C held");
    send(*backend, full.release());
    check(read(*backend).none(), "nothing left down");

    // A press and release between two reads: the "pressed since the last
    // call" bit turns it into edges; the first read with edges lists none.
    KeySet wanted;
    wanted.set(kVkControl);
    wanted.set('K');
    std::vector<KeyRecord> edges;
    backend->snapshot(down, wanted, &edges);
    check(edges.empty(), "the first read with edges lists none");
    send(*backend, {{kVkControl, false}, {'K', false}, {'K', true}, {kVkControl, true}});
    edges.clear();
    backend->snapshot(down, wanted, &edges);
    std::string seen;
    for (const KeyRecord &edge : edges)
        seen.append(edge.up ? "^" : "v").append(std::to_string(edge.vk)).append(" ");
    check(down.none() && seen == "v17 v75 ^75 ^17 ", "a tap between reads gives its edges: " + seen);
    edges.clear();
    backend->snapshot(down, wanted, &edges);
    check(edges.empty(), "and only once");

    // The foreground window, if any, is read without failing.
    WindowLookupOpening windows = open_window_lookup();
    check(windows.lookup != nullptr, "the window lookup opens");
    if (windows.lookup) {
        const std::optional<ActiveWindow> active = windows.lookup->active();
        std::printf("     foreground window: %s\n", active ? ("\"" + active->title + "\" " + active->program).c_str() : "none");
    }

    std::printf("%d failure(s)\n", g_failures);
    return g_failures == 0 ? 0 : 1;
}
