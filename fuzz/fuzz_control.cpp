// Feeds arbitrary bytes to the reader of control messages (what a command
// line sends to the running instance). Besides crashes it checks that a
// message reads as exactly one thing: refused with a reason, or a post or an
// open with nothing of the other.
#include "fuzz/fuzz_support.h"
#include "app/control.h"

#include <cstddef>
#include <cstdint>

using namespace corv::control;

using corv::fuzz::broken;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const Request request = read_request(bytes);
    switch (request.kind) {
    case Request::Invalid:
        if (request.error.isEmpty() || !request.event.isEmpty())
            broken("a refused message without a reason, or with an event", bytes);
        break;
    case Request::Post:
        if (!request.error.isEmpty() || !request.path.isEmpty())
            broken("a post with an error or a path", bytes);
        break;
    case Request::Open:
        if (!request.error.isEmpty() || !request.mailbox.isEmpty() || !request.event.isEmpty())
            broken("an open with an error or a post's parts", bytes);
        break;
    }
    return 0;
}
