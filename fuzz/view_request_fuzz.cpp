// The board view's request bodies: arbitrary bytes to each route. A body is
// taken only when it holds every field of its route within its bounds; a
// refusal always carries a 4xx status and a message.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tools/view/request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string body(reinterpret_cast<const char *>(data), size);
    for (const char *route : {"/api/line", "/api/serial", "/api/knob", "/api/other"}) {
        const auto result = vexa::view::parse_request(route, body);
        if (!result.ok) {
            if (result.status < 400 || result.status > 499 || result.error.empty())
                std::abort();
            continue;
        }
        const auto &r = result.request;
        if (r.name.empty() || r.name.size() > 128 || size > vexa::view::kMaxBody)
            std::abort();
        for (unsigned char c : r.name)
            if (c < 0x20 || c == 0x7f)
                std::abort();
        switch (r.kind) {
        case vexa::view::Request::Kind::line:
            if (r.level != 0 && r.level != 1)
                std::abort();
            break;
        case vexa::view::Request::Kind::serial:
            if (r.value.empty() || r.value.size() > vexa::view::kMaxSerialBytes)
                std::abort();
            break;
        case vexa::view::Request::Kind::knob:
            if (r.value.size() > 128)
                std::abort();
            break;
        }
    }
    return 0;
}
